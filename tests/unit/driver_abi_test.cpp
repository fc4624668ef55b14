#include "modules/driver_abi.h"

#include <gtest/gtest.h>
#include <utility>

// The number `request` has on the box, a 32-bit MIPS: direction in bits
// 29-31 (1 none, 2 read, 4 write), record size in bits 16-28, type in bits
// 8-15, number in bits 0-7. Its pointers are 32-bit, so a name list record
// (count, reserved word, pointer) has 8 bytes there.
static uint32_t on_the_box(unsigned long request) {
    uint32_t direction =
        (_IOC_DIR(request) & _IOC_READ ? 2 : 0) | (_IOC_DIR(request) & _IOC_WRITE ? 4 : 0);
    uint32_t size = _IOC_SIZE(request) == sizeof(usbds_name_list_record) ? 8 : _IOC_SIZE(request);
    return (direction == 0 ? 1 : direction) << 29 | size << 16 | _IOC_TYPE(request) << 8 |
           _IOC_NR(request);
}

TEST(DriverRequestNumbers, MatchTheBoxNumbersWithThirtyTwoBitPointers) {
    const std::pair<unsigned long, uint32_t> numbers[] = {
        {USBDS_IOC_CONNECT, 0x809855F0},
        {USBDS_IOC_DISCONNECT, 0x809055F1},
        {USBDS_IOC_GET_NUM_INTERFACES, 0x200055F2},
        {USBDS_IOC_GET_INTERFACE_INFO, 0xC2C055F4},
        {USBDS_IOC_GET_INTERFACE_NAMES, 0xC00855F5},
        {USBDS_IOC_KEEP_ALIVE, 0x800855F6},
        {USBDS_IOC_CONNECT_EX, 0x80AC55F8},
    };
    for (auto [request, number] : numbers)
        EXPECT_EQ(on_the_box(request), number) << std::hex << number;
    EXPECT_EQ(sizeof(usbds_name_list_record), sizeof(void *) == 4 ? 8u : 16u);
}

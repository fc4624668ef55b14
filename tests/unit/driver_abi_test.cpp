#include "modules/driver_abi.h"

#include <cstdint>
#include <gtest/gtest.h>

namespace {

// The box's encoding: bits 29-31 direction (1 none, 2 read, 4 write,
// 6 both), bits 16-28 size, bits 8-15 type, bits 0-7 number.
enum mips_direction : uint32_t { MIPS_NONE = 1, MIPS_READ = 2, MIPS_WRITE = 4 };

constexpr uint32_t mips_request(uint32_t direction, uint32_t number, uint32_t size) {
    return direction << 29 | size << 16 | static_cast<uint32_t>('U') << 8 | number;
}

// On the box pointers are 32-bit: count, reserved word, pointer.
constexpr uint32_t NAME_LIST_SIZE_32 = 2 + 2 + 4;

struct request_shape {
    unsigned long host_request;
    uint32_t mips_direction;
    unsigned host_direction;
    uint32_t number;
    uint32_t size_32;
    uint32_t host_size;
    uint32_t expected_on_box;
};

const request_shape requests[] = {
    {USBDS_IOC_CONNECT, MIPS_WRITE, _IOC_WRITE, 0xF0, sizeof(usbds_connect_record),
     sizeof(usbds_connect_record), 0x809855F0},
    {USBDS_IOC_DISCONNECT, MIPS_WRITE, _IOC_WRITE, 0xF1, sizeof(usbds_disconnect_record),
     sizeof(usbds_disconnect_record), 0x809055F1},
    {USBDS_IOC_GET_NUM_INTERFACES, MIPS_NONE, _IOC_NONE, 0xF2, 0, 0, 0x200055F2},
    {USBDS_IOC_GET_INTERFACE_INFO, MIPS_READ | MIPS_WRITE, _IOC_READ | _IOC_WRITE, 0xF4,
     sizeof(usbds_info_record), sizeof(usbds_info_record), 0xC2C055F4},
    {USBDS_IOC_GET_INTERFACE_NAMES, MIPS_READ | MIPS_WRITE, _IOC_READ | _IOC_WRITE, 0xF5,
     NAME_LIST_SIZE_32, sizeof(usbds_name_list_record), 0xC00855F5},
    {USBDS_IOC_KEEP_ALIVE, MIPS_WRITE, _IOC_WRITE, 0xF6, NAME_LIST_SIZE_32,
     sizeof(usbds_name_list_record), 0x800855F6},
    {USBDS_IOC_CONNECT_EX, MIPS_WRITE, _IOC_WRITE, 0xF8, sizeof(usbds_connect_ex_record),
     sizeof(usbds_connect_ex_record), 0x80AC55F8},
};

// The host's numbers must carry the same direction, type, number and record
// size as the box's, whose pointers are 32-bit.
TEST(DriverRequestNumbers, MatchTheBoxNumbersAndTheHostRecords) {
    for (const auto &shape : requests) {
        SCOPED_TRACE(shape.number);
        EXPECT_EQ(mips_request(shape.mips_direction, shape.number, shape.size_32),
                  shape.expected_on_box);
        EXPECT_EQ(_IOC_DIR(shape.host_request), shape.host_direction);
        EXPECT_EQ(_IOC_TYPE(shape.host_request), static_cast<unsigned>('U'));
        EXPECT_EQ(_IOC_NR(shape.host_request), shape.number);
        EXPECT_EQ(_IOC_SIZE(shape.host_request), shape.host_size);
    }
}

TEST(DriverRecords, NameListRecordFollowsThePointerWidth) {
    EXPECT_EQ(sizeof(usbds_name_list_record), sizeof(void *) == 4 ? 8u : 16u);
}

} // namespace

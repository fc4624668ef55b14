// The interface between the daemon and the kernel USB-over-network driver:
// the control file, the request numbers and the records they carry.
//
// Every record is a fixed byte layout whose size and field offsets are the
// same on every target; only the name-list record holds a pointer and so
// follows the target's natural alignment. The request numbers are built
// with the target's own ioctl macros from direction, type 'U', number and
// record size, so a target with another encoding gets its own numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/ioctl.h>

#include "ds/module.h"

inline constexpr char USBDS_CONTROL_PATH[] = "/proc/tquptp/driver";
constexpr size_t USBDS_NAME_SIZE = 16;
constexpr size_t USBDS_ADDR_SIZE = 128;
constexpr size_t USBDS_MAC_SIZE = 6;
constexpr size_t USBDS_TEXT_SIZE = 256;

// Request 0xF0: a host takes an interface over.
struct usbds_connect_record {
    char name[USBDS_NAME_SIZE];
    uint8_t host_addr[USBDS_ADDR_SIZE];
    uint8_t host_mac[USBDS_MAC_SIZE];
    uint8_t opt_b1; // 0 or 1
    uint8_t opt_b0; // 0 or 1
};
static_assert(sizeof(usbds_connect_record) == 152);
static_assert(offsetof(usbds_connect_record, name) == 0);
static_assert(offsetof(usbds_connect_record, host_addr) == 16);
static_assert(offsetof(usbds_connect_record, host_mac) == 144);
static_assert(offsetof(usbds_connect_record, opt_b1) == 150);
static_assert(offsetof(usbds_connect_record, opt_b0) == 151);

// Request 0xF1: a host releases an interface.
struct usbds_disconnect_record {
    char name[USBDS_NAME_SIZE];
    uint8_t host_addr[USBDS_ADDR_SIZE];
};
static_assert(sizeof(usbds_disconnect_record) == 144);
static_assert(offsetof(usbds_disconnect_record, name) == 0);
static_assert(offsetof(usbds_disconnect_record, host_addr) == 16);

// Request 0xF8: connect with the size of the record and the name of the
// local network interface the request arrived on.
struct usbds_connect_ex_record {
    char name[USBDS_NAME_SIZE];
    uint8_t host_addr[USBDS_ADDR_SIZE];
    uint8_t host_mac[USBDS_MAC_SIZE];
    uint8_t opt_b1; // 0 or 1
    uint8_t opt_b0; // 0 or 1
    uint32_t size;  // 172
    char ifname[USBDS_NAME_SIZE];
};
static_assert(sizeof(usbds_connect_ex_record) == 172);
static_assert(offsetof(usbds_connect_ex_record, name) == 0);
static_assert(offsetof(usbds_connect_ex_record, host_addr) == 16);
static_assert(offsetof(usbds_connect_ex_record, host_mac) == 144);
static_assert(offsetof(usbds_connect_ex_record, opt_b1) == 150);
static_assert(offsetof(usbds_connect_ex_record, opt_b0) == 151);
static_assert(offsetof(usbds_connect_ex_record, size) == 152);
static_assert(offsetof(usbds_connect_ex_record, ifname) == 156);

// Request 0xF4: the daemon sets the name, the driver fills the rest.
struct usbds_info_record {
    char name[USBDS_NAME_SIZE];
    char manufacturer[USBDS_TEXT_SIZE]; // empty when unknown
    char product[USBDS_TEXT_SIZE];      // empty when unknown
    uint8_t host_addr[USBDS_ADDR_SIZE];
    uint8_t host_mac[USBDS_MAC_SIZE];
    uint16_t vendor_id;
    uint16_t product_id;
    char location[USBDS_NAME_SIZE];
    uint8_t aux1;
    uint8_t aux2;
    uint8_t unused_684[12];
    uint8_t aux3;
    uint8_t status_flag;
    uint8_t aux5;
    uint8_t unused_699[5];
};
static_assert(sizeof(usbds_info_record) == 704);
static_assert(offsetof(usbds_info_record, name) == 0);
static_assert(offsetof(usbds_info_record, manufacturer) == 16);
static_assert(offsetof(usbds_info_record, product) == 272);
static_assert(offsetof(usbds_info_record, host_addr) == 528);
static_assert(offsetof(usbds_info_record, host_mac) == 656);
static_assert(offsetof(usbds_info_record, vendor_id) == 662);
static_assert(offsetof(usbds_info_record, product_id) == 664);
static_assert(offsetof(usbds_info_record, location) == 666);
static_assert(offsetof(usbds_info_record, aux1) == 682);
static_assert(offsetof(usbds_info_record, aux2) == 683);
static_assert(offsetof(usbds_info_record, unused_684) == 684);
static_assert(offsetof(usbds_info_record, aux3) == 696);
static_assert(offsetof(usbds_info_record, status_flag) == 697);
static_assert(offsetof(usbds_info_record, aux5) == 698);
static_assert(offsetof(usbds_info_record, unused_699) == 699);

// Requests 0xF5 (the driver fills the slots and answers how many) and
// 0xF6 (the daemon fills them). Natural alignment: 8 bytes where pointers
// are 32-bit, 16 where they are 64-bit; the request numbers carry that.
struct usbds_name_list_record {
    uint16_t count;
    uint16_t reserved; // zero for 0xF6, meaningless for 0xF5
    char (*slots)[USBDS_NAME_SIZE];
};
static_assert(offsetof(usbds_name_list_record, count) == 0);
static_assert(offsetof(usbds_name_list_record, reserved) == 2);
static_assert(offsetof(usbds_name_list_record, slots) == alignof(void *));
static_assert(sizeof(usbds_name_list_record) == 2 * sizeof(void *));
static_assert(USBDS_NAME_SIZE == DYPD_DS_NAME_SLOT);

constexpr char USBDS_IOC_TYPE = 'U';
constexpr unsigned long USBDS_IOC_CONNECT = _IOW(USBDS_IOC_TYPE, 0xF0, usbds_connect_record);
constexpr unsigned long USBDS_IOC_DISCONNECT = _IOW(USBDS_IOC_TYPE, 0xF1, usbds_disconnect_record);
constexpr unsigned long USBDS_IOC_GET_NUM_INTERFACES = _IO(USBDS_IOC_TYPE, 0xF2);
constexpr unsigned long USBDS_IOC_GET_INTERFACE_INFO =
    _IOWR(USBDS_IOC_TYPE, 0xF4, usbds_info_record);
constexpr unsigned long USBDS_IOC_GET_INTERFACE_NAMES =
    _IOWR(USBDS_IOC_TYPE, 0xF5, usbds_name_list_record);
constexpr unsigned long USBDS_IOC_KEEP_ALIVE = _IOW(USBDS_IOC_TYPE, 0xF6, usbds_name_list_record);
constexpr unsigned long USBDS_IOC_CONNECT_EX = _IOW(USBDS_IOC_TYPE, 0xF8, usbds_connect_ex_record);

// The box is a 32-bit MIPS (o32 ABI). There the numbers must be the ones
// the driver was built with; any MIPS o32 build, little- or big-endian,
// checks them.
#if defined(__mips__) && defined(_ABIO32) && _MIPS_SIM == _ABIO32
static_assert(sizeof(usbds_name_list_record) == 8);
static_assert(USBDS_IOC_CONNECT == 0x809855F0);
static_assert(USBDS_IOC_DISCONNECT == 0x809055F1);
static_assert(USBDS_IOC_GET_NUM_INTERFACES == 0x200055F2);
static_assert(USBDS_IOC_GET_INTERFACE_INFO == 0xC2C055F4);
static_assert(USBDS_IOC_GET_INTERFACE_NAMES == 0xC00855F5);
static_assert(USBDS_IOC_KEEP_ALIVE == 0x800855F6);
static_assert(USBDS_IOC_CONNECT_EX == 0x80AC55F8);
#endif

// Questions to the kernel about one network interface, MAC address text
// and the default gateway. Interface names are cut to 15 characters.
// Addresses are 4 bytes in network byte order.
#pragma once

#include <cstddef>
#include <cstdint>

// The 6 hardware-address bytes into `out`, whose size must be 6 to 8.
int tq_net_get_hwaddr(const char *ifname, uint8_t *out, size_t out_size);
// The interface's IPv4 address; -EADDRNOTAVAIL when it has none.
int tq_net_get_ip4addr(const char *ifname, uint8_t *out);
// The interface's IPv4 netmask; -EADDRNOTAVAIL when it has no address.
int tq_net_get_netmask(const char *ifname, uint8_t *out);
// Sets the interface's IPv4 address.
int tq_net_set_ip4addr(const char *ifname, const uint8_t *address);
// The functions above return 0, -EINVAL for a null or empty name or a null
// output, or the negative errno of the failed socket or request.

// 1 when the interface is up, 0 when it is down or unknown, -1 for a null
// name or when no socket can be opened.
int tq_net_chk_ifup(const char *ifname);

// The gateway of the first default route through `ifname` in
// "/proc/net/route", as the file shows it (the address's bytes in network
// order), into `*out`; 0 stays there when there is none. Returns 0, also
// at once for a null `out`; -1 when the file cannot be read; -EINVAL for a
// null name.
int tq_net_get_defaultgw(const char *ifname, uint32_t *out);

// Joins the multicast `group` (network order) on `socket` through the IPv4
// address of `ifname`. 0, or -1 when the interface has no address or the
// join fails.
int tq_net_join_mcgrop_in(int socket, const char *ifname, uint32_t group);

// MAC text: six two-digit hexadecimal groups joined by `separator`, as in
// 00:11:22:33:44:55 (17 characters). 1 when `text` is exactly that (either
// case), else 0.
int tq_net_ismacaddr(const char *text, char separator);
// Writes lowercase MAC text into `out` (at least 18 bytes). 0, or -EINVAL
// for a null argument.
int tq_net_mac2str_ex(const uint8_t *mac, char separator, char *out);
int tq_net_mac2str(const uint8_t *mac, char *out);
// Reads the groups at characters 0, 3, 6, 9, 12 and 15 without checking
// the separators; a group that does not convert repeats the previous byte
// (0 before the first). 0, or -EINVAL for a null argument.
int tq_net_str2mac_ex(const char *text, char separator, uint8_t *out);
int tq_net_str2mac(const char *text, uint8_t *out);

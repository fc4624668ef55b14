#include "ds/serial.h"

#include <fstream>
#include <sys/stat.h>

#include "support/fake_ds_module.h"

// The lookup of one location (16 bytes, then aux1 and aux2) in a tree that
// holds `device`/serial with `content`.
struct lookup_case {
    const char *why;
    std::string location, device, content;
    int result;
    std::string serial; // the 64 bytes written, NUL-padded, when result is 0
    int priority;
    std::string logged; // empty: nothing is logged
};

TEST(SerialLookup, LocationsMapToSysfsDevicesAndTheirSerials) {
    const lookup_case cases[] = {
        {"port path, CR LF", "H123", "1-2.3", "ABC\r\n", 0, "ABC", 0, ""},
        {"M ends the path, bare bus", "S2M", "2", "BUS2\n", 0, "BUS2", 0, ""},
        {"path runs into aux1, aux2 is M", "H1234567891234567M", "1-2.3.4.5.6.7.8.9.1.2.3.4.5.6.7",
         "LONG\n", 0, "LONG", 0, ""},
        {"no serial file", "H123", "9", "x", 0, "", 0, ""},
        {"file fills the whole read", "H123", "1-2.3", std::string(200, 'Z'), -ENOBUFS, "", LOG_ERR,
         "cannot open serial error " + std::to_string(-ENOBUFS)},
        {"unknown kind", "X1-2", "9", "x", -EINVAL, "", LOG_INFO, " unknown location (X1-2)\n"},
    };
    char root[] = "/tmp/dypsysfsXXXXXX";
    ASSERT_NE(mkdtemp(root), nullptr);
    dypd_ds_set_sysfs_root(root);
    for (const lookup_case &c : cases) {
        SCOPED_TRACE(c.why);
        std::string dir = root + ("/" + c.device);
        ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
        std::ofstream(dir + "/serial") << c.content;
        dypd_session session{};
        dypd_ds_interface_info info{};
        memcpy(info.location, c.location.data(), std::min<size_t>(c.location.size(), 16));
        info.aux1 = c.location.size() > 16 ? static_cast<uint8_t>(c.location[16]) : 0;
        info.aux2 = c.location.size() > 17 ? static_cast<uint8_t>(c.location[17]) : 0;
        uint8_t serial[64];
        memset(serial, 0xEE, sizeof serial);
        log_capture log;
        EXPECT_EQ(dypd_ds_get_serial(&session, &info, serial), c.result);
        if (c.result == 0)
            EXPECT_EQ(std::string(reinterpret_cast<char *>(serial), 64),
                      c.serial + std::string(64 - c.serial.size(), '\0'));
        EXPECT_EQ(log.lines().size(), c.logged.empty() ? 0u : 1u);
        if (!c.logged.empty())
            EXPECT_EQ(log.count(c.priority, c.logged), 1);
        (void)run_shell("rm -rf " + dir);
    }
    dypd_ds_set_sysfs_root(nullptr);
    (void)run_shell("rm -rf "s + root);
}

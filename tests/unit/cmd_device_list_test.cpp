#include <cstring>

#include <gtest/gtest.h>
#include <syslog.h>

#include "ds/commands.h"
#include "lib/alloc.h"
#include "lib/be.h"
#include "protocol/session.h"
#include "support/fake_ds_module.h"
#include "support/log_capture.h"

namespace {

struct entry {
    std::string name, description;
    uint8_t ipv4[4];
    uint16_t status, vendor, product;
    std::string location; // 16 bytes as sent
    uint8_t aux1, aux2;
    std::string serial; // 64 bytes as sent (EX only)
};

// Parses a reply; fails the test on any malformed or trailing byte.
std::vector<entry> parse(const uint8_t *p, int32_t size, bool ex) {
    std::vector<entry> entries;
    int32_t at = 1;
    while (at < size) {
        entry e;
        e.name = reinterpret_cast<const char *>(p + at);
        at += static_cast<int32_t>(e.name.size()) + 1;
        e.description = reinterpret_cast<const char *>(p + at);
        at += static_cast<int32_t>(e.description.size()) + 1;
        memcpy(e.ipv4, p + at, 4);
        e.status = get_be16(p + at + 4);
        at += 6;
        if (ex) {
            EXPECT_EQ(get_be16(p + at), 0);
            at += 2;
        }
        e.vendor = get_be16(p + at);
        e.product = get_be16(p + at + 2);
        e.location.assign(reinterpret_cast<const char *>(p + at + 4), 16);
        e.aux1 = p[at + 20];
        e.aux2 = p[at + 21];
        at += 22;
        if (ex) {
            e.serial.assign(reinterpret_cast<const char *>(p + at), 64);
            at += 64;
        }
        EXPECT_EQ(get_be32(p + at), 0u);
        at += 4;
        entries.push_back(e);
    }
    EXPECT_EQ(at, size);
    return entries;
}

class DeviceList : public ::testing::Test {
  protected:
    // Runs the command; `count` gets the reply's count byte.
    std::vector<entry> fetch(bool ex = false, uint32_t capacity = sizeof out) {
        auto request =
            make_request(text_bytes(ex ? "GET USB_DEVICE_LIST_EX" : "GET USB_DEVICE_LIST"));
        size = (ex ? dypcmd_get_usb_device_list_ex
                   : dypcmd_get_usb_device_list)(&session, request.data(), out, capacity);
        EXPECT_GE(size, 1);
        count = size > 0 ? out[0] : -1;
        return size > 0 ? parse(out, size, ex) : std::vector<entry>{};
    }
    static void add(fake_module &module, int n, const std::string &prefix) {
        for (int i = 0; i < n; ++i)
            module.interfaces.push_back({prefix + std::to_string(i)});
    }

    identity_scope identity{0x0100};
    dypd_session session{};
    uint8_t out[65536] = {};
    int32_t size = 0;
    int count = -1;
    fake_module first{"first"}, second{"second"}, third{"third"};
};

TEST_F(DeviceList, EntriesCarryEveryFieldInOrderWithTheDaemonStatusBits) {
    {
        module_list_scope empty;
        EXPECT_TRUE(fetch().empty());
        EXPECT_EQ(size, 1);
        EXPECT_EQ(count, 0);
    }
    fake_interface iface{"usb1"};
    iface.description = std::string(100, 'd'); // cut to 63
    iface.aux1 = 0x5A;
    iface.aux2 = 0xA5;
    fake_interface flagged{"usb2"};
    flagged.status_flag = 1;
    flagged.raw_description = true; // 256 bytes without a NUL
    first.interfaces = {iface, flagged};
    module_list_scope list({&first});
    auto entries = fetch();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(size, 1 + (5 + 64 + 28 + 4) + (5 + 64 + 28 + 4));
    const entry &e = entries[0];
    EXPECT_EQ(e.name, "usb1");
    EXPECT_EQ(e.description, std::string(63, 'd'));
    EXPECT_EQ(0, memcmp(e.ipv4, iface.ipv4, 4));
    EXPECT_EQ(e.status, 0x8183);
    EXPECT_EQ(e.vendor, 0x04b8);
    EXPECT_EQ(e.product, 0x0142);
    EXPECT_EQ(e.location, std::string("H12", 3) + std::string(13, '\0'));
    EXPECT_EQ(e.aux1, 0x5A);
    EXPECT_EQ(e.aux2, 0xA5);
    EXPECT_EQ(entries[1].status, 0x8583);
    EXPECT_EQ(entries[1].description, std::string(63, 'D'));
}

TEST_F(DeviceList, TheCountStopsAt255AndLaterModulesAreAskedForWhatIsLeft) {
    add(first, 200, "a");
    add(second, 100, "b");
    add(third, 1, "c");
    module_list_scope list({&first, &second, &third});
    auto entries = fetch();
    EXPECT_EQ(count, 255);
    EXPECT_EQ(entries.size(), 255u);
    EXPECT_EQ(second.names_asked, std::vector<uint16_t>{55});
    EXPECT_TRUE(third.names_asked.empty());
    EXPECT_EQ(entries.back().name, "b54");
}

TEST_F(DeviceList, DisownedInterfacesAreCountedButALastOneDropsTheModule) {
    add(first, 3, "a");
    first.interfaces[1].info_result = -ENODEV;
    add(second, 3, "b");
    second.interfaces[2].info_result = -ENODEV;
    module_list_scope list({&first, &second});
    auto entries = fetch();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].name, "a0");
    EXPECT_EQ(entries[1].name, "a2");
    EXPECT_EQ(count, 3);
}

TEST_F(DeviceList, FailingOrIncompleteModulesAreLeftOutAndOnlyRealFailuresLogged) {
    fake_module lacking("lacking");
    add(lacking, 1, "l");
    lacking.get()->get_num_interfaces = nullptr;
    add(first, 1, "a");
    add(second, 2, "b");
    second.interfaces[1].info_result = -EIO;
    add(third, 2, "c");
    third.interfaces[1].info_result = -ENOENT;
    module_list_scope list({&lacking, &first, &second, &third});
    log_capture log;
    auto entries = fetch();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].name, "a0");
    EXPECT_EQ(count, 1);
    EXPECT_EQ(log.count(LOG_ERR, "cannot get an interface info module second (err: -5)"), 1);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(DeviceList, AFullOutputBufferRollsTheModuleBackAndNoMemoryIsENOMEM) {
    add(first, 1, "a");
    add(second, 3, "b");
    module_list_scope list({&first, &second});
    // Room for the count byte, the first entry and part of the second.
    EXPECT_EQ(fetch(false, 1 + (3 + 8 + 28 + 4) + 50).size(), 1u);
    EXPECT_EQ(count, 1);

    dyp_alloc_fail_after(1);
    auto request = make_request(text_bytes("GET USB_DEVICE_LIST"));
    EXPECT_EQ(dypcmd_get_usb_device_list(&session, request.data(), out, sizeof out), -ENOMEM);
    dyp_alloc_fail_after(0);
}

TEST_F(DeviceList, ExEntriesCarryTheSerialAndABadLookupDropsTheModule) {
    sysfs_scope sysfs;
    sysfs.put_serial("2", "ABC\r\n");
    sysfs.put_serial("1-3", std::string(200, 'Z'));
    fake_interface with_serial{"usb1"};
    with_serial.location = "S2M";
    fake_interface no_file{"usb2"}, odd{"usb3"}, oversized{"usb4"};
    odd.location = "X1-2";
    oversized.location = "H13";
    first.interfaces = {with_serial, no_file};
    second.interfaces = {no_file, odd};
    third.interfaces = {oversized};
    module_list_scope list({&first, &second, &third});
    log_capture log;
    auto entries = fetch(true);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(entries[0].serial, "ABC" + std::string(61, '\0'));
    EXPECT_EQ(entries[1].serial, std::string(64, '\0'));
    EXPECT_EQ(entries[0].status, 0x8183);
    EXPECT_EQ(log.count(LOG_INFO, " unknown location (X1-2)\n"), 1);
    EXPECT_EQ(log.count(LOG_ERR, "cannot open serial error -105"), 1);
}

} // namespace

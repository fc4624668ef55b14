#include <cstring>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include "ds/commands.h"
#include "ds/serial.h"
#include "lib/be.h"
#include "protocol/session.h"
#include "support/fake_ds_module.h"
#include "support/log_capture.h"
#include "support/netns.h"

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
std::vector<entry> parse(const uint8_t *p, int32_t size, bool ex, int *count) {
    std::vector<entry> entries;
    EXPECT_GE(size, 1);
    *count = p[0];
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
    std::vector<entry> fetch(bool ex, int *count, uint32_t capacity = sizeof out) {
        auto request =
            make_request(text_bytes(ex ? "GET USB_DEVICE_LIST_EX" : "GET USB_DEVICE_LIST"));
        size = (ex ? dypcmd_get_usb_device_list_ex
                   : dypcmd_get_usb_device_list)(&session, request.data(), out, capacity);
        return size > 0 ? parse(out, size, ex, count) : std::vector<entry>{};
    }
    void add(fake_module &module, int n, const std::string &prefix) {
        for (int i = 0; i < n; ++i)
            module.interfaces.push_back({prefix + std::to_string(i)});
    }

    identity_scope identity;
    dypd_session session{};
    uint8_t out[65536] = {};
    int32_t size = 0;
    fake_module first{"first"}, second{"second"}, third{"third"};
};

TEST_F(DeviceList, NoModuleGivesTheSingleByteZero) {
    module_list_scope list;
    int count = -1;
    EXPECT_TRUE(fetch(false, &count).empty());
    EXPECT_EQ(size, 1);
    EXPECT_EQ(count, 0);
}

TEST_F(DeviceList, PlainEntryCarriesEveryFieldInOrder) {
    fake_interface iface{"usb1"};
    iface.description = "Acme Scanner";
    iface.location = "H12";
    iface.aux1 = 0x5A;
    iface.aux2 = 0xA5;
    first.interfaces.push_back(iface);
    iface.name = "usb2";
    iface.status_flag = 1;
    first.interfaces.push_back(iface);
    module_list_scope list({&first});
    int count;
    auto entries = fetch(false, &count);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(size, 1 + 2 * (5 + 13 + 4 + 2 + 2 + 2 + 16 + 1 + 1 + 4));
    const entry &e = entries[0];
    EXPECT_EQ(e.name, "usb1");
    EXPECT_EQ(e.description, "Acme Scanner");
    EXPECT_EQ(0, memcmp(e.ipv4, iface.ipv4, 4));
    EXPECT_EQ(e.status, 0x8083);
    EXPECT_EQ(entries[1].status, 0x8483);
    EXPECT_EQ(e.vendor, 0x04b8);
    EXPECT_EQ(e.product, 0x0142);
    EXPECT_EQ(e.location, std::string("H12", 3) + std::string(13, '\0'));
    EXPECT_EQ(e.aux1, 0x5A);
    EXPECT_EQ(e.aux2, 0xA5);
}

TEST_F(DeviceList, DaemonStatusBitsPassThrough) {
    identity.identity.status = 0x0100;
    first.interfaces.push_back({"usb1"});
    module_list_scope list({&first});
    int count;
    EXPECT_EQ(fetch(false, &count).at(0).status, 0x8183);
}

TEST_F(DeviceList, DescriptionsAreCutTo63CharactersEvenWithoutANul) {
    fake_interface long_text{"usb1"};
    long_text.description = std::string(100, 'd');
    fake_interface unterminated{"usb2"};
    unterminated.raw_description = true;
    first.interfaces = {long_text, unterminated};
    module_list_scope list({&first});
    int count;
    auto entries = fetch(false, &count);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].description, std::string(63, 'd'));
    EXPECT_EQ(entries[1].description, std::string(63, 'D'));
}

TEST_F(DeviceList, TheCountStopsAt255AcrossModules) {
    add(first, 300, "a");
    module_list_scope list({&first, &second});
    int count;
    EXPECT_EQ(fetch(false, &count).size(), 255u);
    EXPECT_EQ(count, 255);
    EXPECT_EQ(first.names_asked, std::vector<uint16_t>{255});
    EXPECT_TRUE(second.names_asked.empty());
}

TEST_F(DeviceList, ALaterModuleIsAskedOnlyForWhatIsLeft) {
    add(first, 200, "a");
    add(second, 100, "b");
    add(third, 1, "c");
    module_list_scope list({&first, &second, &third});
    int count;
    auto entries = fetch(false, &count);
    EXPECT_EQ(second.names_asked, std::vector<uint16_t>{55});
    EXPECT_TRUE(third.names_asked.empty());
    EXPECT_EQ(count, 255);
    EXPECT_EQ(entries.back().name, "b54");
}

TEST_F(DeviceList, ADisownedInterfaceIsCountedButGetsNoEntry) {
    add(first, 3, "a");
    first.interfaces[1].info_result = -ENODEV;
    module_list_scope list({&first});
    int count;
    auto entries = fetch(false, &count);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].name, "a0");
    EXPECT_EQ(entries[1].name, "a2");
    EXPECT_EQ(count, 3);
}

TEST_F(DeviceList, ADisownedLastInterfaceDropsTheModule) {
    add(first, 1, "a");
    add(second, 3, "b");
    second.interfaces[2].info_result = -ENODEV;
    module_list_scope list({&first, &second});
    int count;
    auto entries = fetch(false, &count);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].name, "a0");
    EXPECT_EQ(count, 1);
}

TEST_F(DeviceList, FailingModulesRollBackAndOnlyRealFailuresAreLogged) {
    add(first, 1, "a");
    add(second, 2, "b");
    second.interfaces[1].info_result = -EIO;
    add(third, 2, "c");
    third.interfaces[1].info_result = -ENOENT;
    module_list_scope list({&first, &second, &third});
    log_capture log;
    int count;
    auto entries = fetch(false, &count);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(log.count(LOG_ERR, "cannot get an interface info module second (err: -5)"), 1);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(DeviceList, ModulesLackingAnOperationAreSkipped) {
    add(first, 1, "a");
    first.drop("get_num_interfaces");
    add(second, 1, "b");
    module_list_scope list({&first, &second});
    int count;
    auto entries = fetch(false, &count);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].name, "b0");
}

TEST_F(DeviceList, AFullOutputBufferRollsTheModuleBack) {
    add(first, 1, "a");
    add(second, 3, "b");
    module_list_scope list({&first, &second});
    int count;
    // Room for the count byte, the first entry and part of the second.
    uint32_t one_entry = 3 + 8 + 4 + 2 + 2 + 2 + 16 + 1 + 1 + 4;
    auto entries = fetch(false, &count, 1 + one_entry + 50);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(count, 1);
}

TEST_F(DeviceList, NoMemoryForTheRecordIsENOMEM) {
    module_list_scope list({&first});
    dyp_alloc_fail_after(1);
    auto request = make_request(text_bytes("GET USB_DEVICE_LIST"));
    EXPECT_EQ(dypcmd_get_usb_device_list(&session, request.data(), out, sizeof out), -ENOMEM);
    dyp_alloc_fail_after(0);
}

class DeviceListEx : public DeviceList {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/dypdevlistXXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root = pattern;
        dypd_ds_set_sysfs_root(root.c_str());
    }
    void TearDown() override {
        dypd_ds_set_sysfs_root(nullptr);
        (void)run_shell("rm -rf '" + root + "'");
    }
    void put_serial(const std::string &device, const std::string &content) {
        ASSERT_EQ(mkdir((root + "/" + device).c_str(), 0755), 0);
        FILE *file = fopen((root + "/" + device + "/serial").c_str(), "w");
        ASSERT_NE(file, nullptr);
        fwrite(content.data(), 1, content.size(), file);
        fclose(file);
    }
    std::string root;
};

TEST_F(DeviceListEx, EntriesCarryTheSerialFromTheDeviceDirectory) {
    put_serial("2", "ABC\r\n");
    fake_interface iface{"usb1"};
    iface.location = "S2M";
    first.interfaces = {iface};
    iface.name = "usb2";
    iface.location = "H12"; // no serial file
    first.interfaces.push_back(iface);
    module_list_scope list({&first});
    int count;
    auto entries = fetch(true, &count);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(entries[0].serial, "ABC" + std::string(61, '\0'));
    EXPECT_EQ(entries[1].serial, std::string(64, '\0'));
    EXPECT_EQ(entries[0].status, 0x8083);
}

TEST_F(DeviceListEx, AnUnknownLocationDropsTheModule) {
    fake_interface good{"usb1"};
    fake_interface odd{"usb2"};
    odd.location = "X1-2";
    first.interfaces = {good};
    second.interfaces = {good, odd};
    module_list_scope list({&first, &second});
    log_capture log;
    int count;
    auto entries = fetch(true, &count);
    EXPECT_EQ(entries.size(), 1u);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(log.count(LOG_INFO, " unknown location (X1-2)\n"), 1);
}

TEST_F(DeviceListEx, AnOversizedSerialFileDropsTheModule) {
    put_serial("1-2", std::string(200, 'Z'));
    add(first, 1, "a");
    module_list_scope list({&first});
    log_capture log;
    int count;
    EXPECT_TRUE(fetch(true, &count).empty());
    EXPECT_EQ(count, 0);
    EXPECT_EQ(size, 1);
    EXPECT_EQ(log.count(LOG_ERR, "cannot open serial error -105"), 1);
}

} // namespace

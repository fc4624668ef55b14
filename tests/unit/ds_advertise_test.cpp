#include <cstring>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <syslog.h>

#include "ds/ds.h"
#include "lib/alloc.h"
#include "lib/be.h"
#include "protocol/packet.h"
#include "support/fake_ds_module.h"
#include "support/log_capture.h"

namespace {

class DsAdvertise : public ::testing::Test {
  protected:
    void SetUp() override {
        request[1] = DYP_TYPE_ADVERTISE;
        request[2] = DYP_ADVERTISE_MARKER0;
        request[3] = DYP_ADVERTISE_MARKER1;
        sender.sin_family = AF_INET;
        sender.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        loopback = static_cast<int32_t>(if_nametoindex("lo"));
        ASSERT_GT(loopback, 0);
    }
    int32_t advertise() {
        memset(reply, 0xEE, sizeof reply);
        return dypd_ds_process_advertise(request, reply, sizeof reply, &sender, loopback);
    }
    uint16_t status() const { return get_be16(reply + 82); }
    std::string description() const { return reinterpret_cast<const char *>(reply + 84); }

    identity_scope identity{0x0401, "Box", "node1"};
    uint8_t request[DYP_REQUEST_MAX] = {};
    uint8_t reply[DYP_RESPONSE_MAX];
    sockaddr_in sender{};
    int32_t loopback = 0;
    fake_module first{"first"}, second{"second"};
};

TEST_F(DsAdvertise, WithoutModulesTheReplyCarriesTheVersionAndTheStatusBits) {
    module_list_scope list;
    ASSERT_EQ(advertise(), 164);
    EXPECT_EQ(0, memcmp(reply, "\x00\x02\x95\x06", 4));
    EXPECT_EQ(0, memcmp(reply + 72, "Ver 2.2.0\0", 10));
    EXPECT_EQ(status(), 0x8483); // the daemon's bits and the fixed ones
    EXPECT_EQ(description(), "");
    EXPECT_STREQ(reinterpret_cast<char *>(reply + 116), "node1");
    EXPECT_EQ(get_be32(reply + 66), INADDR_LOOPBACK);
    for (uint32_t i = 164; i < sizeof reply; ++i)
        ASSERT_EQ(reply[i], 0) << "byte " << i << " of the capacity is not cleared";
    identity.identity.status = 0xFFFF;
    ASSERT_EQ(advertise(), 164);
    EXPECT_EQ(status(), 0xFFFF);
}

TEST_F(DsAdvertise, TheFirstSharedInterfaceIsDescribedWithin31Characters) {
    identity.identity.status = 0;
    fake_interface iface{"usb1"};
    iface.description = std::string(100, 'q');
    iface.status_flag = 1;
    first.interfaces = {iface};
    module_list_scope list({&first});
    ASSERT_EQ(advertise(), 164);
    EXPECT_EQ(description(), std::string(31, 'q'));
    EXPECT_EQ(reply[115], 0);
    EXPECT_EQ(status(), 0x8483);
    EXPECT_EQ(first.names_asked, std::vector<uint16_t>{1});
    first.interfaces[0].raw_description = true; // 256 bytes, no NUL
    ASSERT_EQ(advertise(), 164);
    EXPECT_EQ(description(), std::string(31, 'D'));
}

TEST_F(DsAdvertise, ModuleFailuresMoveOnAndOnlyRealOnesAreLogged) {
    identity.identity.status = 0;
    first.interfaces = {{"usb1"}};
    first.names_overridden = true;
    first.names_result = -ENOENT;
    fake_module third("third"), fourth("fourth"), lacking("lacking");
    second.interfaces = {{"usb2", -ENODEV}};
    third.interfaces = {{"usb3", -EIO}};
    fourth.interfaces = {{"usb4"}};
    fourth.interfaces[0].description = "found";
    lacking.get()->get_interface_info = nullptr;
    module_list_scope list({&lacking, &first, &second, &third, &fourth});
    log_capture log;
    ASSERT_EQ(advertise(), 164);
    EXPECT_EQ(description(), "found");
    EXPECT_EQ(status(), 0x8083);
    EXPECT_EQ(log.count(LOG_ERR, "cannot get interface info module third (err: -5)"), 1);
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(lacking.names_asked.empty());

    first.names_result = -EPERM;
    log.clear();
    ASSERT_EQ(advertise(), 164);
    EXPECT_EQ(log.count(LOG_ERR, "cannot get an interface name module first (err: -1)"), 1);
}

TEST_F(DsAdvertise, NoMemoryMeansNoInterfaceButStillAReply) {
    identity.identity.status = 0;
    first.interfaces = {{"usb1"}};
    module_list_scope list({&first});
    log_capture log;
    dyp_alloc_fail_after(2); // the record succeeds, the name slot fails
    EXPECT_EQ(advertise(), 164);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(log.count(LOG_ERR, "no memory for an interface name module first"), 1);
    EXPECT_EQ(status(), 0x8082);
    dyp_alloc_fail_after(1); // no record at all
    EXPECT_EQ(advertise(), 164);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(description(), "");
}

TEST_F(DsAdvertise, AWrongMarkerOrAnUnnamedInterfaceGetsNoReply) {
    module_list_scope list;
    request[3] = DYP_ADVERTISE_MARKER0;
    EXPECT_EQ(advertise(), -EINVAL);
    request[3] = DYP_ADVERTISE_MARKER1;
    loopback = 99999;
    EXPECT_EQ(advertise(), -ENXIO);
}

} // namespace

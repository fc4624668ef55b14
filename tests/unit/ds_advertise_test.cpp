#include <arpa/inet.h>
#include <net/if.h>

#include "ds/ds.h"
#include "lib/be.h"
#include "protocol/packet.h"
#include "support/fake_ds_module.h"

class DsAdvertise : public ::testing::Test {
  protected:
    int32_t advertise(int32_t ifindex = static_cast<int32_t>(if_nametoindex("lo"))) {
        const uint8_t request[DYP_REQUEST_MAX] = {0, DYP_TYPE_ADVERTISE, DYP_ADVERTISE_MARKER0,
                                                  marker};
        sockaddr_in sender{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        memset(reply, 0xEE, sizeof reply);
        return dypd_ds_process_advertise(request, reply, sizeof reply, &sender, ifindex);
    }
    uint16_t status() const { return get_be16(reply + 82); }
    std::string description() const { return reinterpret_cast<const char *>(reply + 84); }

    identity_scope identity;
    uint8_t marker = DYP_ADVERTISE_MARKER1;
    uint8_t reply[DYP_RESPONSE_MAX];
    fake_module first{"first"}, second{"second"};
};

TEST_F(DsAdvertise, WithoutModulesTheReplyCarriesTheVersionAndTheStatusBits) {
    identity.identity.status = 0x0401;
    module_list_scope list;
    ASSERT_EQ(advertise(), 164);
    EXPECT_EQ(0, memcmp(reply, "\x00\x02\x95\x06", 4));
    EXPECT_EQ(get_be32(reply + 66), INADDR_LOOPBACK);
    EXPECT_EQ(0, memcmp(reply + 72, "Ver 2.2.0\0", 10));
    EXPECT_EQ(status(), 0x8483); // the daemon's bits and the fixed ones
    EXPECT_EQ(description(), "");
    EXPECT_STREQ(reinterpret_cast<char *>(reply + 116), "node1");
    for (uint32_t i = 164; i < sizeof reply; ++i)
        ASSERT_EQ(reply[i], 0) << "byte " << i << " of the capacity is not cleared";
    EXPECT_EQ(advertise(99999), -ENXIO); // an interface without a name
    marker = DYP_ADVERTISE_MARKER0;
    EXPECT_EQ(advertise(), -EINVAL);
}

TEST_F(DsAdvertise, TheFirstSharedInterfaceIsDescribedWithin31Characters) {
    first.interfaces = {{"usb1"}};
    first.interfaces[0].raw_description = true; // 256 bytes, no NUL
    first.interfaces[0].status_flag = 1;
    module_list_scope list({&first});
    ASSERT_EQ(advertise(), 164);
    EXPECT_EQ(description(), std::string(31, 'D'));
    EXPECT_EQ(status(), 0x8483);
}

TEST_F(DsAdvertise, ModuleFailuresMoveOnAndOnlyRealOnesAreLogged) {
    fake_module third("third"), lacking("lacking");
    lacking.get()->get_interface_info = nullptr;
    first.interfaces = {{"usb1", -ENODEV}};
    second.interfaces = {{"usb2", -EIO}};
    third.interfaces = {{"usb3"}};
    third.interfaces[0].description = "found";
    module_list_scope list({&lacking, &first, &second, &third});
    log_capture log;
    ASSERT_EQ(advertise(), 164);
    EXPECT_EQ(description(), "found");
    EXPECT_EQ(status(), 0x8083);
    EXPECT_EQ(log.count(LOG_ERR, "cannot get interface info module second (err: " +
                                     std::to_string(-EIO) + ")"),
              1);
    EXPECT_EQ(log.lines().size(), 1u);
}

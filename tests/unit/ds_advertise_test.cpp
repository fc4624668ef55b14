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

    identity_scope identity{0x0401};
    uint8_t marker = DYP_ADVERTISE_MARKER1;
    uint8_t reply[DYP_RESPONSE_MAX];
    fake_module first{"first"}, second{"second"}, third{"third"}, lacking{"lacking"};
};

TEST_F(DsAdvertise, WithoutModulesTheReplyCarriesTheVersionAndTheStatusBits) {
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

// Failures move on to the next interface and only real ones are logged;
// the description is cut to 31 characters.
TEST_F(DsAdvertise, TheFirstInterfaceAModuleDescribesIsAdvertised) {
    identity.identity.status = 0;
    lacking.get()->get_interface_info = nullptr;
    first.interfaces = {{"usb1", -ENODEV}};
    second.interfaces = {{"usb2", -EIO}};
    third.interfaces = {{"usb3"}};
    third.interfaces[0].raw_description = true; // 256 bytes, no NUL
    module_list_scope list({&lacking, &first, &second, &third});
    log_capture log;
    ASSERT_EQ(advertise(), 164);
    EXPECT_EQ(description(), std::string(31, 'D'));
    EXPECT_EQ(status(), 0x8083); // present
    EXPECT_EQ(log.count(LOG_ERR, "cannot get interface info module second (err: " +
                                     std::to_string(-EIO) + ")"),
              1);
    EXPECT_EQ(log.lines().size(), 1u);
    third.interfaces[0].status_flag = 1;
    ASSERT_EQ(advertise(), 164);
    EXPECT_EQ(status(), 0x8483); // and flagged
}

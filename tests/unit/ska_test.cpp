#include "ds/ska.h"
#include "lib/be.h"
#include "support/descriptor_fill.h"
#include "support/fake_ds_module.h"
#include "support/udp.h"

using bytes = std::vector<uint8_t>;

static bytes ska_packet(const std::vector<std::string> &names, bool terminated = true) {
    bytes packet(4, 0);
    put_be16(packet.data() + 2, SKA_MAGIC);
    for (const std::string &name : names)
        packet.insert(packet.end(), name.c_str(), name.c_str() + name.size() + 1);
    if (terminated) // the smallest packet still ends in two NULs
        packet.resize(std::max<size_t>(packet.size() + 1, 6), 0);
    put_be16(packet.data(), static_cast<uint16_t>(packet.size()));
    return packet;
}

using Ska = ska_namespace_test;

TEST_F(Ska, NamesAreEchoedAndPassedOnCutTo15AndMalformedPacketsIgnored) {
    fake_module first{"first"}, second{"second"}, third{"third"};
    second.get()->keep_alive = nullptr;
    module_list_scope list({&first, &second, &third});
    ASSERT_EQ(dypd_ds_ska_init(), 0);
    unique_fd client = udp_socket();
    const sockaddr_in ska = ipv4("127.0.0.1", SKA_PORT);
    // Serves `packet` and then a marker: the first datagram back is the echo
    // of `packet`, or the marker when it was ignored.
    const bytes marker = ska_packet({"marker"});
    auto exchange = [&](const bytes &packet) {
        for (const bytes *sent : {&packet, &marker}) {
            (void)sendto(client.get(), sent->data(), sent->size(), 0,
                         reinterpret_cast<const sockaddr *>(&ska), sizeof ska);
            dypd_ds_ska_handler();
        }
        auto reply = next_datagram(client.get(), 5000);
        if (reply != marker)
            EXPECT_EQ(next_datagram(client.get(), 5000), marker);
        return reply.value_or(bytes{});
    };
    auto smallest = ska_packet({});
    ASSERT_EQ(smallest, (bytes{0x00, 0x06, 'K', 'A', 0x00, 0x00}));
    EXPECT_EQ(exchange(smallest), smallest);
    EXPECT_TRUE(first.keep_alive_calls.at(0).empty());
    auto packet = ska_packet({"usb1", "abcdefghijklmnopqrst"});
    EXPECT_EQ(exchange(packet), packet);
    std::vector<std::string> expected{"usb1", "abcdefghijklmno"};
    ASSERT_EQ(first.keep_alive_calls.size(), 4u); // two packets, two markers
    EXPECT_EQ(first.keep_alive_calls[2], expected);
    EXPECT_EQ(third.keep_alive_calls.at(2), expected);

    auto long_body = ska_packet({"usb1"});
    long_body.insert(long_body.end(), {0, 0}); // says 10, is 12
    auto swapped = ska_packet({});
    std::swap(swapped[2], swapped[3]);
    auto oversized = ska_packet({std::string(SKA_BUFFER_SIZE, 'x')});
    const bytes short_body{0x00, 0x05, 'K', 'A', 0x00};
    for (const auto &ignored : {long_body, swapped, oversized, short_body, bytes{}})
        EXPECT_EQ(exchange(ignored), marker);
    auto unterminated = ska_packet({"usb1", "usb2"}, false);
    EXPECT_EQ(exchange(unterminated), unterminated);
    EXPECT_EQ(first.keep_alive_calls.size(), 10u); // since then, the markers only
    dypd_ds_ska_cleanup();
}

TEST_F(Ska, ASocketAtOrAboveFdSetsizeIsRefused) {
    log_capture log;
    {
        descriptor_fill fill;
        ASSERT_TRUE(fill.ok()) << "cannot raise the descriptor limit";
        EXPECT_EQ(dypd_ds_ska_init(), -EMFILE);
    }
    EXPECT_EQ(dypd_ds_ska_get_fd(), -1);
    EXPECT_EQ(log.count(LOG_ERR, "cannot watch the SKA socket: select takes descriptors below " +
                                     std::to_string(FD_SETSIZE)),
              1);
    ASSERT_EQ(dypd_ds_ska_init(), 0);
    EXPECT_LT(dypd_ds_ska_get_fd(), FD_SETSIZE);
    dypd_ds_ska_cleanup();
}

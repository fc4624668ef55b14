#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include "ds/ska.h"
#include "lib/be.h"
#include "lib/fd.h"
#include "support/descriptor_fill.h"
#include "support/fake_ds_module.h"

static std::vector<uint8_t> ska_packet(const std::vector<std::string> &names,
                                       bool terminated = true) {
    std::vector<uint8_t> packet(4, 0);
    put_be16(packet.data() + 2, SKA_MAGIC);
    for (const std::string &name : names)
        packet.insert(packet.end(), name.c_str(), name.c_str() + name.size() + 1);
    if (terminated) // the smallest packet still ends in two NULs
        packet.resize(std::max<size_t>(packet.size() + 1, 6), 0);
    put_be16(packet.data(), static_cast<uint16_t>(packet.size()));
    return packet;
}

// Sends `packet` from `client` to SKA on loopback and serves it.
static void serve(int client, const std::vector<uint8_t> &packet) {
    sockaddr_in ska{AF_INET, htons(SKA_PORT), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(sendto(client, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&ska),
                     sizeof ska),
              static_cast<ssize_t>(packet.size()));
    dypd_ds_ska_handler();
}

static std::vector<uint8_t> receive(int client) {
    pollfd ready{client, POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, 5000), 1);
    std::vector<uint8_t> reply(8192);
    reply.resize(std::max<ssize_t>(recv(client, reply.data(), reply.size(), MSG_DONTWAIT), 0));
    return reply;
}

using Ska = ska_namespace_test;

TEST_F(Ska, NamesAreEchoedAndPassedOnCutTo15AndMalformedPacketsIgnored) {
    fake_module first{"first"}, second{"second"}, third{"third"};
    second.get()->keep_alive = nullptr;
    module_list_scope list({&first, &second, &third});
    ASSERT_EQ(dypd_ds_ska_init(), 0);
    unique_fd client(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)); // bound by its first send
    // Sends `packet` and then a marker: the first datagram back is the echo
    // of `packet`, or the marker when it was ignored.
    const std::vector<uint8_t> marker = ska_packet({"marker"});
    auto exchange = [&](const std::vector<uint8_t> &packet) {
        serve(client.get(), packet);
        serve(client.get(), marker);
        std::vector<uint8_t> reply = receive(client.get());
        if (reply != marker)
            EXPECT_EQ(receive(client.get()), marker);
        return reply;
    };
    auto smallest = ska_packet({});
    ASSERT_EQ(smallest, (std::vector<uint8_t>{0x00, 0x06, 'K', 'A', 0x00, 0x00}));
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
    const std::vector<uint8_t> short_body{0x00, 0x05, 'K', 'A', 0x00};
    for (const auto &ignored : {long_body, swapped, oversized, short_body, std::vector<uint8_t>{}})
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

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ds/ska.h"
#include "lib/be.h"
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

class Ska : public ska_namespace_test {
  protected:
    void SetUp() override {
        ska_namespace_test::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        client = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); // bound by its first send
        ASSERT_EQ(dypd_ds_ska_init(), 0);
    }
    void TearDown() override {
        dypd_ds_ska_cleanup();
        if (client >= 0)
            close(client);
        ska_namespace_test::TearDown();
    }
    // Sends `packet` to SKA on loopback and serves it.
    void serve(const std::vector<uint8_t> &packet) {
        sockaddr_in ska{AF_INET, htons(SKA_PORT), {htonl(INADDR_LOOPBACK)}, {}};
        ASSERT_EQ(sendto(client, packet.data(), packet.size(), 0,
                         reinterpret_cast<sockaddr *>(&ska), sizeof ska),
                  static_cast<ssize_t>(packet.size()));
        dypd_ds_ska_handler();
    }
    std::vector<uint8_t> receive() {
        pollfd ready{client, POLLIN, 0};
        EXPECT_EQ(poll(&ready, 1, 5000), 1);
        std::vector<uint8_t> reply(8192);
        reply.resize(std::max<ssize_t>(recv(client, reply.data(), reply.size(), MSG_DONTWAIT), 0));
        return reply;
    }
    // Sends `packet` and then a marker, serving each: the first datagram
    // back is the echo of `packet`, or the marker when it was ignored.
    std::vector<uint8_t> exchange(const std::vector<uint8_t> &packet) {
        serve(packet);
        serve(marker);
        std::vector<uint8_t> reply = receive();
        if (reply != marker)
            EXPECT_EQ(receive(), marker);
        return reply;
    }

    int client = -1;
    const std::vector<uint8_t> marker = ska_packet({"marker"});
    fake_module first{"first"}, second{"second"}, third{"third"};
    module_list_scope list{{&first, &second, &third}};
};

TEST_F(Ska, NamesAreEchoedAndPassedOnCutTo15AndMalformedPacketsIgnored) {
    second.get()->keep_alive = nullptr;
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
}

#include <cstring>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "ds/ska.h"
#include "lib/alloc.h"
#include "lib/be.h"
#include "support/fake_ds_module.h"
#include "support/log_capture.h"
#include "support/netns.h"

namespace {

std::vector<uint8_t> ska_packet(const std::vector<std::string> &names, bool terminated = true) {
    std::vector<uint8_t> packet(4, 0);
    put_be16(packet.data() + 2, SKA_MAGIC);
    for (const std::string &name : names) {
        packet.insert(packet.end(), name.begin(), name.end());
        packet.push_back(0);
    }
    if (terminated)
        packet.push_back(0);
    if (names.empty() && terminated) // the smallest packet still ends in two NULs
        packet.push_back(0);
    put_be16(packet.data(), static_cast<uint16_t>(packet.size()));
    return packet;
}

// The SKA port is fixed, so every test runs in a network namespace of its
// own where the port is surely free.
class Ska : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs root: SKA binds its fixed port inside a test namespace";
        ns = std::make_unique<test_netns>("ska");
        inside = std::make_unique<netns_scope>(ns->name());
        ASSERT_TRUE(inside->ok());
        client = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(client, 0);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(bind(client, reinterpret_cast<sockaddr *>(&local), sizeof local), 0);
    }
    void TearDown() override {
        dypd_ds_ska_cleanup();
        if (client >= 0)
            close(client);
        inside.reset();
        ns.reset();
    }
    void send_to_ska(const std::vector<uint8_t> &packet) {
        sockaddr_in ska{};
        ska.sin_family = AF_INET;
        ska.sin_port = htons(SKA_PORT);
        ska.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(sendto(client, packet.data(), packet.size(), 0,
                         reinterpret_cast<sockaddr *>(&ska), sizeof ska),
                  static_cast<ssize_t>(packet.size()));
    }
    // Sends `packet`, lets the handler serve it, then sends a marker packet
    // and serves that too: the first datagram the client then reads is the
    // echo of `packet`, or the marker when `packet` was ignored.
    std::vector<uint8_t> exchange(const std::vector<uint8_t> &packet) {
        send_to_ska(packet);
        dypd_ds_ska_handler();
        send_to_ska(marker);
        dypd_ds_ska_handler();
        pollfd ready{client, POLLIN, 0};
        EXPECT_EQ(poll(&ready, 1, 5000), 1);
        std::vector<uint8_t> reply(8192);
        ssize_t n = recv(client, reply.data(), reply.size(), 0);
        reply.resize(n > 0 ? static_cast<size_t>(n) : 0);
        if (reply != marker) { // drain the marker's echo
            EXPECT_EQ(poll(&ready, 1, 5000), 1);
            std::vector<uint8_t> rest(8192);
            EXPECT_EQ(recv(client, rest.data(), rest.size(), 0),
                      static_cast<ssize_t>(marker.size()));
        }
        return reply;
    }

    std::unique_ptr<test_netns> ns;
    std::unique_ptr<netns_scope> inside;
    int client = -1;
    const std::vector<uint8_t> marker = ska_packet({"marker"});
    fake_module first{"first"}, second{"second"};
};

TEST_F(Ska, TheSmallestPacketIsEchoedAndModulesGetAnEmptyList) {
    module_list_scope list({&first});
    ASSERT_EQ(dypd_ds_ska_init(), 0);
    auto packet = ska_packet({});
    ASSERT_EQ(packet, (std::vector<uint8_t>{0x00, 0x06, 'K', 'A', 0x00, 0x00}));
    EXPECT_EQ(exchange(packet), packet);
    ASSERT_GE(first.keep_alive_calls.size(), 1u);
    EXPECT_TRUE(first.keep_alive_calls[0].empty());
}

TEST_F(Ska, NamesReachEveryModuleWithKeepAliveCutTo15) {
    second.drop("keep_alive");
    fake_module third("third");
    module_list_scope list({&first, &second, &third});
    ASSERT_EQ(dypd_ds_ska_init(), 0);
    auto packet = ska_packet({"usb1", "abcdefghijklmnopqrst"});
    EXPECT_EQ(exchange(packet), packet);
    std::vector<std::string> expected{"usb1", "abcdefghijklmno"};
    ASSERT_EQ(first.keep_alive_calls.size(), 2u); // the packet and the marker
    EXPECT_EQ(first.keep_alive_calls[0], expected);
    EXPECT_EQ(third.keep_alive_calls.at(0), expected);
}

TEST_F(Ska, MalformedPacketsAreIgnored) {
    module_list_scope list({&first});
    ASSERT_EQ(dypd_ds_ska_init(), 0);
    auto long_body = ska_packet({"usb1"});
    long_body.push_back(0);
    long_body.push_back(0);
    put_be16(long_body.data(), static_cast<uint16_t>(long_body.size() - 2)); // says 10, is 12
    EXPECT_EQ(exchange(long_body), marker);
    auto swapped = ska_packet({});
    swapped[2] = 'A';
    swapped[3] = 'K';
    EXPECT_EQ(exchange(swapped), marker);
    EXPECT_EQ(exchange({0x00, 0x05, 'K', 'A', 0x00}), marker);
    EXPECT_EQ(exchange({}), marker);
    std::vector<uint8_t> oversized(5000, 0);
    put_be16(oversized.data(), 5000);
    put_be16(oversized.data() + 2, SKA_MAGIC);
    EXPECT_EQ(exchange(oversized), marker);
    EXPECT_EQ(first.keep_alive_calls.size(), 5u); // the markers only
}

TEST_F(Ska, AnUnterminatedNameListIsEchoedWithoutCallingModules) {
    module_list_scope list({&first});
    ASSERT_EQ(dypd_ds_ska_init(), 0);
    auto packet = ska_packet({"usb1", "usb2"}, false);
    EXPECT_EQ(exchange(packet), packet);
    EXPECT_EQ(first.keep_alive_calls.size(), 1u); // the marker only
}

TEST_F(Ska, AFullSizePacketOfGarbageNamesIsHandledWithinTheBuffer) {
    module_list_scope list({&first});
    ASSERT_EQ(dypd_ds_ska_init(), 0);
    std::vector<uint8_t> packet(SKA_BUFFER_SIZE, 'n');
    put_be16(packet.data(), static_cast<uint16_t>(packet.size()));
    put_be16(packet.data() + 2, SKA_MAGIC);
    packet[100] = 0;
    packet[SKA_BUFFER_SIZE - 2] = 0;
    packet[SKA_BUFFER_SIZE - 1] = 0;
    EXPECT_EQ(exchange(packet), packet);
    ASSERT_GE(first.keep_alive_calls.size(), 1u);
    EXPECT_EQ(first.keep_alive_calls[0].size(), 2u);
}

TEST_F(Ska, NoMemoryForNamesStillEchoes) {
    module_list_scope list({&first});
    ASSERT_EQ(dypd_ds_ska_init(), 0);
    log_capture log;
    auto packet = ska_packet({"usb1"});
    send_to_ska(packet);
    dyp_alloc_fail_after(1);
    dypd_ds_ska_handler();
    dyp_alloc_fail_after(0);
    EXPECT_EQ(log.count(LOG_ERR, "no memory for names of alive interfaces num 1"), 1);
    EXPECT_TRUE(first.keep_alive_calls.empty());
    std::vector<uint8_t> reply(64);
    pollfd ready{client, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 5000), 1);
    reply.resize(static_cast<size_t>(recv(client, reply.data(), reply.size(), 0)));
    EXPECT_EQ(reply, packet);
}

TEST_F(Ska, InitFailuresLeaveNoSocket) {
    int holder = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(SKA_PORT);
    ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr *>(&any), sizeof any), 0);
    {
        log_capture log;
        EXPECT_EQ(dypd_ds_ska_init(), -EADDRINUSE);
        EXPECT_EQ(dypd_ds_ska_get_fd(), -1);
        EXPECT_EQ(log.count(LOG_ERR, "cannot bind a socket address (err: -98)"), 1);
    }
    close(holder);

    log_capture log;
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_ds_ska_init(), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(dypd_ds_ska_get_fd(), -1);
    EXPECT_EQ(dypd_ds_ska.buffer, nullptr);
    EXPECT_TRUE(log.lines().empty());
    // The port was released again: a later init succeeds.
    EXPECT_EQ(dypd_ds_ska_init(), 0);
    EXPECT_GE(dypd_ds_ska_get_fd(), 0);
    dypd_ds_ska_cleanup();
    EXPECT_EQ(dypd_ds_ska_get_fd(), -1);
    EXPECT_EQ(dypd_ds_ska.buffer, nullptr);
}

} // namespace

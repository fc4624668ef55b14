// dypctl inventory over a LAN of ten daemons with the simulated driver and
// one box that answers discovery but never its device list.
#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <poll.h>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "lib/fd.h"
#include "support/dypctl_runner.h"

namespace {

constexpr int DAEMONS = 10;

class DypctlInventoryTest : public dypctl_bed_test {
  protected:
    DypctlInventoryTest() : dypctl_bed_test(DAEMONS + 1) {}
    void start_daemons() override {
        const std::string examples = read_text_file(DYPTEST_SOURCE_DIR "/examples/devices.ini");
        for (int i = 0; i < DAEMONS; ++i)
            start_daemon(i, "hostname=box" + std::to_string(i) + "\n", examples);
        // The eleventh box: a socket belongs to the namespace it is made in.
        netns_scope inside(bed.box(DAEMONS).name());
        ASSERT_TRUE(inside.ok());
        mute = unique_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in self{AF_INET, htons(19540), {htonl(INADDR_ANY)}, {}};
        ASSERT_EQ(bind(mute.get(), reinterpret_cast<sockaddr *>(&self), sizeof self), 0);
        mute_box = std::thread([this] { answer_advertise_only(); });
    }
    void TearDown() override {
        stopping = true;
        if (mute_box.joinable())
            mute_box.join();
    }

    // Answers advertise requests as the box "mute"; any other goes unanswered.
    void answer_advertise_only() {
        for (uint8_t in[600]; !stopping;) {
            pollfd p{mute.get(), POLLIN, 0};
            sockaddr_in from{};
            socklen_t size = sizeof from;
            if (poll(&p, 1, 50) <= 0 ||
                recvfrom(mute.get(), in, sizeof in, 0, reinterpret_cast<sockaddr *>(&from), &size) < 88 ||
                in[0] != 0 || in[1] != 4)
                continue;
            uint8_t reply[164] = {0x00, 0x02, in[2], in[3]};
            memcpy(reply + 36, "Mute", 4);
            reply[65] = 1;
            memcpy(reply + 116, "mute", 4);
            (void)sendto(mute.get(), reply, sizeof reply, 0, reinterpret_cast<sockaddr *>(&from), size);
        }
    }

    unique_fd mute{-1};
    std::atomic<bool> stopping = false;
    std::thread mute_box;
};

TEST_F(DypctlInventoryTest, ListsEveryDeviceOfEveryBoxAndTheSilentBoxWithItsError) {
    auto run = in_host("inventory --json --timeout 0.5 --retries 1 --parallel 4");
    EXPECT_EQ(run.status, 3) << "a box without its list makes the run incomplete";
    auto doc = parsed_json(run);
    ASSERT_EQ(doc["boxes"].size(), size_t(DAEMONS + 1)) << doc;
    std::set<std::string> names, devices;
    for (const auto &box : doc["boxes"]) {
        names.insert(box["hostname"].get<std::string>());
        if (box["hostname"] == "mute") {
            EXPECT_FALSE(box.contains("devices"));
            EXPECT_NE(box["error"].get<std::string>().find("no answer from"), std::string::npos) << box;
            continue;
        }
        ASSERT_EQ(box["devices"].size(), 3u) << box;
        for (const auto &d : box["devices"])
            devices.insert(box["hostname"].get<std::string>() + "/" + d["interface"].get<std::string>() +
                           "=" + d["serial"].get<std::string>());
        EXPECT_EQ(box["devices"][0]["holder"], "192.0.2.20");
        EXPECT_EQ(box["devices"][0]["vid_pid"], "1f3a:0410");
    }
    EXPECT_EQ(devices.size(), size_t(3 * DAEMONS)) << "each device of each box once";
    EXPECT_EQ(devices.count("box7/scanner2=FPS2-88231"), 1u);
    EXPECT_EQ(names.size(), size_t(DAEMONS + 1));

    // The table says the same, one line per device and one for the error.
    expect_run(in_host("inventory --timeout 0.5 --retries 0"), 3,
               {"box9", "192.0.2.19", "scanner3", "3c41:7a01", "CO7A01X9", "F114", "mute",
                "192.0.2.21      error: no answer"});
}

} // namespace

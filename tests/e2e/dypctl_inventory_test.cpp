// dypctl inventory over a LAN of ten daemons with the simulated driver and
// one box that answers discovery but never its device list.
#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <memory>
#include <poll.h>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "lib/fd.h"
#include "support/dypctl_runner.h"

namespace {

using nlohmann::json;

constexpr int DAEMONS = 10;
constexpr int MUTE_BOX = DAEMONS; // the eleventh namespace

// Answers advertise requests on port 19540 of the namespace it was made in,
// as the box "mute"; every other request goes unanswered.
class advertise_only_box {
  public:
    explicit advertise_only_box(const std::string &ns) {
        netns_scope inside(ns);
        EXPECT_TRUE(inside.ok());
        // A socket belongs to the namespace it is made in.
        fd_ = unique_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in self{AF_INET, htons(19540), {htonl(INADDR_ANY)}, {}};
        EXPECT_EQ(bind(fd_.get(), reinterpret_cast<sockaddr *>(&self), sizeof self), 0);
        thread_ = std::thread([this] { serve(); });
    }
    ~advertise_only_box() {
        stopping_ = true;
        thread_.join();
    }

  private:
    void serve() {
        uint8_t in[600];
        while (!stopping_) {
            pollfd p{fd_.get(), POLLIN, 0};
            if (poll(&p, 1, 50) <= 0)
                continue;
            sockaddr_in from{};
            socklen_t size = sizeof from;
            ssize_t n =
                recvfrom(fd_.get(), in, sizeof in, 0, reinterpret_cast<sockaddr *>(&from), &size);
            if (n < 88 || in[0] != 0 || in[1] != 4)
                continue;
            uint8_t reply[164] = {0x00, 0x02, in[2], in[3]};
            memcpy(reply + 36, "Mute", 4);
            reply[65] = 1;
            memcpy(reply + 116, "mute", 4);
            (void)sendto(fd_.get(), reply, sizeof reply, 0, reinterpret_cast<sockaddr *>(&from),
                         size);
        }
    }

    unique_fd fd_{-1};
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

class DypctlInventoryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        ASSERT_TRUE(bed.ready());
        const std::string devices = DYPTEST_SOURCE_DIR "/examples/devices.ini";
        for (int i = 0; i < DAEMONS; ++i) {
            const std::string conf = bed.dir() + "/dypd" + std::to_string(i) + ".conf";
            write_text_file(conf, "hostname=box" + std::to_string(i) + "\n");
            ASSERT_TRUE(bed.start(daemon_script_with(conf, devices, example_serials()), {19540}, i))
                << bed.output(i);
        }
        mute = std::make_unique<advertise_only_box>(bed.box(MUTE_BOX).name());
    }

    dypctl_result in_host(const std::string &args) {
        return run_dypctl(args, "ip netns exec " + bed.host().name() + " ");
    }

    sim_testbed bed{DAEMONS + 1};
    std::unique_ptr<advertise_only_box> mute;
};

TEST_F(DypctlInventoryTest, ListsEveryDeviceOfEveryBoxAndTheSilentBoxWithItsError) {
    auto run =
        in_host("inventory --json --timeout " + MANY_BOXES_TIMEOUT + " --retries 1 --parallel 4");
    EXPECT_EQ(run.status, 3) << "a box without its list makes the run incomplete";
    auto doc = parsed_json(run);
    ASSERT_EQ(doc["boxes"].size(), size_t(DAEMONS + 1)) << doc;
    std::set<std::string> names, serials;
    int devices = 0;
    for (const auto &box : doc["boxes"]) {
        names.insert(box["hostname"].get<std::string>());
        if (box["hostname"] == "mute") {
            EXPECT_FALSE(box.contains("devices"));
            EXPECT_NE(box["error"].get<std::string>().find("no answer from"), std::string::npos)
                << box;
            continue;
        }
        ASSERT_EQ(box["devices"].size(), 3u) << box;
        for (const auto &d : box["devices"]) {
            ++devices;
            serials.insert(box["hostname"].get<std::string>() + "/" +
                           d["interface"].get<std::string>() + "=" +
                           d["serial"].get<std::string>());
        }
        EXPECT_EQ(box["devices"][0]["holder"], "192.0.2.20");
        EXPECT_EQ(box["devices"][0]["vid_pid"], "1f3a:0410");
    }
    EXPECT_EQ(devices, 3 * DAEMONS);
    EXPECT_EQ(serials.size(), size_t(3 * DAEMONS)) << "each device of each box once";
    EXPECT_EQ(serials.count("box7/scanner2=FPS2-88231"), 1u);
    EXPECT_EQ(names.size(), size_t(DAEMONS + 1));

    // The table says the same, one line per device and one for the error.
    auto table = in_host("inventory --timeout " + MANY_BOXES_TIMEOUT + " --retries 0");
    expect_run(table, 3,
               {"box9", "192.0.2.19", "scanner3", "3c41:7a01", "CO7A01X9", "F114", "mute",
                "192.0.2.21      error: no answer"});
}

} // namespace

// The built daemon against the driver simulator, driven over real UDP.
//
// Each test starts its own daemon in a server network namespace, in a
// private mount namespace with tmpfs over /var/run (its pid file) and over
// /sys/bus (the serial numbers the test writes), with the simulator
// preloaded. A client namespace joined by a veth pair (192.0.2.1 for the
// box, 192.0.2.2 for the host) sends the requests.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "device_file.h"
#include "dypclient.h"
#include "support/netns.h"

namespace {

constexpr const char BOX_ADDRESS[] = "192.0.2.1";
constexpr const char BOX_LINK[] = "dypbox0";
constexpr const char HOST_LINK[] = "dyphost0";
constexpr const char BOX_NAME[] = "simbox";
constexpr const char PRODUCT_NAME[] = "Sim Scan Hub";
// The MAC the host claims in its connect requests, and its text form.
constexpr uint8_t HOST_MAC[6] = {0x02, 0x00, 0x5e, 0x00, 0x53, 0x02};
constexpr const char HOST_MAC_TEXT[] = "02:00:5e:00:53:02";

std::string read_file(const std::string &path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// The sysfs device directory of a USB location: H112 is bus 1, ports 1.2.
std::string sysfs_device_name(const std::string &location) {
    std::string name(1, location.at(1));
    name += '-';
    for (size_t i = 2; i < location.size(); ++i) {
        name += location[i];
        name += '.';
    }
    name.pop_back();
    return name;
}

// True while a UDP socket of the calling thread's network namespace is
// bound to `port` (read from the namespace's own socket table).
bool udp_port_bound(uint16_t port) {
    char needle[8];
    snprintf(needle, sizeof needle, ":%04X ", port);
    return read_file("/proc/thread-self/net/udp").find(needle) != std::string::npos;
}

class DaemonSimTest : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        char dir_template[] = "/tmp/dypsim-e2e-XXXXXX";
        ASSERT_NE(mkdtemp(dir_template), nullptr);
        dir = dir_template;
        devices_path = std::string(DYPTEST_SOURCE_DIR) + "/examples/devices.ini";
        std::string error;
        ASSERT_EQ(sim_load_devices(devices_path.c_str(), devices, error), 0) << error;

        box = std::make_unique<test_netns>("sbox");
        host = std::make_unique<test_netns>("shost");
        ASSERT_EQ(run_shell("ip link add " + std::string(BOX_LINK) + " netns " + box->name() +
                            " type veth peer name " + HOST_LINK + " netns " + host->name()),
                  0);
        ASSERT_EQ(box->exec("ip addr add 192.0.2.1/24 brd + dev dypbox0 && ip link set dypbox0 up"),
                  0);
        ASSERT_EQ(
            host->exec("ip addr add 192.0.2.2/24 brd + dev dyphost0 && ip link set dyphost0 up"),
            0);
        start_daemon();
    }

    void TearDown() override {
        if (daemon_pid > 0) {
            (void)kill(daemon_pid, SIGTERM);
            int status;
            (void)waitpid(daemon_pid, &status, 0);
        }
        host.reset();
        box.reset();
        if (!dir.empty())
            (void)run_shell("rm -rf " + dir);
    }

    // The script run inside the daemon's private mount namespace.
    std::string daemon_script() const {
        std::string script = "mount -t tmpfs dyprun /var/run && mount -t tmpfs dypsys /sys/bus";
        for (const auto &device : devices.devices) {
            // scanner2 gets no serial file: its serial is reported empty.
            if (device.serial.empty() || device.name == "scanner2")
                continue;
            std::string node = "/sys/bus/usb/devices/" + sysfs_device_name(device.location);
            script +=
                " && mkdir -p " + node + " && echo " + device.serial + " > " + node + "/serial";
        }
        script += " && exec env LD_PRELOAD=" + std::string(DYPSIM_PRELOAD) +
                  " ASAN_OPTIONS=verify_asan_link_order=0 DYPSIM_DEVICES=" + devices_path +
                  " DYPSIM_LOG=" + dir + "/driver.log " + DYPD_BINARY + " -d -f " + dir +
                  "/dypd.conf";
        return script;
    }

    void start_daemon() {
        std::ofstream(dir + "/dypd.conf") << "product=" << PRODUCT_NAME << "\nhostname=" << BOX_NAME
                                          << "\nportnum=19540,19541\nds_port=19540\n";
        std::string script = daemon_script();
        std::string output = dir + "/dypd.out";
        daemon_pid = fork();
        ASSERT_GE(daemon_pid, 0);
        if (daemon_pid == 0) {
            FILE *out = freopen(output.c_str(), "w", stderr);
            if (out != nullptr)
                (void)dup2(fileno(out), STDOUT_FILENO);
            execlp("ip", "ip", "netns", "exec", box->name().c_str(), "unshare", "-m", "sh", "-c",
                   script.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        ASSERT_TRUE(wait_until_serving()) << "daemon did not start:\n" << read_file(output);
    }

    // Waits until the primary endpoint and the keep-alive socket are bound,
    // or the daemon has died.
    bool wait_until_serving() {
        netns_scope inside(box->name());
        if (!inside.ok())
            return false;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            if (udp_port_bound(19540) && udp_port_bound(49235))
                return true;
            int status;
            if (waitpid(daemon_pid, &status, WNOHANG) == daemon_pid) {
                daemon_pid = -1;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    std::vector<std::string> driver_requests() const {
        return lines_of(read_file(dir + "/driver.log"));
    }

    ::testing::AssertionResult driver_received(const std::string &line) const {
        std::string log = read_file(dir + "/driver.log");
        for (const auto &request : lines_of(log))
            if (request == line)
                return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "no request \"" << line << "\" in:\n" << log;
    }

    dyp::endpoint box_endpoint(uint16_t port = dyp::DEFAULT_PORT) const {
        return dyp::parse_endpoint(BOX_ADDRESS, port);
    }

    dyp::bytes read_command(const std::string &name, const dyp::bytes &data = {}) {
        netns_scope client(host->name());
        EXPECT_TRUE(client.ok());
        return dyp::transfer_read(box_endpoint(), name, data, {});
    }

    bool exec_connect(const char *command, const std::string &ifname, uint16_t port,
                      uint8_t options) {
        netns_scope client(host->name());
        EXPECT_TRUE(client.ok());
        dyp::connect_params params;
        dyp::local_identity(box_endpoint(), params.ip, params.mac);
        std::copy(std::begin(HOST_MAC), std::end(HOST_MAC), params.mac);
        params.ifname = ifname;
        params.port = port;
        params.options = options;
        return dyp::decode_ok_ng(
            dyp::transfer_exec(box_endpoint(), dyp::encode_connect_name(command, params), {}));
    }

    std::string dir;
    std::string devices_path;
    sim_driver devices; // what the simulator in the daemon starts from
    std::unique_ptr<test_netns> box;
    std::unique_ptr<test_netns> host;
    pid_t daemon_pid = -1;
};

TEST_F(DaemonSimTest, DeviceListsShowEveryScannerWithHolderFlagAndSerial) {
    dyp::device_list plain = dyp::decode_device_list(read_command("GET USB_DEVICE_LIST"), false);
    ASSERT_EQ(plain.entries.size(), 3u);
    EXPECT_EQ(plain.count, 3u);
    EXPECT_EQ(plain.entries[0].name, "scanner1");
    EXPECT_EQ(plain.entries[0].description, "Northwind Imaging DocuFeed 410");
    EXPECT_EQ(plain.entries[0].holder, "192.0.2.20");
    EXPECT_EQ(plain.entries[0].vendor_id, 0x1f3a);
    EXPECT_EQ(plain.entries[0].location, "H112");
    EXPECT_EQ(plain.entries[1].description, "VID [0x2B7C] FlatPlate S2");
    EXPECT_EQ(plain.entries[1].holder, "0.0.0.0");
    EXPECT_EQ(plain.entries[2].description, "Contoso Optics PID [0x7A01]");
    EXPECT_EQ(plain.entries[2].status & 0x400, 0x400);
    EXPECT_EQ(plain.entries[1].status & 0x400, 0);
    EXPECT_EQ(plain.entries[2].aux1, 2);

    dyp::device_list extended =
        dyp::decode_device_list(read_command("GET USB_DEVICE_LIST_EX"), true);
    ASSERT_EQ(extended.entries.size(), 3u);
    EXPECT_EQ(extended.entries[0].serial, "NW410A00017");
    EXPECT_EQ(extended.entries[1].serial, "");
    EXPECT_EQ(extended.entries[2].serial, "CO7A01X9");
    EXPECT_TRUE(driver_received("get_num_interfaces result=3"));
    EXPECT_TRUE(driver_received("get_interface_info name=scanner3 result=0"));
}

TEST_F(DaemonSimTest, ScannerStatusNamesTheHolderAndTheDevice) {
    dyp::scanner_status held =
        dyp::decode_scanner_status(read_command("GET SCANNER_STATUS:scanner1"));
    EXPECT_EQ(held.holder, "192.0.2.20");
    EXPECT_EQ(held.holder_mac, "02:00:5e:00:53:14");
    EXPECT_EQ(held.description, "Northwind Imaging DocuFeed 410");
    EXPECT_EQ(held.status & 0x400, 0);

    dyp::scanner_status flagged =
        dyp::decode_scanner_status(read_command("GET SCANNER_STATUS:scanner3"));
    EXPECT_EQ(flagged.status & 0x400, 0x400);
    EXPECT_EQ(flagged.holder, "0.0.0.0");
}

TEST_F(DaemonSimTest, PortNameCommandsAnswerFromTheDriversNamesAndLocations) {
    EXPECT_EQ(dyp::decode_port_names(read_command("GET SCANNER PORT_NAME")),
              (std::vector<std::string>{"scanner1", "scanner2", "scanner3"}));
    EXPECT_EQ(dyp::decode_usb_port_name(read_command(
                  "GET USB_PORT_NAME", dyp::encode_usb_port_query(0x2b7c, 0x00c2, "H113"))),
              "scanner2");
    EXPECT_EQ(dyp::decode_usb_port_name(read_command(
                  "GET USB_PORT_NAME", dyp::encode_usb_port_query(0x2b7d, 0x00c2, "H113"))),
              "");
}

TEST_F(DaemonSimTest, ConnectAndDisconnectReachTheDriverWithTheHostsRecord) {
    std::string mac = HOST_MAC_TEXT;
    EXPECT_TRUE(exec_connect("EXEC SCANNER CONNECT", "scanner2", 0, 0x03));
    EXPECT_TRUE(driver_received("connect_ex name=scanner2 host=192.0.2.2:19540 mac=" + mac +
                                " opt_b1=1 opt_b0=1 size=172 ifname=dypbox0 result=0"));
    dyp::device_list list = dyp::decode_device_list(read_command("GET USB_DEVICE_LIST"), false);
    ASSERT_EQ(list.entries.size(), 3u);
    EXPECT_EQ(list.entries[1].holder, "192.0.2.2");

    EXPECT_TRUE(exec_connect("EXEC SCANNER DISCONNECT", "scanner2", 0, 0));
    EXPECT_TRUE(driver_received("disconnect name=scanner2 host=192.0.2.2:19540 result=0"));

    EXPECT_TRUE(exec_connect("EXEC SCANNER CONNECT", "scanner2", 5000, 0x02));
    EXPECT_TRUE(driver_received("connect_ex name=scanner2 host=192.0.2.2:5000 mac=" + mac +
                                " opt_b1=1 opt_b0=0 size=172 ifname=dypbox0 result=0"));
}

TEST_F(DaemonSimTest, ConnectOfAScannerHeldByAnotherHostIsRefused) {
    EXPECT_FALSE(exec_connect("EXEC SCANNER CONNECT", "scanner1", 0, 0));
    std::vector<std::string> requests = driver_requests();
    ASSERT_FALSE(requests.empty());
    EXPECT_NE(requests.back().find("connect_ex name=scanner1 host=192.0.2.2:19540"),
              std::string::npos);
    EXPECT_NE(requests.back().find("result=-16"), std::string::npos);
    EXPECT_FALSE(exec_connect("EXEC SCANNER CONNECT", "scanner9", 0, 0));
}

TEST_F(DaemonSimTest, PrimaryPortAdvertisesTheBoxAndItsFirstScanner) {
    netns_scope client(host->name());
    ASSERT_TRUE(client.ok());
    dyp::discover_options options;
    options.interface = HOST_LINK;
    options.timeout_ms = 500;
    std::vector<std::string> problems;
    std::vector<dyp::box_info> boxes = dyp::discover(options, problems);
    EXPECT_TRUE(problems.empty()) << problems.front();
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_EQ(boxes[0].address, BOX_ADDRESS);
    EXPECT_EQ(boxes[0].port, dyp::DEFAULT_PORT);
    EXPECT_EQ(boxes[0].product, PRODUCT_NAME);
    EXPECT_EQ(boxes[0].host_name, BOX_NAME);
    EXPECT_EQ(boxes[0].ip, BOX_ADDRESS);
    EXPECT_EQ(boxes[0].version, "Ver 2.2.0");
    EXPECT_EQ(boxes[0].description, "Northwind Imaging DocuFeed 410");
}

TEST_F(DaemonSimTest, KeepAliveIsEchoedAndItsNamesReachTheDriver) {
    {
        netns_scope client(host->name());
        ASSERT_TRUE(client.ok());
        EXPECT_NO_THROW(
            dyp::keepalive_once(box_endpoint(49235), {"scanner1", "a-name-of-twenty-ch"}, {}));
    }
    EXPECT_TRUE(driver_received("keep_alive count=2 reserved=0 names=scanner1,a-name-of-twent "
                                "result=0"));
}

} // namespace

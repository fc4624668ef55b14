#include "cli.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

namespace dypctl {

namespace {

bool all_of(const std::string &text, const char *allowed) {
    return !text.empty() && text.find_first_not_of(allowed) == std::string::npos;
}

constexpr char DIGITS[] = "0123456789";
constexpr char HEX_DIGITS[] = "0123456789abcdefABCDEF";

bool has_hex_prefix(const std::string &text) {
    return text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

// Seconds as a number: digits with at most one decimal point.
bool seconds_form(const std::string &text) {
    return all_of(text, "0123456789.") && text.find('.') == text.rfind('.') && text != ".";
}

} // namespace

CLI::Validator decimal_range(unsigned long min, unsigned long max) {
    std::string range = std::to_string(min) + " to " + std::to_string(max);
    return CLI::Validator(
        [min, max, range](std::string &text) -> std::string {
            if (!all_of(text, DIGITS) || text.size() > 9)
                return "\"" + text + "\" is not a decimal number";
            unsigned long v = std::stoul(text, nullptr, 10);
            if (v < min || v > max)
                return "\"" + text + "\" is not within " + range;
            return "";
        },
        ""); // the range is in the message; the option's type name says what it takes
}

const CLI::Validator decimal_port = decimal_range(0, 65535);

const CLI::Validator hex_id(
    [](std::string &text) -> std::string {
        std::string digits = has_hex_prefix(text) ? text.substr(2) : text;
        if (!all_of(digits, HEX_DIGITS) || digits.size() > 4)
            return "\"" + text + "\" is not a hexadecimal id of 1 to 4 digits";
        return "";
    },
    "");

const CLI::Validator byte_value(
    [](std::string &text) -> std::string {
        bool hex = has_hex_prefix(text);
        std::string digits = hex ? text.substr(2) : text;
        if (!all_of(digits, hex ? HEX_DIGITS : DIGITS) || digits.size() > 3 ||
            std::stoul(digits, nullptr, hex ? 16 : 10) > 255)
            return "\"" + text + "\" is not a number from 0 to 255 (decimal, or hex with 0x)";
        return "";
    },
    "");

const CLI::Validator positive_seconds(
    [](std::string &text) -> std::string {
        if (!seconds_form(text) || !(std::stod(text) > 0) || std::stod(text) > 3600)
            return "\"" + text + "\" is not a number of seconds above 0 and at most 3600";
        return "";
    },
    "");

const CLI::Validator mac_address(
    [](std::string &text) -> std::string {
        bool ok = text.size() == 17;
        for (size_t i = 0; ok && i < text.size(); ++i)
            ok = (i % 3 == 2) ? text[i] == ':' : isxdigit(static_cast<unsigned char>(text[i]));
        return ok ? "" : "\"" + text + "\" is not a MAC address (aa:bb:cc:dd:ee:ff)";
    },
    "");

unsigned long decimal(const std::string &text) {
    return std::stoul(text, nullptr, 10);
}

uint16_t hex16_value(const std::string &text) {
    return uint16_t(std::stoul(has_hex_prefix(text) ? text.substr(2) : text, nullptr, 16));
}

uint8_t byte_of(const std::string &text) {
    return has_hex_prefix(text) ? uint8_t(std::stoul(text.substr(2), nullptr, 16))
                                : uint8_t(decimal(text));
}

int milliseconds(const std::string &seconds) {
    // A positive timeout never rounds down to "no wait at all".
    return std::max(1, int(std::stod(seconds) * 1000));
}

std::array<uint8_t, 6> mac_of(const std::string &text) {
    std::array<uint8_t, 6> mac{};
    for (size_t i = 0; i < mac.size(); ++i)
        mac[i] = uint8_t(std::stoul(text.substr(3 * i, 2), nullptr, 16));
    return mac;
}

dyp::transfer_options box_options::transfer() const {
    dyp::transfer_options o;
    if (!timeout.empty())
        o.timeout_ms = milliseconds(timeout);
    if (!retries.empty())
        o.retries = int(decimal(retries));
    return o;
}

dyp::discover_options box_options::discovery() const {
    dyp::discover_options o;
    o.interface = interface;
    o.broadcast = address;
    return o;
}

dyp::endpoint box_options::box(uint16_t default_port) const {
    return dyp::resolve_box(host, default_port, discovery());
}

void add_json_flag(CLI::App &cmd, bool &json) {
    cmd.add_flag("--json", json, "print JSON instead of a table");
}

void add_discovery_options(CLI::App &cmd, std::string &interface, std::string &address) {
    auto *i = cmd.add_option("--interface", interface,
                             "discover on this interface only (its IPv4 broadcast address)")
                  ->type_name("IF");
    auto *a = cmd.add_option("--address", address, "discover by broadcasting to this address only")
                  ->type_name("BCAST")
                  ->check(CLI::Validator(CLI::ValidIPV4).description(""));
    i->excludes(a);
}

void add_connect_options(CLI::App &cmd, std::string &port, std::string &options, std::string &mac) {
    cmd.add_option("--port", port,
                   "the host port the box's driver talks to (default 0: the box uses 19540)")
        ->type_name("P")
        ->check(decimal_port);
    cmd.add_option("--options", options, "options byte (bits 0 and 1 are passed on)")
        ->type_name("N")
        ->check(byte_value);
    cmd.add_option("--mac", mac, "host MAC to report (default: the local interface's)")
        ->type_name("M")
        ->check(mac_address);
}

void add_box_options(CLI::App &cmd, box_options &o) {
    cmd.add_option("HOST", o.host,
                   "the box: IPv4 address, advertised host name or resolvable name, "
                   "optionally with :PORT")
        ->required()
        ->type_name("");
    add_json_flag(cmd, o.json);
    cmd.add_option("--timeout", o.timeout, "seconds to wait for each answer (default 1)")
        ->type_name("S")
        ->check(positive_seconds);
    cmd.add_option("--retries", o.retries, "resends of an unanswered packet, 0 to 100 (default 3)")
        ->type_name("N")
        ->check(decimal_range(0, 100));
    add_discovery_options(cmd, o.interface, o.address);
}

void print_json(const json &document) {
    std::cout << document.dump(-1, ' ', false, json::error_handler_t::replace) << "\n"
              << std::flush;
}

json status_bits_json(uint16_t status) {
    json bits = json::array();
    for (const auto &b : dyp::status_bits(status))
        bits.push_back(b);
    return bits;
}

std::string bits_text(uint16_t status) {
    std::string out;
    for (const auto &b : dyp::status_bits(status))
        out += (out.empty() ? "" : ",") + b;
    char word[8];
    snprintf(word, sizeof word, "0x%04x", status);
    return std::string(word) + " (" + out + ")";
}

std::string holder_text(const std::string &ip) {
    return ip == "0.0.0.0" || ip.empty() ? "-" : ip;
}

std::string id_pair(uint16_t vendor_id, uint16_t product_id) {
    char ids[16];
    snprintf(ids, sizeof ids, "%04x:%04x", vendor_id, product_id);
    return ids;
}

std::string utc_now() {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    char text[40];
    size_t n = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text + n, sizeof text - n, ".%03ldZ", long(now.tv_usec / 1000));
    return text;
}

// ---- stop on a signal ------------------------------------------------------------

namespace {

int stop_pipe[2] = {-1, -1};
std::atomic<int> stop_signals{0};

void on_stop_signal(int sig) {
    if (stop_signals.fetch_add(1) > 0)
        _exit(128 + sig);
    int saved = errno;
    (void)!write(stop_pipe[1], "s", 1);
    errno = saved;
}

} // namespace

stop_request::stop_request() {
    if (stop_pipe[0] < 0 && pipe2(stop_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        throw dyp::local_error(std::string("pipe: ") + strerror(errno));
    struct sigaction action {};
    action.sa_handler = on_stop_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool stop_request::asked() const {
    return stop_signals.load() > 0;
}

bool stop_request::wait(int ms) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!asked()) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline -
                                                                 std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        pollfd p{stop_pipe[0], POLLIN, 0};
        (void)poll(&p, 1, int(left.count()));
    }
    return true;
}

} // namespace dypctl

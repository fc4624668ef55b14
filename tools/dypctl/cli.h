// What the dypctl subcommands share: exit statuses, option definitions and
// their validators, output helpers and the signal-driven stop.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "dypclient.h"

namespace dypctl {

// Exit statuses, documented in the README and in --help.
enum exit_status : int {
    EXIT_OK = 0,
    EXIT_REFUSED = 1,   // the box said no, or nothing (or more than one thing) matches
    EXIT_USAGE = 2,     // bad command line
    EXIT_TIMEOUT = 3,   // no answer (no box found, for discover)
    EXIT_MALFORMED = 4, // a reply that could not be trusted
    EXIT_LOCAL = 5,     // socket, address, interface or name lookup failure on this host
};

struct usage_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// The box answered, but not what was asked for: exit status 1 with this text.
struct refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

using json = nlohmann::ordered_json;

// The subcommand chosen on the command line runs after parsing succeeded.
using command_runner = std::function<int()>;

// Values of the options every command that talks to a box shares.
struct box_options {
    std::string host;
    bool json = false;
    std::string timeout; // seconds, validated
    std::string retries;
    std::string interface; // discovery, when HOST is a box's advertised name
    std::string address;

    dyp::transfer_options transfer() const;
    dyp::discover_options discovery() const;
    // HOST as an endpoint, a box's advertised name included.
    dyp::endpoint box(uint16_t default_port = dyp::DEFAULT_PORT) const;
};

// Adds HOST, --json, --timeout, --retries, --interface and --address.
void add_box_options(CLI::App &cmd, box_options &o);
void add_json_flag(CLI::App &cmd, bool &json);
// --interface IF | --address BCAST for discovery.
void add_discovery_options(CLI::App &cmd, std::string &interface, std::string &address);
// --port P, --options N and --mac M: what connect and hold tell the box's driver.
void add_connect_options(CLI::App &cmd, std::string &port, std::string &options, std::string &mac);

// Validators: each rejects with a message that names what it wants.
extern const CLI::Validator decimal_port;     // 0-65535, decimal
extern const CLI::Validator hex_id;           // 0-ffff, hexadecimal with or without 0x
extern const CLI::Validator byte_value;       // 0-255, decimal or 0x hexadecimal
extern const CLI::Validator positive_seconds; // above 0, at most 3600
extern const CLI::Validator mac_address;      // aa:bb:cc:dd:ee:ff
CLI::Validator decimal_range(unsigned long min, unsigned long max);

// Conversions of values the validators accepted.
unsigned long decimal(const std::string &text);
uint16_t hex16_value(const std::string &text);
uint8_t byte_of(const std::string &text);
int milliseconds(const std::string &seconds);
std::array<uint8_t, 6> mac_of(const std::string &text);

// One JSON document on one line; texts from a box are bytes, and a byte
// sequence that is not UTF-8 is written as U+FFFD.
void print_json(const json &document);
json status_bits_json(uint16_t status);
// "0x8483 (device-server,present,flagged)"
std::string bits_text(uint16_t status);
// "-" for nobody.
std::string holder_text(const std::string &ip);
std::string id_pair(uint16_t vendor_id, uint16_t product_id);
// The time now as "2026-01-02T03:04:05.678Z".
std::string utc_now();

// SIGINT and SIGTERM ask a long-running command to stop; a second one ends
// the process at once.
class stop_request {
  public:
    stop_request();
    // Waits up to `ms`; true when a stop was asked for.
    bool wait(int ms) const;
    bool asked() const;
};

// Subcommand groups; each adds its commands and sets `run` to the one chosen.
void add_discovery_commands(CLI::App &app, command_runner &run);
void add_device_commands(CLI::App &app, command_runner &run);
// DEVICE: an interface name or a selector.
void add_device_argument(CLI::App &cmd, std::string &device);
void add_connection_commands(CLI::App &app, command_runner &run);
void add_hold_command(CLI::App &app, command_runner &run);

} // namespace dypctl

// dypctl: finds dypd boxes on the LAN and drives their commands.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <thread>

#include "ds/ska.h"
#include "dypclient.h"

namespace {

// Exit statuses, documented in the README and in --help.
enum exit_status : int {
    EXIT_OK = 0,
    EXIT_REFUSED = 1,   // the box answered NG or knows no such device
    EXIT_USAGE = 2,     // bad command line
    EXIT_TIMEOUT = 3,   // no answer (no box found, for discover)
    EXIT_MALFORMED = 4, // a reply that could not be trusted
    EXIT_LOCAL = 5,     // socket, address or interface failure on this host
};

const char USAGE[] = R"(usage: dypctl COMMAND [ARGS] [--json] [--timeout S] [--retries N]

commands:
  discover [--interface IF | --address BCAST] [--port P] [--timeout S]
  devices HOST [--ex]
  status HOST IFNAME
  ports HOST
  port-name HOST --vid V --pid P --location L
  connect HOST IFNAME [--port P] [--options N] [--mac M]
  disconnect HOST IFNAME
  keepalive HOST IFNAME... [--interval S --count N]

HOST is an IPv4 address or name, optionally with :PORT (default 19540; for
keepalive the SKA port, default 49235). --timeout is per packet (default 1 s;
2 s for discover), --retries the resends of an unanswered packet (default 3).

exit status: 0 success, 1 refused (NG, no such device), 2 usage error,
3 timeout (no answer, no box found), 4 malformed reply, 5 local error.
)";

struct usage_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---- command line -------------------------------------------------------------

struct args {
    std::string command;
    std::vector<std::string> positional;
    std::map<std::string, std::string> options; // "--x" -> value ("" for flags)
    bool json = false;

    bool has(const std::string &o) const { return options.count(o) != 0; }
    std::string get(const std::string &o, const std::string &fallback = "") const {
        auto it = options.find(o);
        return it == options.end() ? fallback : it->second;
    }
};

const std::map<std::string, bool> OPTIONS_WITH_VALUE = {
    {"--interface", true}, {"--address", true}, {"--port", true},     {"--timeout", true},
    {"--retries", true},   {"--vid", true},     {"--pid", true},      {"--location", true},
    {"--options", true},   {"--mac", true},     {"--interval", true}, {"--count", true},
    {"--ex", false},       {"--json", false},   {"--help", false},
};

args parse_args(int argc, char **argv) {
    args a;
    for (int i = 1; i < argc; ++i) {
        std::string s = argv[i];
        if (s.rfind("--", 0) == 0) {
            auto known = OPTIONS_WITH_VALUE.find(s);
            if (known == OPTIONS_WITH_VALUE.end())
                throw usage_error("unknown option " + s);
            std::string value;
            if (known->second) {
                if (i + 1 >= argc)
                    throw usage_error(s + " needs a value");
                value = argv[++i];
            }
            a.options[s] = value;
        } else if (a.command.empty()) {
            a.command = s;
        } else {
            a.positional.push_back(s);
        }
    }
    a.json = a.has("--json");
    return a;
}

unsigned long number(const std::string &text, const char *what, unsigned long max) {
    char *end = nullptr;
    errno = 0;
    unsigned long v = strtoul(text.c_str(), &end, 0);
    if (text.empty() || *end || errno || v > max || text[0] == '-')
        throw usage_error(std::string("bad ") + what + " \"" + text + "\"");
    return v;
}

int milliseconds(const std::string &seconds, const char *what) {
    char *end = nullptr;
    double v = strtod(seconds.c_str(), &end);
    if (seconds.empty() || *end || !(v > 0) || v > 3600)
        throw usage_error(std::string("bad ") + what + " \"" + seconds + "\"");
    return int(v * 1000);
}

void require_positional(const args &a, size_t n, const char *shape) {
    if (a.positional.size() != n)
        throw usage_error(std::string("usage: dypctl ") + shape);
}

dyp::transfer_options transfer_opts(const args &a) {
    dyp::transfer_options o;
    if (a.has("--timeout"))
        o.timeout_ms = milliseconds(a.get("--timeout"), "timeout");
    if (a.has("--retries"))
        o.retries = int(number(a.get("--retries"), "retry count", 100));
    return o;
}

dyp::endpoint box_of(const std::string &host, uint16_t default_port = dyp::DEFAULT_PORT) {
    try {
        return dyp::parse_endpoint(host, default_port);
    } catch (const std::invalid_argument &e) {
        throw usage_error(e.what());
    }
}

// ---- output ---------------------------------------------------------------------

std::string json_string(const std::string &s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < 0x20 || c >= 0x7f) {
            char e[8];
            snprintf(e, sizeof e, "\\u%04x", c);
            out += e;
        } else {
            out += char(c);
        }
    }
    return out + "\"";
}

std::string json_bits(uint16_t status) {
    std::string out = "[";
    for (const auto &b : dyp::status_bits(status))
        out += (out.size() > 1 ? "," : "") + json_string(b);
    return out + "]";
}

std::string hex16(uint16_t v) {
    char s[8];
    snprintf(s, sizeof s, "0x%04x", v);
    return s;
}

std::string bits_text(uint16_t status) {
    std::string out;
    for (const auto &b : dyp::status_bits(status))
        out += (out.empty() ? "" : ",") + b;
    return hex16(status) + " (" + out + ")";
}

std::string holder_text(const std::string &ip) {
    return ip == "0.0.0.0" ? "-" : ip;
}

// ---- commands ---------------------------------------------------------------------

int cmd_discover(const args &a) {
    require_positional(a, 0,
                       "discover [--interface IF | --address BCAST] [--port P] [--timeout S]");
    if (a.has("--interface") && a.has("--address"))
        throw usage_error("--interface and --address exclude each other");
    dyp::discover_options o;
    o.interface = a.get("--interface");
    o.broadcast = a.get("--address", o.broadcast);
    if (a.has("--port"))
        o.port = uint16_t(number(a.get("--port"), "port", 65535));
    if (a.has("--timeout"))
        o.timeout_ms = milliseconds(a.get("--timeout"), "timeout");
    std::vector<std::string> problems;
    auto boxes = dyp::discover(o, problems);
    for (const auto &p : problems)
        std::cerr << "dypctl: ignored reply from " << p << "\n";
    if (a.json) {
        std::cout << "[";
        for (size_t i = 0; i < boxes.size(); ++i) {
            const auto &b = boxes[i];
            std::cout << (i ? "," : "") << "\n  {\"address\":" << json_string(b.address)
                      << ",\"port\":" << b.port << ",\"mac\":" << json_string(b.mac)
                      << ",\"ip\":" << json_string(b.ip)
                      << ",\"product\":" << json_string(b.product)
                      << ",\"hostname\":" << json_string(b.host_name)
                      << ",\"version\":" << json_string(b.version) << ",\"status\":" << b.status
                      << ",\"status_bits\":" << json_bits(b.status)
                      << ",\"device\":" << json_string(b.description) << "}";
        }
        std::cout << (boxes.empty() ? "]\n" : "\n]\n");
    } else if (boxes.empty()) {
        std::cout << "no box answered\n";
    } else {
        printf("%-21s %-17s %-15s %-15s %-10s %-38s %s\n", "ADDRESS", "MAC", "PRODUCT", "HOSTNAME",
               "VERSION", "STATUS", "DEVICE");
        for (const auto &b : boxes)
            printf("%-21s %-17s %-15s %-15s %-10s %-38s %s\n",
                   (b.address + ":" + std::to_string(b.port)).c_str(), b.mac.c_str(),
                   b.product.c_str(), b.host_name.c_str(),
                   b.version.empty() ? "-" : b.version.c_str(), bits_text(b.status).c_str(),
                   b.description.empty() ? "-" : b.description.c_str());
    }
    return boxes.empty() ? EXIT_TIMEOUT : EXIT_OK;
}

int cmd_devices(const args &a) {
    require_positional(a, 1, "devices HOST [--ex]");
    bool ex = a.has("--ex");
    auto box = box_of(a.positional[0]);
    auto result = dyp::transfer_read(box, ex ? "GET USB_DEVICE_LIST_EX" : "GET USB_DEVICE_LIST", {},
                                     transfer_opts(a));
    auto list = dyp::decode_device_list(result, ex);
    if (a.json) {
        std::cout << "{\"count\":" << list.count << ",\"devices\":[";
        for (size_t i = 0; i < list.entries.size(); ++i) {
            const auto &d = list.entries[i];
            std::cout << (i ? "," : "") << "\n  {\"name\":" << json_string(d.name)
                      << ",\"description\":" << json_string(d.description)
                      << ",\"holder\":" << json_string(d.holder) << ",\"status\":" << d.status
                      << ",\"status_bits\":" << json_bits(d.status)
                      << ",\"vendor_id\":" << d.vendor_id << ",\"product_id\":" << d.product_id
                      << ",\"location\":" << json_string(d.location)
                      << ",\"aux1\":" << unsigned(d.aux1) << ",\"aux2\":" << unsigned(d.aux2);
            if (ex)
                std::cout << ",\"serial\":" << json_string(d.serial);
            std::cout << "}";
        }
        std::cout << (list.entries.empty() ? "]}\n" : "\n]}\n");
        return EXIT_OK;
    }
    printf("%u interface(s) counted, %zu listed\n", list.count, list.entries.size());
    if (list.entries.empty())
        return EXIT_OK;
    printf("%-15s %-9s %-16s %-15s %-38s %s%s\n", "NAME", "VID:PID", "LOCATION", "HELD BY",
           "STATUS", "DESCRIPTION", ex ? " / SERIAL" : "");
    for (const auto &d : list.entries) {
        char ids[16];
        snprintf(ids, sizeof ids, "%04x:%04x", d.vendor_id, d.product_id);
        std::string desc = d.description;
        if (ex)
            desc += " / " + (d.serial.empty() ? std::string("-") : d.serial);
        printf("%-15s %-9s %-16s %-15s %-38s %s\n", d.name.c_str(), ids, d.location.c_str(),
               holder_text(d.holder).c_str(), bits_text(d.status).c_str(), desc.c_str());
    }
    return EXIT_OK;
}

int cmd_status(const args &a) {
    require_positional(a, 2, "status HOST IFNAME");
    auto box = box_of(a.positional[0]);
    const std::string &ifname = a.positional[1];
    if (ifname.empty() || ifname.size() > 15)
        throw usage_error("interface name must have 1 to 15 characters");
    auto result = dyp::transfer_read(box, "GET SCANNER_STATUS:" + ifname, {}, transfer_opts(a));
    auto s = dyp::decode_scanner_status(result);
    // The box sets bit 0x0001 for an interface it serves; the daemon status
    // word it ORs in starts at zero and nothing in the daemon sets bit 0.
    bool found = s.status & 0x0001;
    if (a.json) {
        std::cout << "{\"interface\":" << json_string(ifname)
                  << ",\"found\":" << (found ? "true" : "false") << ",\"status\":" << s.status
                  << ",\"status_bits\":" << json_bits(s.status)
                  << ",\"holder\":" << json_string(s.holder)
                  << ",\"holder_mac\":" << json_string(s.holder_mac)
                  << ",\"box_mac\":" << json_string(s.box_mac)
                  << ",\"description\":" << json_string(s.description) << "}\n";
    } else {
        printf("interface   %s%s\n", ifname.c_str(), found ? "" : " (unknown to the box)");
        printf("status      %s\n", bits_text(s.status).c_str());
        printf("held by     %s", holder_text(s.holder).c_str());
        if (s.holder != "0.0.0.0")
            printf(" (%s)", s.holder_mac.c_str());
        printf("\nbox MAC     %s\ndescription %s\n", s.box_mac.c_str(), s.description.c_str());
    }
    return EXIT_OK;
}

int cmd_ports(const args &a) {
    require_positional(a, 1, "ports HOST");
    auto box = box_of(a.positional[0]);
    auto names = dyp::decode_port_names(
        dyp::transfer_read(box, "GET SCANNER PORT_NAME", {}, transfer_opts(a)));
    if (a.json) {
        std::cout << "[";
        for (size_t i = 0; i < names.size(); ++i)
            std::cout << (i ? "," : "") << json_string(names[i]);
        std::cout << "]\n";
    } else {
        printf("%zu interface(s)\n", names.size());
        for (const auto &n : names)
            printf("  %s\n", n.c_str());
    }
    return EXIT_OK;
}

int cmd_port_name(const args &a) {
    require_positional(a, 1, "port-name HOST --vid V --pid P --location L");
    if (!a.has("--vid") || !a.has("--pid") || !a.has("--location"))
        throw usage_error("port-name needs --vid, --pid and --location");
    auto box = box_of(a.positional[0]);
    auto vid = uint16_t(number(a.get("--vid"), "vendor id", 0xffff));
    auto pid = uint16_t(number(a.get("--pid"), "product id", 0xffff));
    std::string location = a.get("--location");
    if (location.size() > 16)
        throw usage_error("location longer than 16 characters");
    auto name = dyp::decode_usb_port_name(
        dyp::transfer_read(box, "GET USB_PORT_NAME", dyp::encode_usb_port_query(vid, pid, location),
                           transfer_opts(a)));
    if (a.json)
        std::cout << "{\"found\":" << (name.empty() ? "false" : "true")
                  << ",\"name\":" << (name.empty() ? "null" : json_string(name)) << "}\n";
    else
        std::cout << (name.empty() ? "no such device" : name) << "\n";
    return name.empty() ? EXIT_REFUSED : EXIT_OK;
}

void parse_mac(const std::string &text, uint8_t mac[6]) {
    unsigned v[6];
    char tail;
    if (sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x%c", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5],
               &tail) != 6)
        throw usage_error("bad MAC address \"" + text + "\"");
    for (int i = 0; i < 6; ++i) {
        if (v[i] > 0xff)
            throw usage_error("bad MAC address \"" + text + "\"");
        mac[i] = uint8_t(v[i]);
    }
}

int run_connect(const args &a, bool connect) {
    require_positional(a, 2,
                       connect ? "connect HOST IFNAME [--port P] [--options N] [--mac M]"
                               : "disconnect HOST IFNAME");
    auto box = box_of(a.positional[0]);
    dyp::connect_params p;
    p.ifname = a.positional[1];
    dyp::local_identity(box, p.ip, p.mac);
    if (connect) {
        if (a.has("--port"))
            p.port = uint16_t(number(a.get("--port"), "port", 65535));
        if (a.has("--options"))
            p.options = uint8_t(number(a.get("--options"), "options", 0xff));
        if (a.has("--mac"))
            parse_mac(a.get("--mac"), p.mac);
    } else if (a.has("--port") || a.has("--options") || a.has("--mac")) {
        throw usage_error("disconnect takes no --port, --options or --mac");
    }
    std::string name;
    try {
        name = dyp::encode_connect_name(
            connect ? "EXEC SCANNER CONNECT" : "EXEC SCANNER DISCONNECT", p);
    } catch (const std::invalid_argument &e) {
        throw usage_error(e.what());
    }
    bool ok = dyp::decode_ok_ng(dyp::transfer_exec(box, name, transfer_opts(a)));
    if (a.json)
        std::cout << "{\"interface\":" << json_string(p.ifname)
                  << ",\"result\":" << (ok ? "\"OK\"" : "\"NG\"") << "}\n";
    else
        std::cout << (connect ? "connect " : "disconnect ") << p.ifname << ": "
                  << (ok ? "OK" : "NG") << "\n";
    return ok ? EXIT_OK : EXIT_REFUSED;
}

int cmd_keepalive(const args &a) {
    if (a.positional.size() < 2)
        throw usage_error("usage: dypctl keepalive HOST IFNAME... [--interval S --count N]");
    auto box = box_of(a.positional[0], SKA_PORT);
    std::vector<std::string> names(a.positional.begin() + 1, a.positional.end());
    for (const auto &n : names)
        if (n.size() > 15)
            throw usage_error("interface name \"" + n + "\" longer than 15 characters");
    int interval_ms = a.has("--interval") ? milliseconds(a.get("--interval"), "interval") : 1000;
    unsigned long count = a.has("--count") ? number(a.get("--count"), "count", 1000000) : 1;
    if (count == 0)
        throw usage_error("--count must be at least 1");
    auto opt = transfer_opts(a);
    for (unsigned long i = 0; i < count; ++i) {
        if (i)
            std::this_thread::sleep_for(std::chrono::milliseconds(interval_ms));
        auto start = std::chrono::steady_clock::now();
        dyp::keepalive_once(box, names, opt);
        auto us = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::steady_clock::now() - start);
        if (a.json)
            std::cout << "{\"seq\":" << i + 1 << ",\"echo\":true,\"rtt_us\":" << us.count()
                      << "}\n";
        else
            printf("keep-alive %lu to %s: echoed in %.3f ms\n", i + 1, box.text().c_str(),
                   us.count() / 1000.0);
        fflush(stdout);
    }
    return EXIT_OK;
}

int dispatch(const args &a) {
    static const std::map<std::string, std::function<int(const args &)>> commands = {
        {"discover", cmd_discover},
        {"devices", cmd_devices},
        {"status", cmd_status},
        {"ports", cmd_ports},
        {"port-name", cmd_port_name},
        {"connect", [](const args &x) { return run_connect(x, true); }},
        {"disconnect", [](const args &x) { return run_connect(x, false); }},
        {"keepalive", cmd_keepalive},
    };
    auto it = commands.find(a.command);
    if (it == commands.end())
        throw usage_error(a.command.empty() ? "no command given"
                                            : "unknown command \"" + a.command + "\"");
    return it->second(a);
}

} // namespace

int main(int argc, char **argv) {
    try {
        args a = parse_args(argc, argv);
        if (a.has("--help") || a.command == "help") {
            std::cout << USAGE;
            return EXIT_OK;
        }
        return dispatch(a);
    } catch (const usage_error &e) {
        std::cerr << "dypctl: " << e.what() << "\n(dypctl --help lists the commands)\n";
        return EXIT_USAGE;
    } catch (const dyp::timeout_error &e) {
        std::cerr << "dypctl: timeout: " << e.what() << "\n";
        return EXIT_TIMEOUT;
    } catch (const dyp::malformed_reply &e) {
        std::cerr << "dypctl: malformed reply: " << e.what() << "\n";
        return EXIT_MALFORMED;
    } catch (const std::exception &e) { // dyp::local_error: a failure on this host
        std::cerr << "dypctl: " << e.what() << "\n";
        return EXIT_LOCAL;
    }
}

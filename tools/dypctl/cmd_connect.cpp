// connect, disconnect and keepalive: taking a device, giving it back and
// keeping it alive by hand.
#include <arpa/inet.h>
#include <cstdio>
#include <iostream>
#include <memory>

#include "cli.h"
#include "ds/ska.h"

namespace dypctl {

namespace {

constexpr uint16_t STATUS_FOUND = 0x0001;

struct connect_args {
    box_options box;
    std::string device, port, options, mac;
};

// Why the box said NG, when its status tells: another holder, or a device
// it does not know. Empty when the status does not explain it.
std::string refusal_reason(const dyp::endpoint &box, const std::string &ifname, const in_addr &self,
                           const dyp::transfer_options &transfer) {
    try {
        auto s = dyp::decode_scanner_status(
            dyp::transfer_read(box, "GET SCANNER_STATUS:" + ifname, {}, transfer));
        if (!(s.status & STATUS_FOUND))
            return "unknown to the box";
        char me[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &self, me, sizeof me);
        if (s.holder != "0.0.0.0" && s.holder != me)
            return "held by " + s.holder;
    } catch (const std::runtime_error &) {
        // The NG stands on its own; a status that cannot be read adds nothing.
    }
    return "";
}

int run_connect(const connect_args &a, bool connect) {
    auto box = a.box.box();
    auto transfer = a.box.transfer();
    auto device = dyp::resolve_device(box, dyp::parse_selector(a.device), transfer);
    dyp::connect_params p;
    p.ifname = device.name;
    dyp::local_identity(box, p.ip, p.mac);
    if (!a.port.empty())
        p.port = uint16_t(decimal(a.port));
    if (!a.options.empty())
        p.options = byte_of(a.options);
    if (!a.mac.empty()) {
        auto mac = mac_of(a.mac);
        std::copy(mac.begin(), mac.end(), p.mac);
    }
    const char *command = connect ? "EXEC SCANNER CONNECT" : "EXEC SCANNER DISCONNECT";
    bool ok =
        dyp::decode_ok_ng(dyp::transfer_exec(box, dyp::encode_connect_name(command, p), transfer));
    std::string reason = ok ? "" : refusal_reason(box, p.ifname, p.ip, transfer);
    if (a.box.json) {
        json out = {{"interface", p.ifname}, {"result", ok ? "OK" : "NG"}};
        if (!device.serial.empty())
            out["serial"] = device.serial;
        if (!reason.empty())
            out["reason"] = reason;
        print_json(out);
    } else {
        std::cout << (connect ? "connect " : "disconnect ") << p.ifname << ": "
                  << (ok ? "OK" : "NG") << (reason.empty() ? "" : " (" + reason + ")") << "\n";
    }
    return ok ? EXIT_OK : EXIT_REFUSED;
}

struct keepalive_args {
    box_options box;
    std::vector<std::string> devices;
    std::string interval, count;
};

int run_keepalive(const keepalive_args &a) {
    auto ska = a.box.box(SKA_PORT);
    auto transfer = a.box.transfer();
    std::vector<std::string> names;
    const auto dyp_box = dyp::make_endpoint(ska.addr.sin_addr, dyp::DEFAULT_PORT);
    for (const auto &d : a.devices)
        names.push_back(dyp::resolve_device(dyp_box, dyp::parse_selector(d), transfer).name);
    int interval_ms = a.interval.empty() ? 1000 : milliseconds(a.interval);
    unsigned long count = a.count.empty() ? 1 : decimal(a.count); // 0: until interrupted
    stop_request stop;
    int last = EXIT_OK;
    for (unsigned long i = 0; count == 0 || i < count; ++i) {
        if (i && stop.wait(interval_ms))
            break;
        auto start = std::chrono::steady_clock::now();
        std::string error;
        try {
            dyp::keepalive_once(ska, names, transfer);
            last = EXIT_OK;
        } catch (const dyp::timeout_error &e) {
            error = e.what();
            last = EXIT_TIMEOUT;
        }
        auto us = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::steady_clock::now() - start);
        if (a.box.json) {
            json line = {{"seq", i + 1}, {"echo", error.empty()}};
            if (error.empty())
                line["rtt_us"] = us.count();
            else
                line["error"] = error;
            print_json(line);
        } else if (error.empty()) {
            printf("keep-alive %lu to %s: echoed in %.3f ms\n", i + 1, ska.text().c_str(),
                   us.count() / 1000.0);
        } else {
            printf("keep-alive %lu to %s: no echo (%s)\n", i + 1, ska.text().c_str(),
                   error.c_str());
        }
        fflush(stdout);
        if (stop.asked())
            break;
    }
    // A run until interrupted ends when asked to; a counted run ends with
    // the status of its last keep-alive.
    return count == 0 ? EXIT_OK : last;
}

} // namespace

void add_connection_commands(CLI::App &app, command_runner &run) {
    for (bool connect : {true, false}) {
        auto c = std::make_shared<connect_args>();
        auto *cmd = connect ? app.add_subcommand("connect", "take a device for this host")
                            : app.add_subcommand("disconnect", "give a device back");
        add_box_options(*cmd, c->box);
        add_device_argument(*cmd, c->device);
        if (connect)
            add_connect_options(*cmd, c->port, c->options, c->mac);
        cmd->callback(
            [c, connect, &run] { run = [c, connect] { return run_connect(*c, connect); }; });
    }

    auto k = std::make_shared<keepalive_args>();
    auto *keepalive = app.add_subcommand("keepalive", "send SKA keep-alives naming devices");
    add_box_options(*keepalive, k->box);
    keepalive->get_option("HOST")->description(
        "the box, as for the other commands; :PORT is the SKA port (default 49235)");
    keepalive
        ->add_option("DEVICE", k->devices,
                     "interface names (scanner2), serial:TEXT or usb:VVVV:PPPP selectors")
        ->type_name("")
        ->required();
    keepalive->add_option("--interval", k->interval, "seconds between keep-alives (default 1)")
        ->type_name("S")
        ->check(positive_seconds);
    keepalive
        ->add_option("--count", k->count, "keep-alives to send (default 1; 0: until interrupted)")
        ->type_name("N")
        ->check(decimal_range(0, 100000000));
    keepalive->callback([k, &run] { run = [k] { return run_keepalive(*k); }; });
}

} // namespace dypctl

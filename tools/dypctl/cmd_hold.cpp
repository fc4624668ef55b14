// hold: keep one device for this host through box restarts.
#include <cstdio>
#include <iostream>
#include <memory>

#include "cli.h"

namespace dypctl {

namespace {

struct hold_args {
    box_options box;
    std::string device, port, options, mac, interval, check, retry_max;
};

void print_event(const dyp::hold_event &e, const std::string &box, bool as_json) {
    if (as_json) {
        json line = {{"time", utc_now()},
                     {"event", e.event},
                     {"box", box},
                     {"interface", e.interface.empty() ? json() : json(e.interface)},
                     {"serial", e.serial.empty() ? json() : json(e.serial)},
                     {"holder", e.holder.empty() ? json() : json(e.holder)},
                     {"detail", e.detail}};
        print_json(line);
        return;
    }
    std::string text = utc_now() + " " + e.event;
    if (!e.interface.empty())
        text += " " + e.interface;
    if (!e.serial.empty())
        text += " (serial " + e.serial + ")";
    text += " on " + box;
    if (!e.holder.empty())
        text += " holder " + e.holder;
    if (!e.detail.empty())
        text += ": " + e.detail;
    std::cout << text << std::endl;
}

int run_hold(const hold_args &a) {
    stop_request stop;
    auto box = a.box.box();
    auto selector = dyp::parse_selector(a.device);
    dyp::hold_options o;
    o.transfer = a.box.transfer();
    if (!a.port.empty())
        o.port = uint16_t(decimal(a.port));
    if (!a.options.empty())
        o.options = byte_of(a.options);
    if (!a.mac.empty())
        o.mac = mac_of(a.mac);
    if (!a.interval.empty())
        o.interval_ms = milliseconds(a.interval);
    if (!a.check.empty())
        o.check_ms = milliseconds(a.check);
    if (!a.retry_max.empty())
        o.retry_max_ms = std::max(o.retry_min_ms, milliseconds(a.retry_max));
    const std::string where = box.address();
    dyp::hold(
        box, selector, o, [&](const dyp::hold_event &e) { print_event(e, where, a.box.json); },
        [&](int ms) { return stop.wait(ms); });
    return EXIT_OK;
}

} // namespace

void add_hold_command(CLI::App &app, command_runner &run) {
    auto h = std::make_shared<hold_args>();
    auto *hold = app.add_subcommand(
        "hold", "keep a device for this host until interrupted, taking it again after a box "
                "restart or once another host released it");
    add_box_options(*hold, h->box);
    add_device_argument(*hold, h->device);
    add_connect_options(*hold, h->port, h->options, h->mac);
    hold->add_option("--interval", h->interval, "seconds between keep-alives (default 2)")
        ->type_name("S")
        ->check(positive_seconds);
    hold->add_option("--check", h->check, "seconds between status reads (default 10)")
        ->type_name("S")
        ->check(positive_seconds);
    hold->add_option("--retry-max", h->retry_max,
                     "longest pause between attempts to take the device again, in seconds "
                     "(default 30; the pause starts at 0.5 and doubles)")
        ->type_name("S")
        ->check(positive_seconds);
    hold->callback([h, &run] { run = [h] { return run_hold(*h); }; });
}

} // namespace dypctl

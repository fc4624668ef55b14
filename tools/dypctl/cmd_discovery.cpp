// discover and inventory: what is on the LAN.
#include <cstdio>
#include <iostream>
#include <memory>

#include "cli.h"

namespace dypctl {

namespace {

struct discover_args {
    std::string interface, address, port, timeout;
    bool json = false;

    dyp::discover_options options() const {
        dyp::discover_options o;
        o.interface = interface;
        o.broadcast = address;
        if (!port.empty())
            o.port = uint16_t(decimal(port));
        if (!timeout.empty())
            o.timeout_ms = milliseconds(timeout);
        return o;
    }
};

void add_discover_options(CLI::App &cmd, discover_args &a) {
    add_discovery_options(cmd, a.interface, a.address);
    cmd.add_option("--port", a.port, "the boxes' DYP port (default 19540)")
        ->type_name("P")
        ->check(decimal_range(1, 65535));
    cmd.add_option("--timeout", a.timeout,
                   "seconds to collect answers (default 0.5: a box answers within 150 ms "
                   "plus the network's delay)")
        ->type_name("S")
        ->check(positive_seconds);
    add_json_flag(cmd, a.json);
}

void report_problems(const std::vector<std::string> &problems) {
    for (const auto &p : problems)
        std::cerr << "dypctl: ignored reply from " << p << "\n";
}

json box_json(const dyp::box_info &b) {
    return {{"address", b.address},
            {"port", b.port},
            {"mac", b.mac},
            {"ip", b.ip},
            {"product", b.product},
            {"hostname", b.host_name},
            {"version", b.version},
            {"status", b.status},
            {"status_bits", status_bits_json(b.status)},
            {"device", b.description}};
}

int run_discover(const discover_args &a) {
    std::vector<std::string> problems;
    auto boxes = dyp::discover(a.options(), problems);
    report_problems(problems);
    if (a.json) {
        json list = json::array();
        for (const auto &b : boxes)
            list.push_back(box_json(b));
        print_json(list);
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

struct inventory_args {
    discover_args discovery;
    std::string retries;
    std::string parallel;
};

json device_json(const dyp::usb_device &d) {
    return {{"interface", d.name},
            {"vendor_id", d.vendor_id},
            {"product_id", d.product_id},
            {"vid_pid", id_pair(d.vendor_id, d.product_id)},
            {"serial", d.serial},
            {"location", d.location},
            {"holder", d.holder},
            {"status", d.status},
            {"status_bits", status_bits_json(d.status)},
            {"description", d.description}};
}

int run_inventory(const inventory_args &a) {
    dyp::inventory_options o;
    o.discovery = a.discovery.options();
    // One --timeout bounds both the discovery wait and each list packet.
    o.transfer.timeout_ms = o.discovery.timeout_ms;
    if (!a.retries.empty())
        o.transfer.retries = int(decimal(a.retries));
    if (!a.parallel.empty())
        o.parallel = unsigned(decimal(a.parallel));
    auto found = dyp::take_inventory(o);
    report_problems(found.problems);
    bool all_listed = true;
    for (const auto &b : found.boxes)
        all_listed = all_listed && b.listed;

    if (a.discovery.json) {
        json boxes = json::array();
        for (const auto &b : found.boxes) {
            json box = {{"address", b.box.address},
                        {"port", b.box.port},
                        {"hostname", b.box.host_name},
                        {"mac", b.box.mac},
                        {"product", b.box.product}};
            if (b.listed) {
                box["count"] = b.devices.count;
                json devices = json::array();
                for (const auto &d : b.devices.entries)
                    devices.push_back(device_json(d));
                box["devices"] = devices;
            } else {
                box["error"] = b.error;
            }
            boxes.push_back(box);
        }
        print_json({{"boxes", boxes}});
    } else if (found.boxes.empty()) {
        std::cout << "no box answered\n";
    } else {
        printf("%-15s %-15s %-15s %-9s %-20s %-16s %-15s %s\n", "BOX", "ADDRESS", "INTERFACE",
               "VID:PID", "SERIAL", "LOCATION", "HELD BY", "STATUS");
        for (const auto &b : found.boxes) {
            const char *name = b.box.host_name.empty() ? "-" : b.box.host_name.c_str();
            if (!b.listed)
                printf("%-15s %-15s error: %s\n", name, b.box.address.c_str(), b.error.c_str());
            for (const auto &d : b.devices.entries)
                printf("%-15s %-15s %-15s %-9s %-20s %-16s %-15s %s\n", name, b.box.address.c_str(),
                       d.name.c_str(), id_pair(d.vendor_id, d.product_id).c_str(),
                       d.serial.empty() ? "-" : d.serial.c_str(),
                       d.location.empty() ? "-" : d.location.c_str(), holder_text(d.holder).c_str(),
                       bits_text(d.status).c_str());
        }
    }
    // A box that did not give its list is printed with its error, and the
    // run says so in its status as well.
    return !found.boxes.empty() && all_listed ? EXIT_OK : EXIT_TIMEOUT;
}

} // namespace

void add_discovery_commands(CLI::App &app, command_runner &run) {
    auto d = std::make_shared<discover_args>();
    auto *discover = app.add_subcommand("discover", "find the boxes on the LAN");
    add_discover_options(*discover, *d);
    discover->callback([d, &run] { run = [d] { return run_discover(*d); }; });

    auto i = std::make_shared<inventory_args>();
    auto *inventory = app.add_subcommand(
        "inventory", "list every device of every box on the LAN (boxes asked concurrently)");
    add_discover_options(*inventory, i->discovery);
    inventory->add_option("--retries", i->retries, "resends of an unanswered packet (default 3)")
        ->type_name("N")
        ->check(decimal_range(0, 100));
    inventory->add_option("--parallel", i->parallel, "boxes asked at once (default 16)")
        ->type_name("N")
        ->check(decimal_range(1, 1024));
    inventory->callback([i, &run] { run = [i] { return run_inventory(*i); }; });
}

} // namespace dypctl

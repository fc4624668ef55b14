// devices, status, ports and port-name: what one box shares and in what state.
#include <cstdio>
#include <iostream>
#include <memory>

#include "cli.h"

namespace dypctl {

namespace {

// The box sets bit 0x0001 for an interface it serves; the daemon status
// word it ORs in starts at zero and nothing in the daemon sets bit 0.
constexpr uint16_t STATUS_FOUND = 0x0001;

struct devices_args {
    box_options box;
    bool ex = false;
};

int run_devices(const devices_args &a) {
    auto list = dyp::decode_device_list(
        dyp::transfer_read(a.box.box(), a.ex ? "GET USB_DEVICE_LIST_EX" : "GET USB_DEVICE_LIST", {},
                           a.box.transfer()),
        a.ex);
    if (a.box.json) {
        json devices = json::array();
        for (const auto &d : list.entries) {
            json entry = {{"name", d.name},
                          {"description", d.description},
                          {"holder", d.holder},
                          {"status", d.status},
                          {"status_bits", status_bits_json(d.status)},
                          {"vendor_id", d.vendor_id},
                          {"product_id", d.product_id},
                          {"location", d.location},
                          {"aux1", d.aux1},
                          {"aux2", d.aux2}};
            if (a.ex)
                entry["serial"] = d.serial;
            devices.push_back(entry);
        }
        print_json({{"count", list.count}, {"devices", devices}});
        return EXIT_OK;
    }
    printf("%u interface(s) counted, %zu listed\n", list.count, list.entries.size());
    if (list.entries.empty())
        return EXIT_OK;
    printf("%-15s %-9s %-16s %-15s %-38s %s%s\n", "NAME", "VID:PID", "LOCATION", "HELD BY",
           "STATUS", "DESCRIPTION", a.ex ? " / SERIAL" : "");
    for (const auto &d : list.entries) {
        std::string desc = d.description;
        if (a.ex)
            desc += " / " + (d.serial.empty() ? std::string("-") : d.serial);
        printf("%-15s %-9s %-16s %-15s %-38s %s\n", d.name.c_str(),
               id_pair(d.vendor_id, d.product_id).c_str(), d.location.c_str(),
               holder_text(d.holder).c_str(), bits_text(d.status).c_str(), desc.c_str());
    }
    return EXIT_OK;
}

struct status_args {
    box_options box;
    std::string device;
};

int run_status(const status_args &a) {
    auto box = a.box.box();
    auto transfer = a.box.transfer();
    auto device = dyp::resolve_device(box, dyp::parse_selector(a.device), transfer);
    auto s = dyp::decode_scanner_status(
        dyp::transfer_read(box, "GET SCANNER_STATUS:" + device.name, {}, transfer));
    bool found = s.status & STATUS_FOUND;
    if (a.box.json) {
        json out = {{"interface", device.name}, {"found", found},
                    {"status", s.status},       {"status_bits", status_bits_json(s.status)},
                    {"holder", s.holder},       {"holder_mac", s.holder_mac},
                    {"box_mac", s.box_mac},     {"description", s.description}};
        if (!device.serial.empty())
            out["serial"] = device.serial;
        print_json(out);
    } else {
        printf("interface   %s%s\n", device.name.c_str(), found ? "" : " (unknown to the box)");
        if (!device.serial.empty())
            printf("serial      %s\n", device.serial.c_str());
        printf("status      %s\n", bits_text(s.status).c_str());
        printf("held by     %s", holder_text(s.holder).c_str());
        if (s.holder != "0.0.0.0")
            printf(" (%s)", s.holder_mac.c_str());
        printf("\nbox MAC     %s\ndescription %s\n", s.box_mac.c_str(), s.description.c_str());
    }
    return found ? EXIT_OK : EXIT_REFUSED;
}

int run_ports(const box_options &a) {
    auto names = dyp::decode_port_names(
        dyp::transfer_read(a.box(), "GET SCANNER PORT_NAME", {}, a.transfer()));
    if (a.json) {
        print_json(names);
    } else {
        printf("%zu interface(s)\n", names.size());
        for (const auto &n : names)
            printf("  %s\n", n.c_str());
    }
    return EXIT_OK;
}

struct port_name_args {
    box_options box;
    std::string vid, pid, location;
};

int run_port_name(const port_name_args &a) {
    auto name = dyp::decode_usb_port_name(dyp::transfer_read(
        a.box.box(), "GET USB_PORT_NAME",
        dyp::encode_usb_port_query(hex16_value(a.vid), hex16_value(a.pid), a.location),
        a.box.transfer()));
    if (a.box.json)
        print_json({{"found", !name.empty()}, {"name", name.empty() ? json() : json(name)}});
    else
        std::cout << (name.empty() ? "no such device" : name) << "\n";
    return name.empty() ? EXIT_REFUSED : EXIT_OK;
}

} // namespace

void add_device_argument(CLI::App &cmd, std::string &device) {
    cmd.add_option("DEVICE", device,
                   "interface name (scanner2), serial:TEXT or usb:VVVV:PPPP (hex ids)")
        ->type_name("")
        ->required();
}

void add_device_commands(CLI::App &app, command_runner &run) {
    auto d = std::make_shared<devices_args>();
    auto *devices = app.add_subcommand("devices", "list the devices a box shares");
    add_box_options(*devices, d->box);
    devices->add_flag("--ex", d->ex, "the extended list, with serial numbers");
    devices->callback([d, &run] { run = [d] { return run_devices(*d); }; });

    auto s = std::make_shared<status_args>();
    auto *status = app.add_subcommand("status", "one device's state and holder");
    add_box_options(*status, s->box);
    add_device_argument(*status, s->device);
    status->callback([s, &run] { run = [s] { return run_status(*s); }; });

    auto p = std::make_shared<box_options>();
    auto *ports = app.add_subcommand("ports", "the names of the interfaces a box shares");
    add_box_options(*ports, *p);
    ports->callback([p, &run] { run = [p] { return run_ports(*p); }; });

    auto n = std::make_shared<port_name_args>();
    auto *port_name =
        app.add_subcommand("port-name", "the interface name of a device given by ids and location");
    add_box_options(*port_name, n->box);
    port_name->add_option("--vid", n->vid, "vendor id, hexadecimal (1f3a or 0x1f3a)")
        ->type_name("V")
        ->required()
        ->check(hex_id);
    port_name->add_option("--pid", n->pid, "product id, hexadecimal")
        ->type_name("P")
        ->required()
        ->check(hex_id);
    port_name->add_option("--location", n->location, "USB location text, e.g. H112")
        ->type_name("L")
        ->required()
        ->check(CLI::Validator(
            [](std::string &text) {
                return text.size() <= 16 ? std::string() : "location longer than 16 characters";
            },
            ""));
    port_name->callback([n, &run] { run = [n] { return run_port_name(*n); }; });
}

} // namespace dypctl

// Prints the worked examples of docs/protocol.md: every request is built by
// the client library, every reply is laid out by hand as a box sends it and
// then decoded by the library, so a dump that the library would reject
// cannot reach the documentation.
#include <arpa/inet.h>
#include <cstring>
#include <iostream>

#include "dypclient.h"

using dyp::bytes;

namespace {

void put16(bytes &b, uint16_t v) {
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
}
void append(bytes &b, const bytes &more) {
    b.insert(b.end(), more.begin(), more.end());
}
void append_text(bytes &b, const std::string &s) {
    b.insert(b.end(), s.begin(), s.end());
    b.push_back(0);
}
bytes reply(uint16_t type, uint16_t status, uint16_t offset, const bytes &data) {
    bytes b;
    put16(b, type);
    put16(b, status);
    put16(b, offset);
    put16(b, uint16_t(data.size()));
    append(b, data);
    return b;
}
bytes end_reply(uint16_t status) {
    return reply(3, status, 0, {});
}

void show(const char *title, const bytes &b) {
    std::cout << "### " << title << " (" << b.size() << " bytes)\n\n```\n"
              << dyp::hexdump(b) << "```\n\n";
}
void start_read(const std::string &name, const bytes &data = {}) {
    show(("START \"" + name + "\"").c_str(),
         dyp::encode_request(dyp::make_request(1, name, 0, 512, data)));
}
void check_reply(const bytes &r) {
    auto d = dyp::decode_response(r.data(), r.size());
    if (d.data.size() != d.length)
        throw std::logic_error("example reply with a wrong length");
}

bytes mac(uint8_t last) {
    return {0x02, 0x00, 0x5e, 0x00, 0x53, last};
}
bytes ip(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    return {a, b, c, d};
}

bytes device_entry(const std::string &name, const std::string &desc, const bytes &holder,
                   uint16_t status, uint16_t vid, uint16_t pid, const std::string &loc,
                   uint8_t aux1, const std::string *serial) {
    bytes b;
    append_text(b, name);
    append_text(b, desc);
    append(b, holder);
    put16(b, status);
    if (serial)
        put16(b, 0);
    put16(b, vid);
    put16(b, pid);
    bytes l(16, 0);
    memcpy(l.data(), loc.data(), loc.size());
    append(b, l);
    b.push_back(aux1);
    b.push_back(0);
    if (serial) {
        bytes s(64, 0);
        memcpy(s.data(), serial->data(), serial->size());
        append(b, s);
    }
    b.insert(b.end(), 4, 0);
    return b;
}

} // namespace

int main() {
    std::cout << "## Discovery\n\n";
    show("advertise request", dyp::encode_advertise_request());
    bytes adv(164, 0);
    adv[1] = 2;
    adv[2] = 0x95;
    adv[3] = 0x06;
    memcpy(&adv[36], "DemoScanBox", 11);
    memcpy(&adv[56], mac(0x0a).data(), 6);
    adv[65] = 1;
    memcpy(&adv[66], ip(192, 0, 2, 10).data(), 4);
    memcpy(&adv[72], "Ver 2.2.0", 9);
    adv[82] = 0x80;
    adv[83] = 0x83;
    memcpy(&adv[84], "Northwind Imaging DocuFeed 410", 30);
    memcpy(&adv[116], "demobox", 7);
    (void)dyp::decode_advertise_reply(adv.data(), adv.size());
    show("advertise reply", adv);

    std::cout << "## GET USB_DEVICE_LIST_EX\n\n";
    start_read("GET USB_DEVICE_LIST_EX");
    std::string serial = "NW410A00017";
    bytes list = {1};
    append(list, device_entry("scanner1", "Northwind Imaging DocuFeed 410", ip(192, 0, 2, 20),
                              0x8083, 0x1f3a, 0x0410, "H112", 1, &serial));
    (void)dyp::decode_device_list(list, true);
    bytes r = reply(1, 0, 0, list);
    check_reply(r);
    show("START reply (one window, status 0: nothing more)", r);
    show("END", dyp::encode_request(dyp::make_request(3)));
    show("END reply", end_reply(0));

    std::cout << "## A result longer than one window\n\n";
    bytes second = dyp::encode_request(dyp::make_request(2, "", 512, 512));
    show("DATA at offset 512", second);

    std::cout << "## GET SCANNER_STATUS\n\n";
    start_read("GET SCANNER_STATUS:scanner1");
    bytes st;
    put16(st, 0x8083);
    append(st, ip(192, 0, 2, 20));
    append(st, mac(0x14));
    append(st, mac(0x0a));
    append_text(st, "Northwind Imaging DocuFeed 410");
    (void)dyp::decode_scanner_status(st);
    show("START reply", reply(1, 0, 0, st));

    std::cout << "## GET SCANNER PORT_NAME\n\n";
    start_read("GET SCANNER PORT_NAME");
    bytes names = {3};
    for (const char *n : {"scanner1", "scanner2", "scanner3"})
        append_text(names, n);
    (void)dyp::decode_port_names(names);
    show("START reply", reply(1, 0, 0, names));

    std::cout << "## GET USB_PORT_NAME\n\n";
    start_read("GET USB_PORT_NAME", dyp::encode_usb_port_query(0x1f3a, 0x0410, "H112"));
    bytes found = {1};
    append_text(found, "scanner1");
    (void)dyp::decode_usb_port_name(found);
    show("START reply", reply(1, 0, 0, found));

    std::cout << "## EXEC SCANNER CONNECT\n\n";
    dyp::connect_params p;
    memcpy(p.mac, mac(0x14).data(), 6);
    inet_pton(AF_INET, "192.0.2.20", &p.ip);
    p.ifname = "scanner1";
    p.port = 0;
    p.options = 0;
    show("START", dyp::encode_request(
                      dyp::make_request(1, dyp::encode_connect_name("EXEC SCANNER CONNECT", p))));
    bytes ok = {'O', 'K', 0};
    (void)dyp::decode_ok_ng(ok);
    show("START reply", reply(1, 0, 0, ok));

    std::cout << "## EXEC SCANNER DISCONNECT\n\n";
    show("START", dyp::encode_request(dyp::make_request(
                      1, dyp::encode_connect_name("EXEC SCANNER DISCONNECT", p))));

    std::cout << "## SKA keep-alive\n\n";
    show("keep-alive naming scanner1 (the echo is identical)", dyp::encode_ska({"scanner1"}));
    return 0;
}

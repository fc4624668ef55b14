#include "inventory.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <thread>

namespace dyp {

namespace {

void read_one(box_inventory &entry, const transfer_options &transfer) {
    try {
        in_addr address{};
        if (inet_pton(AF_INET, entry.box.address.c_str(), &address) != 1)
            throw local_error("bad box address \"" + entry.box.address + "\"");
        endpoint box = make_endpoint(address, entry.box.port);
        entry.devices =
            decode_device_list(transfer_read(box, "GET USB_DEVICE_LIST_EX", {}, transfer), true);
        entry.listed = true;
    } catch (const std::exception &e) {
        entry.error = e.what();
    }
}

} // namespace

void read_inventory_lists(std::vector<box_inventory> &out, const transfer_options &transfer,
                          unsigned parallel) {
    // Each worker takes the next box not yet taken; every entry is written
    // by exactly one worker, and the join publishes them all.
    std::atomic<size_t> next = 0;
    auto work = [&] {
        for (size_t i; (i = next++) < out.size();)
            read_one(out[i], transfer);
    };
    size_t workers = std::min<size_t>(std::max(1u, parallel), out.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < workers; ++i)
        threads.emplace_back(work);
    for (auto &t : threads)
        t.join();
}

inventory take_inventory(const inventory_options &opt) {
    inventory result;
    for (auto &box : discover(opt.discovery, result.problems))
        result.boxes.push_back({std::move(box), false, {}, {}});
    read_inventory_lists(result.boxes, opt.transfer, opt.parallel);
    return result;
}

} // namespace dyp

// The bind interface list ("eth0,!br1,*") from arbitrary text: parsed into
// an endpoint, replaced by a second list as a reload would, resolved
// against the interfaces of a private network, and asked for verdicts.
#include <string>

#include "fuzz_support.h"
#include "lib/alloc.h"
#include "transport/socket.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool ready = (fuzz_enter_private_network(), fuzz_silence_log(), true);
    (void)ready;
    // The daemon gets the list as a C string: it ends at the first NUL.
    const std::string text(fuzz_text(data, size));
    const std::string second_half = text.substr(text.size() / 2);
    dypd_endpoint_header endpoint{};
    endpoint.fd = -1;
    (void)dypd_set_bind_interface(&endpoint, second_half.c_str());
    (void)dypd_set_bind_interface(&endpoint, text.c_str());
    (void)dypd_refresh_interface_index(&endpoint);
    for (int ifindex : {0, 1, 2})
        (void)dypd_bind_verdict(&endpoint, ifindex);
    dyp_free(endpoint.bind_list);
    return 0;
}

// The host side: every decoder of the client library over the same bytes.
// A decoder may refuse with dyp::malformed_reply; any other exception, and
// any memory error, is a finding. The decoder list is all this file knows
// of the library, so moving the decoders elsewhere only changes it here.
#include "dypclient.h"

namespace {

template <typename Decode> void refused_or_decoded(Decode decode) {
    try {
        (void)decode();
    } catch (const dyp::malformed_reply &) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const dyp::bytes result(data, data + size);
    refused_or_decoded([&] { return dyp::decode_response(data, size); });
    refused_or_decoded([&] { return dyp::decode_advertise_reply(data, size); });
    refused_or_decoded([&] { return dyp::decode_device_list(result, false); });
    refused_or_decoded([&] { return dyp::decode_device_list(result, true); });
    refused_or_decoded([&] { return dyp::decode_scanner_status(result); });
    refused_or_decoded([&] { return dyp::decode_port_names(result); });
    refused_or_decoded([&] { return dyp::decode_usb_port_name(result); });
    refused_or_decoded([&] { return dyp::decode_ok_ng(result); });
    if (size >= 2)
        refused_or_decoded(
            [&] { return dyp::status_bits(static_cast<uint16_t>(data[0] << 8 | data[1])); });
    return 0;
}

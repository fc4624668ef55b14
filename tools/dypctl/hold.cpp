#include "hold.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>

#include "ds/ska.h"

namespace dyp {

namespace {

constexpr char FREE_HOLDER[] = "0.0.0.0";
// Bit of a status word that says the box knows the interface.
constexpr uint16_t STATUS_FOUND = 0x0001;

using clock = std::chrono::steady_clock;

enum class outcome { held, busy, missing, silent };

class holder_loop {
  public:
    holder_loop(const endpoint &box, const device_selector &selector, const hold_options &opt,
                const hold_reporter &report, const hold_waiter &wait)
        : box_(box), ska_(make_endpoint(box.addr.sin_addr, SKA_PORT)), selector_(selector),
          opt_(opt), report_(report), wait_(wait) {}

    void run() {
        int pause = opt_.retry_min_ms;
        for (;;) {
            if (attempt() == outcome::held) {
                pause = opt_.retry_min_ms;
                if (!keep())
                    return release();
            } else {
                if (wait_(pause))
                    return;
                pause = std::min(pause * 2, opt_.retry_max_ms);
            }
        }
    }

  private:
    void emit(const std::string &event, const std::string &holder, const std::string &detail) {
        report_({event, device_.name, device_.serial, holder, detail});
    }

    // Reports a state that differs from the last one reported.
    void settle(const std::string &event, const std::string &holder, const std::string &detail) {
        if (event == last_event_ && holder == last_holder_)
            return;
        last_event_ = event;
        last_holder_ = holder;
        emit(event, holder, detail);
    }

    scanner_status read_status() {
        return decode_scanner_status(
            transfer_read(box_, "GET SCANNER_STATUS:" + device_.name, {}, opt_.transfer));
    }

    std::string connect_name(const char *command) {
        connect_params p;
        local_identity(box_, p.ip, p.mac);
        self_ = p.ip;
        if (opt_.mac)
            std::copy(opt_.mac->begin(), opt_.mac->end(), p.mac);
        p.ifname = device_.name;
        p.port = opt_.port;
        p.options = opt_.options;
        return encode_connect_name(command, p);
    }

    std::string self_text() const {
        char s[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &self_, s, sizeof s);
        return s;
    }

    // Resolves the selector, looks at the device and connects when it is
    // free; a device held by another host is left alone.
    outcome attempt() {
        try {
            device_ = resolve_device(box_, selector_, opt_.transfer);
            scanner_status status = read_status();
            if (silent_) {
                silent_ = false;
                emit("box-back", "", "the box answers again");
            }
            if (!(status.status & STATUS_FOUND)) {
                settle("missing", "", "the box does not know " + device_.name);
                return outcome::missing;
            }
            std::string name = connect_name("EXEC SCANNER CONNECT");
            if (status.holder != FREE_HOLDER && status.holder != self_text()) {
                settle("held-by-another", status.holder, "held by " + status.holder);
                return outcome::busy;
            }
            if (!decode_ok_ng(transfer_exec(box_, name, opt_.transfer))) {
                status = read_status();
                settle("held-by-another", status.holder, "the box refused the connect");
                return outcome::busy;
            }
        } catch (const selection_error &e) {
            if (silent_) {
                silent_ = false;
                emit("box-back", "", "the box answers again");
            }
            device_ = {};
            settle("missing", "", e.what());
            return outcome::missing;
        } catch (const timeout_error &e) {
            if (!silent_ && last_event_ != "lost")
                settle("lost", "", e.what());
            silent_ = true;
            return outcome::silent;
        } catch (const std::runtime_error &e) { // a malformed reply or a local failure
            settle("lost", "", e.what());
            return outcome::silent;
        }
        last_event_ = ever_held_ ? "reconnected" : "connected";
        last_holder_ = self_text();
        emit(last_event_, last_holder_, "connected to " + box_.address());
        ever_held_ = true;
        return outcome::held;
    }

    // Keeps the device alive until it is lost (true) or the hold must end
    // (false).
    bool keep() {
        auto next_check = clock::now() + std::chrono::milliseconds(opt_.check_ms);
        for (;;) {
            if (wait_(opt_.interval_ms))
                return false;
            try {
                keepalive_once(ska_, {device_.name}, opt_.transfer);
                if (clock::now() < next_check)
                    continue;
                next_check = clock::now() + std::chrono::milliseconds(opt_.check_ms);
                scanner_status status = read_status();
                if (!(status.status & STATUS_FOUND)) {
                    settle("lost", "", "the box no longer knows " + device_.name);
                    return true;
                }
                if (status.holder != self_text()) {
                    settle("lost", status.holder == FREE_HOLDER ? "" : status.holder,
                           status.holder == FREE_HOLDER ? "the box released the device"
                                                        : "now held by " + status.holder);
                    return true;
                }
            } catch (const timeout_error &e) {
                silent_ = true;
                settle("lost", "", e.what());
                return true;
            } catch (const std::runtime_error &e) { // a malformed reply or a local failure
                settle("lost", "", e.what());
                return true;
            }
        }
    }

    // Gives the device back; a box that does not answer any more has
    // nothing to give back to, and the hold ends all the same.
    void release() {
        std::string detail = "released";
        try {
            bool ok = decode_ok_ng(
                transfer_exec(box_, connect_name("EXEC SCANNER DISCONNECT"), opt_.transfer));
            detail = ok ? "disconnected" : "the box refused the disconnect";
        } catch (const std::runtime_error &e) {
            detail = std::string("disconnect failed: ") + e.what();
        }
        emit("released", "", detail);
    }

    endpoint box_;
    endpoint ska_;
    device_selector selector_;
    const hold_options &opt_;
    const hold_reporter &report_;
    const hold_waiter &wait_;
    usb_device device_;
    in_addr self_{};
    bool silent_ = false;
    bool ever_held_ = false;
    std::string last_event_;
    std::string last_holder_;
};

} // namespace

void hold(const endpoint &box, const device_selector &selector, const hold_options &opt,
          const hold_reporter &report, const hold_waiter &wait) {
    holder_loop(box, selector, opt, report, wait).run();
}

} // namespace dyp

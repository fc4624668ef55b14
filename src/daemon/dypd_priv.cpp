#include "daemon/dypd_priv.h"

#include <algorithm>
#include <cerrno>

#include "ds/ds.h"
#include "lib/alloc.h"
#include "lib/log.h"
#include "lib/tqstdio.h"
#include "protocol/command.h"
#include "protocol/handler.h"
#include "protocol/reply_queue.h"

volatile sig_atomic_t dypd_sighap;

namespace {

void add_descriptor(int fd, fd_set *readset, int *highest) {
    if (fd == -1)
        return;
    FD_SET(fd, readset);
    *highest = std::max(*highest, fd);
}

// Builds the read set of one pass and its highest descriptor; false when
// the endpoint array has a hole.
bool fill_read_set(dyp_daemon_context *daemon, fd_set *readset, int *highest) {
    FD_ZERO(readset);
    *highest = dypd_ds_subproto_fd_set(readset);
    add_descriptor(daemon->spare_fd, readset, highest);
    add_descriptor(daemon->header.fd, readset, highest);
    for (int32_t i = 0; i < daemon->endpoint_count; ++i) {
        if (daemon->endpoints[i] == nullptr)
            return false;
        add_descriptor(daemon->endpoints[i]->header.fd, readset, highest);
    }
    return true;
}

bool readable(int fd, const fd_set *readset) {
    return fd != -1 && FD_ISSET(fd, readset);
}

void serve_readable(dyp_daemon_context *daemon, const fd_set *readset) {
    // The count is read again after every request: a handler may change it.
    for (int32_t i = 0; i < daemon->endpoint_count; ++i) {
        dypd_udp_port *endpoint = daemon->endpoints[i];
        if (endpoint != nullptr && readable(endpoint->header.fd, readset))
            dypd_dyp_handler(daemon, endpoint);
    }
    if (readable(daemon->header.fd, readset))
        dypd_dyp_handler(daemon, nullptr);
}

// The device server's limit, shortened to the earliest queued reply; -1
// (no limit) only when both are without one.
int wait_limit_ms(int ds_timeout_ms) {
    int queue_ms = dypd_reply_queue_wait_ms();
    if (ds_timeout_ms == -1 || queue_ms == -1)
        return std::max(ds_timeout_ms, queue_ms);
    return std::min(ds_timeout_ms, queue_ms);
}

} // namespace

int dypd_run(dyp_daemon_context *daemon, dypd_settings *settings) {
    int timeout_ms = dypd_ds_set_timeout();
    if (daemon == nullptr)
        return -EINVAL;
    for (;;) {
        if (daemon->stop != 0)
            return 0;
        fd_set readset;
        int highest = -1;
        if (!fill_read_set(daemon, &readset, &highest))
            return -1;
        if (dypd_sighap != 0) {
            dypd_sighap = 0;
            // Replies drawn up before the reload are dropped; the hosts repeat.
            dypd_reply_queue_clear();
            // A reload that fails keeps whatever it had already applied;
            // only a refused file is worth telling the operator about.
            if (dypd_configfile_load(settings) == -EFBIG)
                dyp_log(LOG_ERR, dypd_config_refused, settings->config_path,
                        static_cast<unsigned>(TQ_CONFIG_MAX_SIZE));
        }
        int wait_ms = wait_limit_ms(timeout_ms);
        int ready = dypd_select(highest + 1, &readset, nullptr, wait_ms, 1);
        dypd_reply_queue_send_due();
        if (ready < 0) {
            dyp_log(LOG_ERR, "failed to select a fd (err: %d)", ready);
            continue;
        }
        if (ready == 0) {
            // A wait cut short for a queued reply is not the device server's.
            if (wait_ms == timeout_ms)
                dypd_ds_timeout_handler();
            continue;
        }
        serve_readable(daemon, &readset);
        dypd_ds_subproto_handler(daemon, &readset);
    }
}

void dypd_core_cleanup(dypd_udp_port *endpoint) {
    if (endpoint == nullptr)
        return;
    dypd_session_cleanup(&endpoint->session);
    dyp_free(endpoint->recv_buffer);
    endpoint->recv_buffer = nullptr;
    dyp_free(endpoint->send_buffer);
    endpoint->send_buffer = nullptr;
    dypd_release_socket(&endpoint->header);
    // The port and bind lists die with the endpoint that alone refers to them.
    dyp_free(endpoint->header.ports);
    dyp_free(endpoint->header.bind_list);
    dyp_free(endpoint);
}

void dypd_release_endpoints(dyp_daemon_context *daemon) {
    // Count and array pointer stay as they are: this runs once, at exit.
    for (int32_t i = 0; i < daemon->endpoint_count && daemon->endpoints != nullptr; ++i)
        dypd_core_cleanup(daemon->endpoints[i]);
    dyp_free(daemon->endpoints);
}

void dypd_cleanup(dyp_daemon_context *daemon) {
    dypd_ds_cleanup();
    dypd_command_cleanup();
    // Queued replies refer to the endpoints: they go first, unsent.
    dypd_reply_queue_cleanup();
    dypd_release_endpoints(daemon);
}

void dypd_signal_handler(int signal) {
    if (signal == SIGHUP)
        dypd_sighap = 1;
}

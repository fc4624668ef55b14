// A scriptable device-server module for the device-server tests, and the
// scaffolding and headers those tests share.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <syslog.h>

#include "daemon/dypd_priv.h"
#include "ds/commands.h"
#include "ds/module.h"
#include "lib/alloc.h"
#include "protocol/session.h"
#include "support/log_capture.h"
#include "support/netns.h"

using namespace std::string_literals;

struct fake_interface {
    std::string name;
    int info_result = 0; // get_interface_info's answer for this name
    std::string description = "Scanner";
    uint16_t vendor_id = 0x04b8;
    std::string location = "H12";
    uint8_t status_flag = 0;
    bool raw_description = false; // all 256 bytes 'D', no NUL
    // Fixed: holder 192.0.2.7, MAC 02:00:00:00:00:07, product 0x0142, aux 5a a5.
};

// Names it does not know are answered with -ENODEV.
class fake_module {
  public:
    explicit fake_module(const char *name);
    ~fake_module();
    fake_module(const fake_module &) = delete;
    // The record itself: tests clear operation slots through it.
    dypd_ds_module *get() { return &module_; }

    std::vector<fake_interface> interfaces;
    std::optional<int> names_result; // instead of the count; names still written
    int connect_result = 0, disconnect_result = 0;
    // What the module saw.
    std::vector<dypd_ds_connect_param_ex> connect_ex_calls;
    std::vector<dypd_ds_connect_param> connect_calls, disconnect_calls;
    std::vector<std::vector<std::string>> keep_alive_calls;
    std::vector<uint16_t> names_asked; // list->count of every names call
    int info_calls = 0;

  private:
    dypd_ds_module module_;
};

// The module list holding `modules` in order, for the scope's life.
struct module_list_scope {
    explicit module_list_scope(const std::vector<fake_module *> &modules = {}) {
        dypd_ds_modlist = tqlist_create<dypd_ds_module>();
        for (fake_module *fake : modules)
            (void)dypd_ds_register_module(fake->get());
    }
    ~module_list_scope() {
        tqlist_dispose(dypd_ds_modlist);
        dypd_ds_modlist = nullptr;
    }
};

// A test-owned box identity (host name "node1") in the daemon context.
struct identity_scope {
    explicit identity_scope(uint16_t status = 0) {
        identity.status = status;
        std::strcpy(identity.host_name, "node1");
        dyp_daemon.header.settings = &identity;
    }
    ~identity_scope() { dyp_daemon.header.settings = saved; }
    dypd_identity identity{};
    dypd_identity *saved = dyp_daemon.header.settings;
};

// Runs `handler` on a START request of `name` (its field's last byte forced to
// NUL) and `data` with `capacity` bytes of output; the reply (none on failure).
std::string run_command(dypcmd_handler handler, dypd_session *session, const std::string &name,
                        const std::string &data = {}, uint32_t capacity = 65536);

// How often a module's failure was logged as an error: `what`, then " (err: <err>)".
inline int module_errors(const log_capture &log, const std::string &what, int err) {
    return log.count(LOG_ERR, what + " (err: " + std::to_string(err) + ")");
}

// SKA's fixed port is surely free in a network namespace of the test's own.
class ska_namespace_test : public ::testing::Test {
  protected:
    void SetUp() override {
        DYP_REQUIRE_ROOT();
        ns_.emplace("ska", "true");
        ASSERT_TRUE(ns_->ok());
    }
    void TearDown() override { ns_.reset(); }

  private:
    std::optional<entered_netns> ns_;
};

// A scriptable device-server module for the command and walk tests, and
// the scaffolding those tests share (module list, box identity, request,
// sysfs tree, SKA namespace).
#pragma once

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <syslog.h>

#include "ds/module.h"
#include "protocol/identity.h"
#include "support/netns.h"

struct fake_interface {
    std::string name;
    int info_result = 0; // returned by get_interface_info for this name
    std::string description = "Scanner";
    uint8_t ipv4[4] = {192, 0, 2, 7};
    uint8_t host_mac[6] = {2, 0, 0, 0, 0, 7};
    uint16_t vendor_id = 0x04b8;
    uint16_t product_id = 0x0142;
    std::string location = "H12";
    uint8_t aux1 = 0;
    uint8_t aux2 = 0;
    uint8_t status_flag = 0;
    bool raw_description = false; // fill all 256 bytes, no NUL
};

class fake_module {
  public:
    explicit fake_module(const char *name);
    ~fake_module();
    fake_module(const fake_module &) = delete;
    fake_module &operator=(const fake_module &) = delete;

    // The record itself: tests clear operation slots through it.
    dypd_ds_module *get() { return &module_; }

    std::vector<fake_interface> interfaces;
    bool num_overridden = false;
    int num_result = 0; // used when num_overridden
    bool names_overridden = false;
    int names_result = 0; // used when names_overridden (names still written)
    int unknown_info_result = -ENODEV;
    int connect_result = 0;
    int disconnect_result = 0;

    // What the module saw.
    std::vector<dypd_ds_connect_param_ex> connect_ex_calls;
    std::vector<dypd_ds_connect_param> connect_calls;
    std::vector<dypd_ds_connect_param> disconnect_calls;
    std::vector<std::vector<std::string>> keep_alive_calls;
    std::vector<uint16_t> names_asked; // list->count of every names call
    int info_calls = 0;

  private:
    dypd_ds_module module_;
};

// Creates the module list for the test's life and registers `modules` in
// order; disposes of the list at the end.
class module_list_scope {
  public:
    explicit module_list_scope(std::vector<fake_module *> modules = {});
    ~module_list_scope();
    module_list_scope(const module_list_scope &) = delete;
    module_list_scope &operator=(const module_list_scope &) = delete;
};

// Points the daemon context at a test-owned identity with `status`.
class identity_scope {
  public:
    explicit identity_scope(uint16_t status = 0, const char *product = "Box",
                            const char *host = "host");
    ~identity_scope();
    identity_scope(const identity_scope &) = delete;
    identity_scope &operator=(const identity_scope &) = delete;
    dypd_identity identity{};

  private:
    dypd_identity *saved_;
};

// A whole 510-byte request packet: type START, `name` (may hold binary
// bytes) in the name field with byte 83 forced to NUL, `data` at 88.
std::vector<uint8_t> make_request(const std::vector<uint8_t> &name,
                                  const std::vector<uint8_t> &data = {});
std::vector<uint8_t> text_bytes(const std::string &text);

// A private sysfs device tree the serial lookup reads, removed at the end.
class sysfs_scope {
  public:
    sysfs_scope();
    ~sysfs_scope();
    sysfs_scope(const sysfs_scope &) = delete;
    sysfs_scope &operator=(const sysfs_scope &) = delete;
    // Writes `content` to <root>/<device>/serial.
    void put_serial(const std::string &device, const std::string &content);

  private:
    std::string root_;
};

// SKA binds a fixed port: each test runs in a network namespace of its own
// (named by pid) where the port is surely free. Skips when not root.
class ska_namespace_test : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    // A socket bound to the SKA port on any address; the caller closes it.
    static int hold_ska_port();
    // Sends `packet` from `client` to the SKA port on loopback.
    static void send_to_ska(int client, const std::vector<uint8_t> &packet);

  private:
    std::unique_ptr<test_netns> ns_;
    std::unique_ptr<netns_scope> inside_;
};

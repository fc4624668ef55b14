// What the configuration loader leaves unused or shortens, told to a
// listener: dypd-config reports it, the daemon never asks.
#pragma once

#include "daemon/dypd_priv.h"

// The keys the loader reads, all outside any section.
constexpr int DYPD_CONFIG_KEY_COUNT = 5;
extern const char *const dypd_config_keys[DYPD_CONFIG_KEY_COUNT];

enum class dypd_config_note {
    cut,          // a name longer than its field keeps its first 15 characters
    not_a_number, // a port piece or ds_port with text after the number, or none
};

struct dypd_config_listener {
    void *context;
    // `value` is the piece or value as read; valid during the call only.
    void (*noted)(void *context, const char *key, const char *value, dypd_config_note what);
};

// dypd_configfile_load, telling `listener` what it notes on the way.
int dypd_configfile_load_noting(dypd_settings *settings, const dypd_config_listener *listener);

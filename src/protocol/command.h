// The command registry: names carried by START packets mapped, by prefix
// in registration order, to command entries.
#pragma once

#include <cstdint>

#include "lib/list.h"

struct dypd_session;

constexpr int32_t DYPD_XFER_READ = 0;
constexpr int32_t DYPD_XFER_WRITE = 1;
constexpr int32_t DYPD_XFER_EXEC = 2;

// (session, the whole request packet of DYP_REQUEST_MAX bytes, output
// buffer, size) -> bytes written or a negative errno value.
using dypd_command_handler = int32_t (*)(dypd_session *session, const uint8_t *request,
                                         uint8_t *buffer, uint32_t size);

struct dypd_command {
    char name[80];
    int32_t mode;
    dypd_command_handler handler;
};

// The registry does not own the entries: tables stay alive while registered.
extern tqlist<const dypd_command> *dypd_cmdlist;

int dypd_command_init();
void dypd_command_cleanup();
const dypd_command *dypd_get_command(const char *name);
int dypd_register_command(const dypd_command *cmd);
int dypd_register_commands(const dypd_command *table, int count);
void dypd_unregister_command(const dypd_command *cmd);
void dypd_unregister_commands(const dypd_command *table, int count);

#include "protocol/command.h"

#include <cerrno>
#include <cstring>

#include "lib/check.h"
#include "lib/log.h"

tqlist<const dypd_command> *dypd_cmdlist;

namespace {
// A registered name matches when it is a prefix of the searched name, so a
// name field carrying ':' and arguments still finds its command.
bool name_matches(const dypd_command *registered, const char *name) {
    return std::strncmp(registered->name, name, std::strlen(registered->name)) == 0;
}

// The first node, in registration order, whose command matches `name`;
// the list head when none does.
tqlist_node<const dypd_command> *find_node(const char *name) {
    tqlist_node<const dypd_command> *head = tqlist_head(dypd_cmdlist);
    for (tqlist_node<const dypd_command> *node = head->next; node != head; node = node->next) {
        if (name_matches(node->item, name))
            return node;
    }
    return head;
}
} // namespace

int dypd_command_init() {
    dypd_cmdlist = tqlist_create<const dypd_command>();
    return dypd_cmdlist == nullptr ? -ENOMEM : 0;
}

void dypd_command_cleanup() {
    if (dypd_cmdlist == nullptr)
        return;
    tqlist_dispose(dypd_cmdlist);
    dypd_cmdlist = nullptr;
}

const dypd_command *dypd_get_command(const char *name) {
    DYP_CHECK_NOT_NULL(name, "command");
    // The head's item is null, which is exactly "not found".
    return find_node(name)->item;
}

int dypd_register_command(const dypd_command *cmd) {
    DYP_CHECK_NOT_NULL(cmd, "command");
    if (tqlist_append(dypd_cmdlist, cmd) == nullptr)
        return -ENOMEM;
    dyp_log(LOG_INFO, "registered command %s", cmd->name);
    return 0;
}

int dypd_register_commands(const dypd_command *table, int count) {
    for (int i = 0; i < count; ++i) {
        int err = dypd_register_command(table + i);
        if (err < 0) {
            // Leave the list as it was before the call.
            dypd_unregister_commands(table, i);
            return err;
        }
    }
    return 0;
}

void dypd_unregister_command(const dypd_command *cmd) {
    DYP_CHECK_NOT_NULL(cmd, "command");
    tqlist_node<const dypd_command> *node = find_node(cmd->name);
    if (node == tqlist_head(dypd_cmdlist))
        return;
    (void)tqlist_erase(dypd_cmdlist, node);
    dyp_log(LOG_INFO, "unregistered command %s", cmd->name);
}

void dypd_unregister_commands(const dypd_command *table, int count) {
    for (int i = 0; i < count; ++i)
        dypd_unregister_command(table + i);
}

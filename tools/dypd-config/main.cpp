// dypd-config: reads a configuration file with the daemon's own loader,
// prints the settings the daemon would start with, and warns about every
// value the loader leaves unused or shortens. Built like the daemon (libc
// only), so that it runs on the box itself.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <getopt.h>
#include <net/if.h>
#include <unistd.h>

#include "daemon/config_notes.h"
#include "daemon/dypd_priv.h"
#include "lib/alloc.h"
#include "lib/cfgctrl.h"
#include "transport/socket.h"

namespace {

constexpr char PROGRAM[] = "dypd-config";
constexpr int EXIT_CLEAN = 0;
constexpr int EXIT_WARNINGS = 1;
constexpr int EXIT_REFUSED = 2; // the daemon would not start, or bad usage
// An index no interface has: stands for any interface that appears later.
constexpr int ANY_OTHER_INTERFACE = 0x7fffffff;

const char USAGE[] = "Usage: dypd-config [-f config_file] [-i ifname_list]\n"
                     "Prints the settings dypd would start with and warns about every\n"
                     "value of the file that dypd ignores or cuts.\n"
                     "Exit status: 0 nothing to report, 1 warnings, 2 dypd would not start\n"
                     "(or a usage error).\n";

struct report {
    int warnings = 0;
    int errors = 0;
};

// One line on standard error, "dypd-config: warning: ..." or "...: error: ...".
__attribute__((format(printf, 3, 4))) void say(int &count, const char *kind, const char *format,
                                               ...) {
    fprintf(stderr, "%s: %s: ", PROGRAM, kind);
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
    ++count;
}
#define warn(out, ...) say((out).warnings, "warning", __VA_ARGS__)
#define fail(out, ...) say((out).errors, "error", __VA_ARGS__)

bool known_key(const char *key) {
    for (const char *known : dypd_config_keys)
        if (strcmp(key, known) == 0)
            return true;
    return false;
}

// A key that starts with '#' or ';' is how people write a comment; the
// reader has no comment syntax, so such a line is simply a pair nobody asks
// for, which is what the writer meant.
bool commented_out(const char *key) {
    return key[0] == '#' || key[0] == ';';
}

void loader_noted(void *context, const char *key, const char *value, dypd_config_note what) {
    report &out = *static_cast<report *>(context);
    if (what == dypd_config_note::cut) {
        char kept[16] = {};
        memcpy(kept, value, sizeof kept - 1);
        warn(out, "%s \"%s\" is cut to its first 15 characters: \"%s\"", key, value, kept);
    } else if (strcmp(key, "portnum") == 0) {
        warn(out, "portnum piece \"%s\" is not a number: the whole portnum line and ds_port are "
                  "ignored", value);
    } else {
        warn(out, "%s \"%s\" is not a whole number: it is ignored", key, value);
    }
}

// The pairs before the first section header: unknown keys, repeated keys
// and blanks that become part of a value.
void check_unnamed_section(const char *path, report &out) {
    tqmap<tq_cfg_pair> *pairs = nullptr;
    if (tq_cfg_get_section(path, nullptr, &pairs) < 0)
        return;
    tqlist_node<tq_cfg_pair> *head = tqlist_head(pairs->list);
    for (auto *node = head->next; node != head; node = node->next) {
        const tq_cfg_pair &pair = *node->item;
        if (commented_out(pair.key))
            continue;
        if (!known_key(pair.key)) {
            warn(out, "unknown key \"%s\" is ignored", pair.key);
            continue;
        }
        if (tqmap_find(pairs, pair.key)->item != node->item)
            warn(out, "%s is given again: only its first value counts", pair.key);
        else if (strcmp(pair.key, "portnum") != 0 && strcmp(pair.key, "ds_port") != 0 &&
                 (pair.value[0] == ' ' || pair.value[0] == '\t'))
            warn(out, "%s: the blank after '=' becomes part of the value \"%s\"", pair.key,
                 pair.value);
    }
    tq_cfg_release_section(pairs);
}

// The daemon reads keys only before the first section header.
void check_sections(const char *path, report &out) {
    tqlist<char> *names = nullptr;
    if (tq_cfg_get_section_list(path, &names) < 0)
        return;
    tqlist_node<char> *head = tqlist_head(names);
    for (auto *node = head->next; node != head; node = node->next) {
        tqmap<tq_cfg_pair> *pairs = nullptr;
        if (tq_cfg_get_section(path, node->item, &pairs) < 0)
            continue;
        tqlist_node<tq_cfg_pair> *first = tqlist_head(pairs->list);
        for (auto *pair = first->next; pair != first; pair = pair->next)
            if (!commented_out(pair->item->key))
                warn(out, "\"%s\" in section [%s] is ignored: keys are read only before the first "
                          "section header",
                     pair->item->key, node->item);
        tq_cfg_release_section(pairs);
    }
    tq_cfg_release_section_list(names);
}

void check_ports(const dypd_settings &settings, report &out) {
    bool primary_listed = false;
    for (int32_t i = 0; i < settings.port_count; ++i) {
        int32_t port = settings.ports[i];
        primary_listed = primary_listed || port == settings.primary_port;
        if (port < 1 || port > 65535) {
            warn(out, "port %d is not a UDP port: the daemon binds %d", port, port & 0xffff);
        }
    }
    if (primary_listed)
        return;
    if (settings.port_count >= 2)
        fail(out, "ds_port %d is none of the ports: dypd stops at start-up with status 234",
             settings.primary_port);
    else
        warn(out, "ds_port %d is not the one port: that port serves commands all the same",
             settings.primary_port);
}

// Asks the daemon's own bind list and verdict which interfaces of this
// machine would be answered.
void check_bind_list(const dypd_settings &settings, report &out) {
    dypd_endpoint_header endpoint{};
    endpoint.fd = -1;
    if (dypd_set_bind_interface(&endpoint, settings.bind_interfaces) < 0) {
        fail(out, "no memory to read the interface list");
        return;
    }
    for (int32_t i = 0; i < endpoint.bind_count; ++i)
        if (endpoint.bind_list[i].ifindex == DYPD_IFINDEX_UNRESOLVED)
            warn(out, "interface \"%s\" does not exist here: its entry never decides",
                 endpoint.bind_list[i].name);

    bool restricts = dypd_bind_verdict(&endpoint, ANY_OTHER_INTERFACE) < 0;
    printf("Answers on         =");
    if (struct if_nameindex *interfaces = if_nameindex()) {
        for (struct if_nameindex *it = interfaces; it->if_index != 0; ++it) {
            if (dypd_bind_verdict(&endpoint, static_cast<int>(it->if_index)) == 0)
                printf(" %s", it->if_name);
            else
                restricts = true;
        }
        if_freenameindex(interfaces);
    }
    printf("%s\n", dypd_bind_verdict(&endpoint, ANY_OTHER_INTERFACE) == 0 ? " (and any new one)"
                                                                         : "");
    if (!restricts && strcmp(settings.bind_interfaces, "*") != 0)
        warn(out, "interface list \"%s\" answers on every interface: a plain name never refuses; "
                  "end the list with !* (e.g. eth0,!*) to answer on the named ones only",
             settings.bind_interfaces);
    dyp_free(endpoint.bind_list);
}

} // namespace

int main(int argc, char **argv) {
    dypd_settings settings;
    dypd_set_defaults(&settings);
    int option;
    while ((option = getopt(argc, argv, "f:i:h")) != -1) {
        switch (option) {
        case 'f':
            settings.config_path = optarg;
            break;
        case 'i':
            settings.bind_interfaces = optarg;
            break;
        case 'h':
            fputs(USAGE, stdout);
            return EXIT_CLEAN;
        default:
            fputs(USAGE, stderr);
            return EXIT_REFUSED;
        }
    }
    if (optind != argc) {
        fputs(USAGE, stderr);
        return EXIT_REFUSED;
    }

    report out;
    const char *path = settings.config_path;
    if (path != nullptr && access(path, R_OK) < 0) {
        fprintf(stderr, "%s: cannot read %s: %s\n", PROGRAM, path, strerror(errno));
        return EXIT_REFUSED;
    }
    if (path != nullptr) {
        check_unnamed_section(path, out);
        check_sections(path, out);
    }
    dypd_config_listener listener{&out, loader_noted};
    int loaded = dypd_configfile_load_noting(&settings, &listener);
    if (loaded < 0) {
        fail(out, "the loader refuses the file (err: %d): dypd reports \"Detected invalid "
                  "configuration\" and exits 1",
             loaded);
    } else if (settings.identity.host_name[0] == '\0') {
        fail(out, "no host name: neither the file nor the system gives one; dypd exits 1");
    }
    dypd_print_settings(&settings, stdout);
    if (loaded >= 0) {
        check_ports(settings, out);
        check_bind_list(settings, out);
    }
    dypd_configfile_release(&settings);
    if (out.errors > 0)
        return EXIT_REFUSED;
    return out.warnings > 0 ? EXIT_WARNINGS : EXIT_CLEAN;
}

// The configuration file from arbitrary bytes: the daemon's loader over
// start-up defaults, and the INI reader's section calls over the same file.
#include <cstring>

#include "daemon/dypd_priv.h"
#include "fuzz_support.h"
#include "lib/alloc.h"
#include "lib/cfgctrl.h"
#include "lib/text.h"

namespace {

// The settings the daemon holds before it reads its file.
dypd_settings start_up_settings(const char *path) {
    dypd_settings settings{};
    settings.config_path = path;
    settings.bind_interfaces = network_interface_name;
    settings.wireless_interface = wireless_interface_name;
    settings.ports = default_ports;
    settings.port_count = 2;
    settings.primary_port = 19540;
    copy_text(settings.identity.product_name, "TQ Mirel 70");
    copy_text(settings.identity.host_name, "box");
    return settings;
}

// What the loader took over for good is the process's to free.
void release_loaded(dypd_settings &settings) {
    if (settings.ports != default_ports)
        dyp_free(settings.ports);
    if (settings.bind_interfaces != network_interface_name)
        tq_cfg_release_string(const_cast<char *>(settings.bind_interfaces));
}

void read_sections(const char *path) {
    tqlist<char> *names = nullptr;
    if (tq_cfg_get_section_list(path, &names) < 0)
        return;
    // The unnamed section and the first named one, whatever its name holds.
    const char *first = names->head.next != &names->head ? names->head.next->item : nullptr;
    for (const char *section : {static_cast<const char *>(nullptr), first}) {
        tqmap<tq_cfg_pair> *pairs = nullptr;
        if (tq_cfg_get_section(path, section, &pairs) == 0)
            tq_cfg_release_section(pairs);
    }
    tq_cfg_release_section_list(names);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz_memory_file file;
    fuzz_silence_log();
    file.assign(fuzz_text(data, size));
    dypd_settings settings = start_up_settings(file.path());
    (void)dypd_configfile_load(&settings);
    release_loaded(settings);
    read_sections(file.path());
    return 0;
}

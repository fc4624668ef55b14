// The driver simulator's device file from arbitrary bytes: the loader
// either fills a driver or gives its documented error. A driver it filled
// then answers the usbds module's every request, so that no value the
// file can hold crashes the simulator later either.
#include <algorithm>

#include "device_file.h"
#include "fuzz_support.h"
#include "lib/text.h"
#include "modules/usbds.h"
#include "sim_seam.h"

namespace {

constexpr uint16_t NAME_SLOTS = 8;

void ask_every_request(sim_driver &driver) {
    sim_driver_scope scope(driver);
    dypd_ds_module *module = &usbds_module;
    (void)module->get_num_interfaces(module);
    char slots[NAME_SLOTS][DYPD_DS_NAME_SLOT] = {};
    dypd_ds_name_list list{NAME_SLOTS, slots};
    int named = module->get_interface_names(module, &list);
    for (const sim_device &device : driver.devices) {
        dypd_ds_interface_info info{};
        copy_text(info.name, device.name.c_str());
        (void)module->get_interface_info(module, &info);
        dypd_ds_connect_param param{};
        copy_text(param.name, device.name.c_str());
        (void)module->disconnect(module, &param);
    }
    list.count = static_cast<uint16_t>(std::clamp(named, 0, static_cast<int>(NAME_SLOTS)));
    module->keep_alive(module, &list);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz_memory_file file;
    fuzz_silence_log();
    file.assign(fuzz_text(data, size));
    sim_driver driver;
    std::string error;
    if (sim_load_devices(file.path(), driver, error) == 0)
        ask_every_request(driver);
    return 0;
}

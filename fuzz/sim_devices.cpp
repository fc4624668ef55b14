// The driver simulator's device file from arbitrary bytes: the loader
// either fills a driver or gives its documented error, and never crashes.
#include "device_file.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz_memory_file file;
    static bool quiet = (fuzz_silence_log(), true);
    (void)quiet;
    file.assign(fuzz_text(data, size));
    sim_driver driver;
    std::string error;
    (void)sim_load_devices(file.path(), driver, error);
    return 0;
}

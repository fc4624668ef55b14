// The INI writer's rewrite on arbitrary file contents and maps. Input: the
// file's contents, "#MAP#", then the map's pairs as INI text (read by the
// project's own reader, as every caller builds its map).
#include <string>

#include "fuzz_support.h"
#include "lib/cfgctrl.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz_scratch_dir dir;
    static fuzz_memory_file map_text;
    fuzz_silence_log();
    const std::string_view input = fuzz_text(data, size);
    const size_t at = input.find("#MAP#");
    const std::string_view contents = input.substr(0, at);
    map_text.assign(at == std::string_view::npos ? "" : input.substr(at + 5));

    tqmap<tq_cfg_pair> *map = nullptr;
    if (tq_cfg_get_section(map_text.path(), nullptr, &map) < 0)
        return 0;
    const std::string path = dir.path() + "/dypd.conf";
    FILE *file = fopen(path.c_str(), "w");
    fuzz_require(file != nullptr, "the file to rewrite");
    (void)fwrite(contents.data(), 1, contents.size(), file);
    fuzz_require(fclose(file) == 0, "writing the file to rewrite");
    (void)tq_cfg_set_strings(path.c_str(), dir.path().c_str(), map);
    tq_cfg_release_section(map);
    return 0;
}

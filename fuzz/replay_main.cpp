// Replays corpus files through a fuzz target without libFuzzer, so that
// every build can run the corpora with the ordinary compiler. Arguments
// are files or directories (every regular file in them, in name order).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fs = std::filesystem;

namespace {
std::vector<fs::path> inputs_of(const fs::path &argument) {
    std::vector<fs::path> files;
    if (fs::is_directory(argument)) {
        for (const auto &entry : fs::directory_iterator(argument))
            if (entry.is_regular_file())
                files.push_back(entry.path());
        std::sort(files.begin(), files.end());
    } else {
        files.push_back(argument);
    }
    return files;
}
} // namespace

int main(int argc, char **argv) {
    size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        for (const fs::path &file : inputs_of(argv[i])) {
            std::ifstream in(file, std::ios::binary);
            if (!in) {
                fprintf(stderr, "cannot read %s\n", file.c_str());
                return 1;
            }
            std::vector<uint8_t> data{std::istreambuf_iterator<char>(in), {}};
            (void)LLVMFuzzerTestOneInput(data.data(), data.size());
            ++replayed;
        }
    }
    printf("replayed %zu inputs\n", replayed);
    // An empty corpus proves nothing: that is a failure too.
    return replayed == 0 ? 1 : 0;
}

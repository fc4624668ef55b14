// What the fuzz targets share: a network of their own, a quiet log, files
// held in memory and one input cut into several messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Moves the process into a network namespace of its own with loopback up,
// so that the fixed ports the daemon binds (the DYP ports, SKA) never meet
// another process. Ends the process when that is impossible.
void fuzz_enter_private_network();

// Every line the daemon code logs is formatted and then dropped (cheap
// enough to ask for at each input).
void fuzz_silence_log();

// Aborts with `what` when a set-up step failed (a target that cannot reach
// the code it is meant to exercise must not pass quietly) or when an
// outcome the code promises did not hold.
void fuzz_require(bool ok, const char *what);

// A file in memory that each input refills; path() names it for code that
// opens files by name.
class fuzz_memory_file {
  public:
    fuzz_memory_file();
    ~fuzz_memory_file();
    fuzz_memory_file(const fuzz_memory_file &) = delete;
    fuzz_memory_file &operator=(const fuzz_memory_file &) = delete;

    void assign(std::string_view contents);
    const char *path() const { return path_.c_str(); }

  private:
    int fd_;
    std::string path_;
};

// A private directory under /dev/shm (or /tmp), removed with everything in
// it at the end of the scope.
class fuzz_scratch_dir {
  public:
    fuzz_scratch_dir();
    ~fuzz_scratch_dir();
    fuzz_scratch_dir(const fuzz_scratch_dir &) = delete;
    fuzz_scratch_dir &operator=(const fuzz_scratch_dir &) = delete;

    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

// The pieces of `input` between occurrences of `separator`; an input
// without it is one piece.
std::vector<std::string_view> fuzz_split(std::string_view input, std::string_view separator);

inline std::string_view fuzz_text(const uint8_t *data, size_t size) {
    return {reinterpret_cast<const char *>(data), size};
}

// Helpers shared by the fuzz targets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "para.h"

namespace fuzz {

// Read-only directory of the example device in the source tree.
std::string example_dir();
// A fresh directory under TMPDIR (else /dev/shm or /tmp), removed at exit.
const char* temp_dir();
// Points the profile at the example device (read-only) and a fresh
// read-write directory under temp_dir().
void use_example_device();
// The library's log lines are off: the fuzzer's own output stays readable
// and formatting costs nothing.
void quiet();
// Parsed JSON file of the example device (never null: aborts otherwise).
cJSON* load_example_json(const char* name);
// Writes text to path (aborts when it cannot).
void write_text(const std::string& path, const std::string& text);
// Prints a tree (the printer runs on everything the library hands out) and
// frees it; null is fine.
void print_and_free(cJSON* json);

// A configure store that frees itself.
struct Store {
    configure* s = configure_init();
    ~Store() { configure_free(s); }
};

// The input as a NUL-terminated heap copy.
std::string as_text(const uint8_t* data, size_t size);

// An anonymous in-memory file holding bytes; path() names it for fopen.
class MemFile {
public:
    explicit MemFile(const char* name);
    ~MemFile();
    MemFile(const MemFile&) = delete;
    MemFile& operator=(const MemFile&) = delete;
    // Replaces the content.
    void assign(const void* data, size_t size);
    const char* path() const { return path_; }

private:
    int fd_;
    char path_[64];
};

} // namespace fuzz

// Helpers shared by the fuzz targets, and the one harness of the typed
// modules (video, audio, focus/zoom): walkers on a parsed input, then the
// records as JSON, requests and by-name access on whatever they stored.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "para_internal.h"

namespace fuzz {

std::string example_dir();
// A fresh directory under TMPDIR (else /dev/shm or /tmp), removed at exit.
const char* temp_dir();
// Log lines off: the fuzzer's output stays readable and formatting is free.
void quiet();
// Quiet, the example device read-only and a fresh read-write directory.
void use_example_device();
cJSON* load_example_json(const char* name); // aborts when it cannot
void write_text(const std::string& path, const std::string& text);
// Prints a tree (the printer runs on everything handed out), frees it.
void print_and_free(cJSON* json);
inline std::string text(const uint8_t* data, size_t size) { return {reinterpret_cast<const char*>(data), size}; }
inline para::JsonPtr parse(const uint8_t* data, size_t size)
{
    return para::JsonPtr(cJSON_ParseWithLength(reinterpret_cast<const char*>(data), size));
}

struct Store { // a configure store that frees itself
    configure* s = configure_init();
    ~Store() { configure_free(s); }
};

// Calls f on every top-level item that has a key.
template <class F> void each_item(cJSON* json, F f)
{
    for (cJSON* item = json ? json->child : nullptr; item; item = item->next)
        if (item->string)
            f(item);
}
// The item as a request under its own key: the answer printed, then the write.
inline void request(int (*get)(char*, void*, void**, char*), int (*set)(char*, void*, char*), cJSON* item,
                    char* parse_name)
{
    void* out = nullptr;
    get(item->string, item, &out, parse_name);
    print_and_free(static_cast<cJSON*>(out));
    if (set)
        set(item->string, item, parse_name);
}

struct TypedTarget {
    const char* record_key; // request key of record %d
    int records;
    int (*init)(char* parse_name);
    void (*walkers[3])(cJSON* json); // range, default, current
    int (*get_opt)(char* req_name, void* jsonIn, void** jsonOut, char* parse_name);
    int (*set_opt)(char* req_name, void* jsonIn, char* parse_name); // or null
    int (*get_member)(char* name, int r, int* val, char** text);    // of record r
    int (*set_member)(char* name, int r, int val, char* text);      // or null
    cJSON* (*object)(int r);                                        // or null
    void (*page)(void);
    // Writes the read-only files into dir (null: copies files from the example).
    void (*prepare)(const std::string& dir);
    const char* files[2];
    bool (*ready)(void); // checked once after loading, or null
};
void typed_init(const TypedTarget& t);
void typed_one(const TypedTarget& t, const uint8_t* data, size_t size);

} // namespace fuzz

// The libFuzzer entry points: init() once, one(data, size) per input.
#define FUZZ_TARGET(init, one)                                                                     \
    extern "C" int LLVMFuzzerInitialize(int*, char***) { return init(), 0; }                       \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t* d, size_t n) { return one(d, n), 0; }
#define FUZZ_TYPED_ENTRY_POINTS(t)                                                                 \
    FUZZ_TARGET([] { fuzz::typed_init(t); }, [](const uint8_t* d, size_t n) { fuzz::typed_one(t, d, n); })

// A flat module: one record, by-name access through para_get_<tag>_member_json.
#define FUZZ_FLAT_TYPED_TARGET(tag, set_opt, set_member)                                           \
    static const fuzz::TypedTarget tag##_target = {                                                \
        #tag, 1, para_init_##tag,                                                                  \
        {_parse_##tag##_range_json, _parse_##tag##_def_json, _parse_##tag##_cur_json},             \
        para_get_##tag##_opt, set_opt,                                                             \
        [](char* n, int, int* v, char** t) { return para_get_##tag##_member_json(n, v, t); },      \
        set_member, nullptr, tag##_page, nullptr, {#tag "_range.json", #tag "_def.json"}, nullptr}; \
    FUZZ_TYPED_ENTRY_POINTS(tag##_target)

// The loaders of a typed module (video, audio, focus/zoom) fed a parsed
// input: the range, default and current walkers, then the record as JSON
// and the request operations on whatever the walkers stored.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "para.h"

namespace fuzz {

struct TypedTarget {
    const char* record_key; /* request key of record %d ("video%d", "audio") */
    int records;            /* records the module keeps */
    int (*init)(char* parse_name);
    void (*walkers[3])(cJSON* json); /* range, default, current */
    int (*get_opt)(char* req_name, void* jsonIn, void** jsonOut, char* parse_name);
    int (*set_opt)(char* req_name, void* jsonIn, char* parse_name); /* or null */
    /* By-name access: of record r, or of the one record of a flat module. */
    int (*get_member)(char* name, int r, int* val, char** text);
    int (*set_member)(char* name, int r, int val, char* text); /* or null */
    int (*get_member_flat)(char* name, int* val, char** text);
    int (*set_member_flat)(char* name, int val, char* text); /* or null */
    cJSON* (*object)(int r);                                    /* or null */
    void (*page)(void);
    /* Writes the module's read-only files into dir (null: copy the example
     * device's files named in files). */
    void (*prepare)(const std::string& dir);
    const char* files[2];
    /* Checked once after loading (null: none). */
    bool (*ready)(void);
};

/* Loads the module once from the example device (LLVMFuzzerInitialize). */
void typed_init(const TypedTarget& t);
int typed_one(const TypedTarget& t, const uint8_t* data, size_t size);

} // namespace fuzz

/* The libFuzzer entry points of a target made of one TypedTarget. */
#define FUZZ_TYPED_ENTRY_POINTS(target)                                 \
    extern "C" int LLVMFuzzerInitialize(int*, char***)                  \
    {                                                                   \
        fuzz::typed_init(target);                                       \
        return 0;                                                       \
    }                                                                   \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) \
    {                                                                   \
        return fuzz::typed_one(target, data, size);                     \
    }

/* A whole target for a flat module (one record, by-name access through
 * para_get_<tag>_member_json): its functions follow the module's names. */
#define FUZZ_FLAT_TYPED_TARGET(tag, set_opt, set_member_flat)                                   \
    namespace {                                                                                 \
    const fuzz::TypedTarget tag##_target = {                                                    \
        #tag, 1, para_init_##tag,                                                               \
        {_parse_##tag##_range_json, _parse_##tag##_def_json, _parse_##tag##_cur_json},          \
        para_get_##tag##_opt, set_opt, nullptr, nullptr, para_get_##tag##_member_json,          \
        set_member_flat, nullptr, tag##_page, nullptr,                                          \
        {#tag "_range.json", #tag "_def.json"}, nullptr,                                        \
    };                                                                                          \
    }                                                                                           \
    FUZZ_TYPED_ENTRY_POINTS(tag##_target)

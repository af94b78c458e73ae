/* Private glue between the generic stores: the .conf store (para_conf.cpp),
 * the JSON-described modules (para_misc.cpp) and the "misc" file layouts
 * (legacy/para_legacy.cpp). Not installed. */
#ifndef PARA_STORES_H
#define PARA_STORES_H

#include "para_internal.h"

namespace para {

/* Module names are kept in 64-byte slots: at most 62 characters survive. */
constexpr size_t kSlotNameSize = 64;
constexpr size_t kSlotNameMax = 62;
/* Value texts are read through fixed buffers of this size. */
constexpr int kValueBuf = 256;

void copy_slot_name(char (&dst)[kSlotNameSize], const char* name);

/* Index of the first slot i < count for which name_of(i) equals name. */
template <typename NameOf>
int find_slot_by(int count, const char* name, NameOf name_of)
{
    if (!name)
        return -1;
    std::string_view want(name);
    for (int i = 0; i < count; ++i) {
        const char* have = name_of(i);
        if (have[0] && want == have)
            return i;
    }
    return -1;
}

/* Writes every entry of store as .conf lines to path through
 * durable_write (with lock: under an exclusive flock on path, for writers in
 * other processes). Results as durable_write, logged under func's name. */
int write_conf_file(const char* path, configure* store, bool lock, para::Caller func);

/* The "misc" module's save in its file layouts: durable_write's results
 * (para_save_misc_legacy reports them as the module does). */
int save_misc_legacy(char* file_name, configure* cur, para::Caller func, bool changed = false);

/* Store dump into buf for the *_2_buf operations: used + 1, or 0 (logged
 * with module) when buf is too small. */
int store_to_buf(para::Caller fn, const char* module, configure* store, char* buf, int size);

/* Read requests: is_def from the item's own key, and the ["all"] form
 * (one element, a string beginning with "all"). */
int request_is_def(const cJSON* item);
bool request_is_all(const cJSON* item);

/* Same as para_set_json_cur, reporting setter as the identity of the change
 * to the member callback. */
int json_set_cur_as(const char* module, const char* key, int value, const void* setter);

} // namespace para

#endif

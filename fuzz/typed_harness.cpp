#include "typed_harness.h"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

#include "para_internal.h"
#include "support.h"

namespace fuzz {

namespace {

/* By-name reads and writes of every name the input mentions, on the first
 * and last record and one past each end. */
void members_by_name(const TypedTarget& t, const cJSON* names)
{
    const int records[] = {-1, 0, t.records - 1, t.records};
    for (const cJSON* m = names ? names->child : nullptr; m; m = m->next) {
        char* name = cJSON_IsString(m) ? m->valuestring : m->string;
        if (!name)
            continue;
        for (int r : records) {
            int val = 0;
            char* text = nullptr;
            char* given = cJSON_IsString(m) ? m->valuestring : nullptr;
            if (t.get_member)
                t.get_member(name, r, &val, &text);
            else
                t.get_member_flat(name, &val, &text);
            if (text)
                (void)std::strlen(text);
            if (t.set_member)
                t.set_member(name, r, para::json_int(m), given);
            else if (t.set_member_flat)
                t.set_member_flat(name, para::json_int(m), given);
        }
    }
}

} // namespace

void typed_init(const TypedTarget& t)
{
    quiet();
    static std::string ro = std::string(temp_dir()) + "/ro";
    static std::string rw = std::string(temp_dir()) + "/rw";
    mkdir(ro.c_str(), 0755);
    mkdir(rw.c_str(), 0755);
    if (t.prepare) {
        t.prepare(ro);
    } else {
        for (const char* name : t.files) {
            para::CharPtr text(read_file_to_buf((example_dir() + "/" + name).c_str()));
            if (!text)
                std::abort();
            write_text(ro + "/" + name, text.get());
        }
    }
    para_profile.param_rofile_dir = ro.data();
    para_profile.param_rwfile_dir = rw.data();
    if (t.init(const_cast<char*>("fuzz")) != 0 || (t.ready && !t.ready()))
        std::abort(); // the example device loads
}

int typed_one(const TypedTarget& t, const uint8_t* data, size_t size)
{
    para::JsonPtr json(cJSON_ParseWithLength(reinterpret_cast<const char*>(data), size));
    if (!json)
        return 0;
    for (auto walk : t.walkers)
        walk(json.get());
    for (int r = -1; t.object && r <= t.records; ++r)
        print_and_free(t.object(r));

    // Every top-level item as a module request under its own key, then a
    // read of everything each record holds now.
    for (cJSON* item = json->child; item; item = item->next) {
        if (!item->string)
            continue;
        void* out = nullptr;
        t.get_opt(item->string, item, &out, item->string);
        print_and_free(static_cast<cJSON*>(out));
        if (t.set_opt)
            t.set_opt(item->string, item, item->string);
        members_by_name(t, item);
    }
    for (int r = 0; r < t.records; ++r) {
        char key[32];
        std::snprintf(key, sizeof key, t.record_key, r);
        para::JsonPtr req(cJSON_CreateObject());
        cJSON* all = cJSON_AddArrayToObject(req.get(), key);
        cJSON_AddItemToArray(all, cJSON_CreateString("all"));
        void* out = nullptr;
        t.get_opt(all->string, all, &out, all->string);
        print_and_free(static_cast<cJSON*>(out));
    }
    t.page();
    return 0;
}

} // namespace fuzz

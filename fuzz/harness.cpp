#include "harness.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace fuzz {

namespace {

std::string created_dir;

[[noreturn]] void fail(const std::string& what)
{
    std::perror(what.c_str());
    std::abort();
}

// By-name reads and writes of every name the input mentions, on the first
// and last record and one past each end.
void members_by_name(const TypedTarget& t, const cJSON* names)
{
    for (const cJSON* m = names->child; m; m = m->next) {
        char* given = cJSON_IsString(m) ? m->valuestring : nullptr;
        char* name = given ? given : m->string;
        for (int r : {-1, 0, t.records - 1, t.records}) {
            if (!name)
                break;
            int val = 0;
            char* text = nullptr;
            t.get_member(name, r, &val, &text);
            if (text)
                (void)std::strlen(text);
            if (t.set_member)
                t.set_member(name, r, para::json_int(m), given);
        }
    }
}

} // namespace

std::string example_dir() { return std::string(PARA_SOURCE_DIR) + "/examples/device"; }

const char* temp_dir()
{
    if (created_dir.empty()) {
        // Memory-backed when the machine has it: some targets write files
        // for every input.
        const char* base = std::getenv("TMPDIR");
        if (!base || !*base)
            base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string tmpl = std::string(base) + "/para-fuzz-XXXXXX";
        if (!mkdtemp(tmpl.data()))
            fail("mkdtemp");
        created_dir = tmpl;
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(created_dir, ec);
        });
    }
    return created_dir.c_str();
}

void quiet() { dbgout_profile.para_level = dbgout_profile.lib_level = 0; }

void use_example_device()
{
    static std::string ro = example_dir(), rw = std::string(temp_dir()) + "/rw";
    quiet();
    mkdir(rw.c_str(), 0755);
    para_profile.param_rofile_dir = ro.data();
    para_profile.param_rwfile_dir = rw.data();
}

cJSON* load_example_json(const char* name)
{
    std::string path = example_dir() + "/" + name;
    para::CharPtr text(read_file_to_buf(path.c_str()));
    cJSON* json = text ? cJSON_Parse(text.get()) : nullptr;
    if (!json)
        fail(path);
    return json;
}

void write_text(const std::string& path, const std::string& text)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f || std::fwrite(text.data(), 1, text.size(), f) != text.size() || std::fclose(f) != 0)
        fail(path);
}

void print_and_free(cJSON* json)
{
    std::free(json ? cJSON_PrintUnformatted(json) : nullptr);
    cJSON_Delete(json);
}

void typed_init(const TypedTarget& t)
{
    static std::string ro = std::string(temp_dir()) + "/ro";
    use_example_device();
    mkdir(ro.c_str(), 0755);
    if (t.prepare)
        t.prepare(ro);
    for (const char* name : t.files) {
        para::CharPtr text(name ? read_file_to_buf((example_dir() + "/" + name).c_str()) : nullptr);
        if (name && !text)
            fail(name);
        if (name)
            write_text(ro + "/" + name, text.get());
    }
    para_profile.param_rofile_dir = ro.data();
    if (t.init(const_cast<char*>("fuzz")) != 0 || (t.ready && !t.ready()))
        std::abort(); // the example device loads
}

void typed_one(const TypedTarget& t, const uint8_t* data, size_t size)
{
    para::JsonPtr json = parse(data, size);
    if (!json)
        return;
    for (auto walk : t.walkers)
        walk(json.get());
    for (int r = -1; t.object && r <= t.records; ++r)
        print_and_free(t.object(r));

    // Every top-level item as a request under its own key, then a read of
    // everything each record holds now.
    each_item(json.get(), [&](cJSON* item) {
        request(t.get_opt, t.set_opt, item, item->string);
        members_by_name(t, item);
    });
    for (int r = 0; r < t.records; ++r) {
        char key[32];
        std::snprintf(key, sizeof key, t.record_key, r);
        para::JsonPtr req(cJSON_CreateObject());
        cJSON* all = cJSON_AddArrayToObject(req.get(), key);
        cJSON_AddItemToArray(all, cJSON_CreateString("all"));
        request(t.get_opt, nullptr, all, all->string);
    }
    t.page();
}

} // namespace fuzz

// Factory store: the input as "persist/odm.json" (or as the older
// "isp_odm.json" that start-up moves there), loaded, read and written by
// key, saved and loaded again, which must give back what was saved.
#include "harness.h"

#include <sys/stat.h>

namespace {

std::string rw;
char kOdm[] = "odmInter";

std::string printed_store()
{
    para::CharPtr text(json_odm_file ? cJSON_PrintUnformatted(json_odm_file) : nullptr);
    return text ? text.get() : "";
}

void by_key(cJSON* item)
{
    char* key = item->string;
    int number = 0;
    char text[PARA_ODM_STRING_MAX], small[4];
    para_get_odm_int(key, &number);
    para_get_odm_string(key, text);
    para_get_odm_string_safe(key, small, sizeof small);
    if (cJSON_IsString(item)) {
        _para_set_odm_string(key, item->valuestring);
        para_set_odm_int(key, static_cast<int>(static_cast<unsigned>(number) + 1u));
    } else {
        _para_set_odm_int(key, para::json_int(item));
        para_set_odm_string(key, const_cast<char*>("text"));
    }
}

void init()
{
    fuzz::quiet();
    rw = fuzz::temp_dir();
    mkdir((rw + "/persist").c_str(), 0755);
    para_profile.param_rwfile_dir = rw.data();
}

void one(const uint8_t* data, size_t size)
{
    fuzz::write_text(rw + (size % 2 ? "/isp_odm.json" : "/persist/odm.json"),
                     fuzz::text(data, size));
    para_init_odm(kOdm);
    para_init_stage2_odm(kOdm);
    fuzz::each_item(fuzz::parse(data, size).get(), by_key);

    const std::string saved = printed_store();
    para_save_odm(kOdm);
    para_init_odm(kOdm);
    if (printed_store() != saved) {
        std::fprintf(stderr, "factory store changed across save and load:\n%s\n%s\n", saved.c_str(),
                     printed_store().c_str());
        std::abort();
    }
}

} // namespace

FUZZ_TARGET(init, one)

// "misc" files: the older range layout converted, an older value file
// loaded into a store, and the JSON module's tree readers and requests on
// a module loaded from the example device.
#include "harness.h"

namespace {

char kMisc[] = "misc";

// The typed readers of one object member, and the by-key functions of the
// loaded module for the member's key.
void read_member(cJSON* obj, cJSON* item)
{
    const char* key = item->string;
    int number = 0;
    uint8_t bytes[4];
    char* text = nullptr;
    char buf[8];
    json_object_load_number(obj, key, &number);
    json_object_load_u8_array(obj, key, bytes, sizeof bytes);
    json_object_load_string(obj, key, &text, "def");
    std::free(text);
    json_object_get_int(item);
    json_object_get_string(item);
    peek_array_enum_type(item);
    para_get_item_str(item);
    para_get_json_item_number(kMisc, item, key);
    peek_json_enum_type(kMisc, key);
    para_get_json_min(kMisc, key);
    para_get_json_max(kMisc, key);
    para_get_json_def(kMisc, key);
    para_get_json_cur(kMisc, key);
    para_get_json_string(kMisc, key, buf, sizeof buf);
    if (const char* name = para_get_json_emum_str(kMisc, key, para::json_int(item)))
        (void)std::strlen(name);
    if (cJSON_IsString(item)) {
        para_get_json_enum_index(kMisc, key, item->valuestring);
        para_set_json_cur_str(kMisc, key, item->valuestring);
    } else {
        para_set_json_cur_number(kMisc, key, para::json_int(item));
    }
}

void init()
{
    fuzz::use_example_device();
    para_init_misc(const_cast<char*>("json"));
    para_init_misc(kMisc);
    if (para_get_json_max(kMisc, "mirror") != 1)
        std::abort(); // the example device loads
}

void one(const uint8_t* data, size_t size)
{
    static const std::string values_file = std::string(fuzz::temp_dir()) + "/misc-values";
    // The converted range tree stays in use until the next input: the
    // conversion points the module's layout version at it.
    static para::JsonPtr range_in_use;
    para::JsonPtr json = fuzz::parse(data, size);
    if (!json)
        return;
    range_in_use.reset(fix_old_misc_range_conf(json.get()));
    std::free(cJSON_PrintUnformatted(range_in_use.get()));
    fuzz::write_text(values_file, fuzz::text(data, size));
    fuzz::Store values;
    fix_old_misc_def_cur_conf(values_file.c_str(), values.s);
    fuzz::each_item(json.get(), [&](cJSON* item) {
        read_member(json.get(), item);
        fuzz::request(para_get_misc_opt, para_set_misc_opt, item, kMisc);
    });
    cJSON* all = cJSON_CreateObject();
    Create_Json_Misc_Object(kMisc, all, 0);
    Create_Json_Misc_Object(kMisc, all, 1);
    fuzz::print_and_free(all);
    char text[512];
    para_save_misc_conf_2_buf(kMisc, text, sizeof text);
}

} // namespace

FUZZ_TARGET(init, one)

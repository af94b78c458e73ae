// ISP files: the range/default/current/style walkers on a parsed input
// (its "isp0"/"isp1" objects into the module's records, the whole input
// into scratch records), then ISP objects, requests, by-name access and
// the style lookups of a module loaded from the example device.
#include "harness.h"

#include "para_isp_internal.h"

namespace {

void walk(cJSON* json)
{
    dov_isp_param_s a{}, b{};
    _parse_isp_range_json(json, &a, &b);
    _parse_isp_def_json(json, &a, &b);
    _parse_isp_cur_json(json, &a, nullptr);
    _parse_isp_style_json(json, &b, nullptr);
    _parse_isp_style_json(nullptr, &b, nullptr);
    for (int i = 0; i < PARA_ISP_NUM; ++i) {
        if (cJSON* obj = cJSON_GetObjectItem(json, ("isp" + std::to_string(i)).c_str())) {
            _parse_isp_range_json(obj, &para_isp_min[i], &para_isp_max[i]);
            _parse_isp_def_json(obj, &para_isp_def[i], &para_isp_exist[i]);
            _parse_isp_cur_json(obj, &para_isp_cur[i], nullptr);
        }
    }
}

void by_name_and_style(const cJSON* item, int isp, int index)
{
    for (const cJSON* m = item->child; m; m = m->next) {
        char* name = cJSON_IsString(m) ? m->valuestring : m->string;
        int val = 0;
        if (!name)
            continue;
        para_get_isp_cur_member(name, isp, &val, nullptr);
        para_get_isp_def_member(name, isp, &val, nullptr);
        para_set_member(name, isp, para::json_int(m), nullptr);
        para_get_isp_style_index(isp, name);
    }
    if (const char* name = para_get_isp_style_string(isp, index))
        (void)std::strlen(name);
    if (const cJSON* style = get_isp_style_json(isp, index))
        (void)cJSON_GetArraySize(style);
    if (dov_isp_param_s* rec = para_get_isp_style_param(isp, index))
        (void)rec->style;
    para_get_isp_style_def_index(isp);
    para_isp_style_excute_by_arm(isp);
    dov_isp_param_s rec{};
    parse_isp_def_odm(isp, &rec);
    para_set_isp_style_def_index(isp, index);
}

void init()
{
    fuzz::use_example_device();
    if (para_init_isp(const_cast<char*>("isp0")) != 0 || !para_get_isp_style_string(1, 0))
        std::abort(); // the example device loads
}

void one(const uint8_t* data, size_t size)
{
    para::JsonPtr json = fuzz::parse(data, size);
    if (!json)
        return;
    walk(json.get());
    fuzz::each_item(json.get(), [](cJSON* item) {
        fuzz::request(para_get_isp_opt, para_set_isp_opt, item, item->string);
        const int number = para::json_int(item);
        for (int isp = -1; isp <= PARA_ISP_NUM; ++isp)
            by_name_and_style(item, isp, number);
        para_set_isp_antiflicker_def(number & 3, number);
        para_set_isp_style_def(number & 3, number);
    });
    for (int isp = -1; isp <= PARA_ISP_NUM; ++isp) {
        fuzz::print_and_free(Create_Json_ISPObject(isp, 0));
        fuzz::print_and_free(Create_Json_ISPObject(isp, 1));
    }
    if (size % 7 == 0)
        para_isp_cur_restore_isp_def();
}

} // namespace

FUZZ_TARGET(init, one)

/* ISP image styles: one ordered style list per ISP, read once from
 * "isp0_def.json" / "isp1_def.json", with the default style index and the
 * default anti-flicker value overridable from the factory store. */
#include "para_isp_internal.h"

#include <cstdlib>
#include <string>

cJSON* json_style_file = nullptr;

namespace para {
/* Both trees stay alive: the lists point into them. Not file-local: nothing
 * here reads them back, and a file-local array that is only written may be
 * dropped by the compiler, which would leave the roots unreferenced. */
cJSON* isp_style_tree[PARA_ISP_NUM];
} // namespace para
cJSON** style_list_isp0 = nullptr;
cJSON** style_list_isp1 = nullptr;
dov_isp_param_s* isp0_para_in_style = nullptr;
dov_isp_param_s* isp1_para_in_style = nullptr;

namespace {

int style_num[PARA_ISP_NUM];
int style_def[PARA_ISP_NUM];
int style_excute_by_arm[PARA_ISP_NUM];
int odm_param_antiflicker_def[PARA_ISP_NUM] = {-1, -1};

cJSON**& style_list(int isp_id)
{
    return isp_id ? style_list_isp1 : style_list_isp0;
}

dov_isp_param_s*& style_records(int isp_id)
{
    return isp_id ? isp1_para_in_style : isp0_para_in_style;
}

/* Entry index of the ISP's list, or null for anything out of bounds. */
cJSON* style_entry(int isp_id, int index)
{
    if (!isp_valid_pipe(isp_id) || index < 0 || index >= style_num[isp_id] || !style_list(isp_id))
        return nullptr;
    return style_list(isp_id)[index];
}

/* The style's "style" key carries its own list index, so that loading the
 * style as defaults selects it. */
void set_style_index(cJSON* style, int k)
{
    cJSON* item = cJSON_GetObjectItem(style, "style");
    // The item keeps its type: a text stays a text and carries the number beside it.
    if (item)
        cJSON_SetNumberHelper(item, k);
}

} // namespace

int para_init_isp_style(int isp_id)
{
    if (!isp_valid_pipe(isp_id))
        return -1;
    char path[PARA_PATH_MAX];
    if (!para::make_path(path, para_profile.param_rofile_dir,
                         isp_id ? "isp1_def.json" : "isp0_def.json"))
        return -1;
    bool unreadable = false;
    para::JsonPtr tree = para::load_json_file(__func__, path, &unreadable, true);
    if (!tree) {
        if (!unreadable)
            json_style_file = nullptr; // holds the failed parse
        return -1;
    }
    cJSON* root = tree.get();
    json_style_file = root;
    para::isp_style_tree[isp_id] = tree.release();

    if (cJSON* def = cJSON_GetObjectItem(root, "isp0_style_def"))
        style_def[isp_id] = para::json_int(def);
    if (cJSON* flag = cJSON_GetObjectItem(root, "style_excute_by_arm"))
        style_excute_by_arm[isp_id] = para::json_int(flag);
    cJSON* list = cJSON_GetObjectItem(root, "isp0_style_list");
    if (!list) {
        PARA_LOG(PARA_INFO, "error\n");
        return -1;
    }

    int num = cJSON_GetArraySize(list);
    int odm = 0;
    if (para_get_odm_int(const_cast<char*>("isp0_style_def"), &odm) == 0)
        style_def[isp_id] = odm;
    if (para_get_odm_int(const_cast<char*>("isp0_antiflicker_def"), &odm) == 0)
        odm_param_antiflicker_def[isp_id] = odm;
    PARA_LOG(PARA_INFO, "style_excute_by_arm:%d,total_style:%d,style_def:%d,antiflicker_def:%d\n",
             style_excute_by_arm[isp_id], num, style_def[isp_id], odm_param_antiflicker_def[isp_id]);

    // Records start zeroed: members a style does not name read as 0.
    auto** entries = static_cast<cJSON**>(std::calloc(num > 0 ? num : 1, sizeof(cJSON*)));
    auto* records = static_cast<dov_isp_param_s*>(std::calloc(num > 0 ? num : 1, sizeof(dov_isp_param_s)));
    if (!entries || !records) {
        std::free(entries);
        std::free(records);
        PARA_LOG(PARA_ERR, "no memory for %d styles\n", num);
        return -1;
    }
    style_list(isp_id) = entries;
    style_records(isp_id) = records;
    style_num[isp_id] = num;

    int k = 0;
    for (cJSON* el = list->child; el && k < num; el = el->next, ++k) {
        const char* name = cJSON_IsString(el) ? el->valuestring : nullptr;
        cJSON* style = name ? cJSON_GetObjectItem(root, name) : nullptr;
        entries[k] = style;
        if (!style) {
            PARA_LOG(PARA_INFO, "error can not find style %s\n", name ? name : "(null)");
            continue;
        }
        PARA_LOG(PARA_INFO, "find style[%d]:%s\n", k, name);
        set_style_index(style, k);
        _parse_isp_style_json(style, &records[k], nullptr);
    }
    return 0;
}

int para_get_isp_style_def_index(int isp_id)
{
    return isp_valid_pipe(isp_id) ? style_def[isp_id] : -1;
}

int para_set_isp_style_def_index(int isp_id, int def_style)
{
    if (!style_entry(isp_id, def_style))
        return -1;
    style_def[isp_id] = def_style;
    return 0;
}

cJSON* get_isp_style_json(int isp_id, int index)
{
    return style_entry(isp_id, index);
}

dov_isp_param_s* para_get_isp_style_param(int isp_id, int index)
{
    if (!style_entry(isp_id, index))
        return nullptr;
    // A style never carries its own anti-flicker value to the application.
    dov_isp_param_s* rec = &style_records(isp_id)[index];
    rec->antiflicker = para_get_isp_antiflicker_cur(isp_id);
    return rec;
}

char* para_get_isp_style_string(int isp_id, int index)
{
    cJSON* style = style_entry(isp_id, index);
    return style ? style->string : nullptr;
}

int para_get_isp_style_index(int isp_id, char* style)
{
    if (!isp_valid_pipe(isp_id) || !style)
        return -1;
    for (int k = 0; k < style_num[isp_id]; ++k)
        if (para::same(para_get_isp_style_string(isp_id, k), style))
            return k;
    return -1;
}

int para_isp_style_excute_by_arm(int isp_id)
{
    return isp_valid_pipe(isp_id) ? style_excute_by_arm[isp_id] : 0;
}

int parse_isp_def_odm(int isp_id, dov_isp_param_s* param)
{
    if (!isp_valid_pipe(isp_id) || !param)
        return -1;
    if (odm_param_antiflicker_def[isp_id] >= 0)
        __atomic_store_n(&param->antiflicker, odm_param_antiflicker_def[isp_id], __ATOMIC_RELAXED);
    return 0;
}

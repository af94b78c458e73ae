/* Focus and zoom parameters: six plain numbers, written only through the
 * exported setters, saved two seconds after the latest change. */
#include "para_typed.h"

namespace typed = para::typed;

dov_af_param_s para_af_min;
dov_af_param_s para_af_max;
dov_af_param_s para_af_def;
dov_af_param_s para_af_cur;
dov_af_param_s para_af_init;
dov_af_param_s para_af_exist;
struct timespec af_item_start_time;

namespace {

para::ChangeState af_change;
std::mutex af_mu;
int af_records = 1;

enum AfMember {
#define PARA_AF_INDEX(M) kF_##M,
    PARA_AF_MEMBERS(PARA_AF_INDEX)
#undef PARA_AF_INDEX
        kAfMembers
};

const typed::Member af_members[kAfMembers] = {
#define PARA_AF_ROW(M) PARA_TYPED_ROW_N(dov_af_param_s, M, nullptr, 0, false, para_set_af_##M##_cur),
    PARA_AF_MEMBERS(PARA_AF_ROW)
#undef PARA_AF_ROW
};

void notify_af(void* setter, int, int value)
{
    if (para_profile.af_caller)
        para_profile.af_caller(setter, value);
}

const typed::Module af = {
    "----------AF PARAM-----------\n\n",
    af_members,
    kAfMembers,
    nullptr,
    {reinterpret_cast<int32_t*>(&para_af_min), reinterpret_cast<int32_t*>(&para_af_max),
     reinterpret_cast<int32_t*>(&para_af_def), reinterpret_cast<int32_t*>(&para_af_cur),
     reinterpret_cast<int32_t*>(&para_af_init), reinterpret_cast<int32_t*>(&para_af_exist)},
    sizeof(dov_af_param_s) / sizeof(int32_t),
    1,
    &af_records,
    nullptr,
    {"af_range.json", "af_def.json", "af_cur.json"},
    true,
    false,
    0,
    &af_change,
    &af_item_start_time,
    nullptr, // fixed delay
    notify_af,
    nullptr, // the row takes no set requests
    &af_mu,
};

} // namespace

#define PARA_AF_DEFINE(M)                                   \
    PARA_TYPED_GETTERS(af, af, M, kF_##M, void, 0)          \
    PARA_TYPED_LOADERS(af, M, kF_##M)                       \
    int para_set_af_##M##_cur(int v) { return typed::set_public(af, kF_##M, 0, v); }

PARA_AF_MEMBERS(PARA_AF_DEFINE)
#undef PARA_AF_DEFINE

void _parse_af_range_json(cJSON* json)
{
    typed::load_all(af, typed::kRange, json);
}

void _parse_af_def_json(cJSON* json)
{
    typed::load_all(af, typed::kDefault, json);
}

void _parse_af_cur_json(cJSON* json)
{
    typed::load_all(af, typed::kCurrent, json);
}

int para_init_af(char*)
{
    if (typed::load_files(af, nullptr) != 0)
        return -1;
    af_page();
    return 0;
}

int para_get_af_member_json(char* memberName, int* val, char**)
{
    return typed::get_member(af, memberName, 0, val, nullptr);
}

int para_get_af_opt(char*, void* jsonIn, void** jsonOut, char*)
{
    PARA_LOG(PARA_INFO, "inter\n");
    auto* item = static_cast<cJSON*>(jsonIn);
    // The server routes every key beginning with "af" here; only "af" itself
    // (or a beginning of it) is ours.
    if (!item || !item->string || !para::starts_with("af", item->string)) {
        PARA_LOG(PARA_INFO, "leave\n");
        return 0;
    }
    typed::get_request(af, item, 0, jsonOut, PARA_INFO);
    return 0;
}

int para_need_save_af(char*)
{
    return typed::need_save(af);
}

int para_save_af(char*)
{
    return typed::save(af);
}

void af_page(void)
{
    typed::dump(af);
}

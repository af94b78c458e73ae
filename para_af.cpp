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

typed::State af_state;
int af_records = 1;

enum Index { PARA_AF_MEMBERS(PARA_TYPED_INDEX) kMembers };

const typed::Member af_members[kMembers] = {
#define PARA_AF_ROW(M) PARA_TYPED_ROW_N(dov_af_param_s, M, nullptr, 0, false, para_set_af_##M##_cur),
    PARA_AF_MEMBERS(PARA_AF_ROW)
#undef PARA_AF_ROW
};

void notify_af(void* setter, int, int value)
{
    if (para_profile.af_caller)
        para_profile.af_caller(setter, value);
}

const typed::Module af = [] {
    typed::Module m{};
    m.title = "AF";
    m.members = af_members;
    m.count = kMembers;
    m.rec = PARA_TYPED_RECORDS(para_af);
    m.stride = sizeof(dov_af_param_s) / sizeof(int32_t);
    m.streams = &af_records;
    m.files = {"af_range.json", "af_def.json", "af_cur.json"};
    m.plain = true;
    m.st = &af_state;
    m.stamp = &af_item_start_time;
    m.notify = notify_af;
    return m;
}();

} // namespace

#define PARA_AF_DEFINE(M)                                   \
    PARA_TYPED_GETTERS(af, af, M, k_##M, void, 0)          \
    PARA_TYPED_LOADERS(af, M, k_##M)                       \
    int para_set_af_##M##_cur(int v) { return typed::set_public(af, k_##M, 0, v); }

PARA_AF_MEMBERS(PARA_AF_DEFINE)
#undef PARA_AF_DEFINE

PARA_TYPED_MODULE_OPS(af, af)

int para_init_af(char*)
{
    if (typed::load_files(af, nullptr, __func__) != 0)
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
    typed::get_request(af, item, 0, jsonOut, PARA_INFO, __func__);
    return 0;
}

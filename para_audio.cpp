/* Audio parameters: one flat record of fourteen members. */
#include "para_typed.h"

namespace typed = para::typed;

const char* const aeFormat[2] = {"AAC", "G711A"};
const char* const audioInput[2] = {"linein", "micin"};
const char* const audioOut[2] = {"lineout", "hdmi"};

dov_audio_param_s para_audio_min;
dov_audio_param_s para_audio_max;
dov_audio_param_s para_audio_def;
dov_audio_param_s para_audio_cur;
dov_audio_param_s para_audio_init;
dov_audio_param_s para_audio_exist;
struct timespec audio_item_start_time;

namespace {

typed::State audio_state;
std::atomic<int> audio_save_param_time{2000};
int audio_records = 1;

enum Index { PARA_AUDIO_MEMBERS(PARA_TYPED_INDEX) kMembers };

const typed::Member audio_members[kMembers] = {
#define PARA_AUDIO_ROW(M, kind, table) \
    PARA_TYPED_ROW(dov_audio_param_s, M, kind, table, para_set_audio_##M##_cur),
    PARA_AUDIO_MEMBERS(PARA_AUDIO_ROW)
#undef PARA_AUDIO_ROW
};

/* The saved file and "all" replies keep the order the device has always
 * written, which is not the record order. */
const int audio_order[kMembers] = {
    k_audioEnable, k_adtsFlag,     k_aeFormat,    k_sampleRate, k_streamRate,
    k_audioInput,  k_volLeftIn,    k_volRightIn,  k_audioOut,   k_audioInputVol,
    k_audioOutVol, k_mute,         k_denoise,     k_agcEnable,
};

void notify_audio(void* setter, int, int value)
{
    if (para_profile.audio_caller)
        para_profile.audio_caller(setter, value);
}

const typed::Module audio = [] {
    typed::Module m{};
    m.title = "AUDIO";
    m.members = audio_members;
    m.count = kMembers;
    m.order = audio_order;
    m.rec = PARA_TYPED_RECORDS(para_audio);
    m.stride = sizeof(dov_audio_param_s) / sizeof(int32_t);
    m.streams = &audio_records;
    m.files = {"audio_range.json", "audio_def.json", "audio_cur.json"};
    m.st = &audio_state;
    m.stamp = &audio_item_start_time;
    m.delay_ms = &audio_save_param_time;
    m.notify = notify_audio;
    m.page = &para_profile.audio_page_caller;
    return m;
}();

} // namespace

#define PARA_AUDIO_DEFINE(M, kind, table)                 \
    PARA_TYPED_GETTERS(audio, audio, M, k_##M, void, 0)  \
    PARA_TYPED_SETTERS(audio, audio, M, k_##M, , 0)      \
    PARA_TYPED_LOADERS(audio, M, k_##M)                  \
    PARA_TYPED_IF_NAMED(kind, PARA_TYPED_NAME_OF(audio, audio, M, k_##M))

PARA_AUDIO_MEMBERS(PARA_AUDIO_DEFINE)
#undef PARA_AUDIO_DEFINE

PARA_TYPED_MODULE_OPS(audio, audio)
PARA_TYPED_DELAY_OPS(audio, audio, audio_save_param_time)

int para_init_audio(char*)
{
    if (typed::load_files(audio, nullptr, __func__) != 0)
        return -1;
    audio_page();
    return 0;
}

int para_get_audio_member_json(char* memberName, int* val, char** valString)
{
    return typed::get_member(audio, memberName, 0, val, valString);
}

int para_set_audio_member_json(char* memberName, int val, char* valString)
{
    return typed::set_member(audio, memberName, 0, val, valString);
}

int para_get_audio_opt(char*, void* jsonIn, void** jsonOut, char*)
{
    PARA_LOG(PARA_INFO, "inter\n");
    typed::get_request(audio, static_cast<cJSON*>(jsonIn), 0, jsonOut, PARA_INFO, __func__);
    return 0;
}

int para_set_audio_opt(char*, void* jsonIn, char*)
{
    PARA_LOG(PARA_INFO, "inter\n");
    typed::set_request(audio, static_cast<cJSON*>(jsonIn), 0);
    return 0;
}

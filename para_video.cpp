/* Video encoder parameters of up to six streams, the video name tables and
 * the picture-size table. */
#include "para_typed.h"

#include <algorithm>

namespace typed = para::typed;

/* ---- name tables ---------------------------------------------------- */

const char* const protocol[3] = {"H264", "H265", "MJPEG"};
const char* const rcMode[5] = {"CBR", "VBR", "ABR", "FIXQP", "AVBR"};
const char* const profile[4] = {"baseline", "mainprofile", "highprofile", "svc-t"};
const char* const null_stream[1] = {"null"};
const char* const size[47] = {
    "PIC_QCIF",      "PIC_CIF",       "PIC_2CIF",      "PIC_HD1",       "PIC_D1",
    "PIC_960H",      "PIC_QVGA",      "PIC_VGA",       "PIC_XGA",       "PIC_SXGA",
    "PIC_UXGA",      "PIC_QXGA",      "PIC_WVGA",      "PIC_WSXGA",     "PIC_WUXGA",
    "PIC_WQXGA",     "PIC_HD720",     "PIC_HD1080",    "PIC_2304x1296", "PIC_2592x1520",
    "PIC_5M",        "PIC_6M",        "PIC_UHD4K",     "PIC_3Kx3K",     "PIC_12M",
    "PIC_16M",       "PIC_QQVGA",     "PIC_Q720",      "PIC_QQ720",     "PIC_Q960H",
    "PIC_HD576",     "PIC_960P",      "PIC_QQ960H",    "PIC_480_270",   "PIC_960_540",
    "PIC_640_360",   "PIC_320_180",   "PIC_720_408",   "PIC_1440_1080", "PIC_960_720",
    "PIC_768_576",   "PIC_720_540",   "PIC_480_320",   "PIC_USER",      "PIC_720_480",
    "PIC_720_576",   "PIC_BUTT",
};

/* Some widths and heights differ from the names on purpose: they are what
 * the encoder is configured with. */
const image_size_s size_name[43] = {
    {"PIC_D1", 1, 720, 576},          {"PIC_D1", 0, 720, 480},
    {"PIC_QCIF", -1, 176, 144},       {"PIC_CIF", -1, 352, 288},
    {"PIC_2CIF", -1, 360, 576},       {"PIC_960H", -1, 960, 576},
    {"PIC_QVGA", -1, 320, 240},       {"PIC_VGA", -1, 640, 480},
    {"PIC_XGA", -1, 1024, 768},       {"PIC_SXGA", -1, 1400, 1050},
    {"PIC_UXGA", -1, 1600, 1400},     {"PIC_QXGA", -1, 2048, 1536},
    {"PIC_WVGA", -1, 854, 480},       {"PIC_WSXGA", -1, 1680, 1050},
    {"PIC_WUXGA", -1, 1920, 1200},    {"PIC_WQXGA", -1, 2560, 1600},
    {"PIC_HD720", -1, 1280, 720},     {"PIC_HD1080", -1, 1920, 1080},
    {"PIC_2304x1296", -1, 2304, 1296}, {"PIC_2592x1520", -1, 2592, 1520},
    {"PIC_5M", -1, 2592, 1944},       {"PIC_UHD4K", -1, 3840, 2160},
    {"PIC_3Kx3K", -1, 3000, 3000},    {"PIC_12M", -1, 4000, 3000},
    {"PIC_QQVGA", -1, 160, 120},      {"PIC_Q720", -1, 640, 360},
    {"PIC_QQ720", -1, 320, 180},      {"PIC_Q960H", -1, 480, 240},
    {"PIC_HD576", -1, 1024, 576},     {"PIC_960P", -1, 960, 540},
    {"PIC_QQ960H", -1, 240, 120},     {"PIC_480_270", -1, 480, 272},
    {"PIC_960_540", -1, 960, 540},    {"PIC_640_360", -1, 640, 360},
    {"PIC_320_180", -1, 320, 180},    {"PIC_720_408", -1, 720, 408},
    {"PIC_1440_1080", -1, 1440, 1080}, {"PIC_960_720", -1, 960, 720},
    {"PIC_768_576", -1, 768, 576},    {"PIC_720_540", -1, 720, 540},
    {"PIC_480_320", -1, 480, 320},    {"PIC_720_480", -1, 720, 480},
    {"PIC_720_576", -1, 720, 576},
};

/* ---- parameter set and state ------------------------------------------ */

dov_video_param_s para_video_min[PARA_VIDEO_STREAMS];
dov_video_param_s para_video_max[PARA_VIDEO_STREAMS];
dov_video_param_s para_video_def[PARA_VIDEO_STREAMS];
dov_video_param_s para_video_cur[PARA_VIDEO_STREAMS];
dov_video_param_s para_video_init[PARA_VIDEO_STREAMS];
dov_video_param_s para_video_exist[PARA_VIDEO_STREAMS];
int g_num_stream;
struct timespec video_item_start_time;

namespace {

typed::State video_state;
std::atomic<int> video_save_param_time{2000};

enum Index { PARA_VIDEO_MEMBERS(PARA_TYPED_INDEX) kMembers };

const typed::Member video_members[kMembers] = {
#define PARA_VIDEO_ROW(M, kind, table) \
    PARA_TYPED_ROW(dov_video_param_s, M, kind, table, para_set_video_##M##_cur),
    PARA_VIDEO_MEMBERS(PARA_VIDEO_ROW)
#undef PARA_VIDEO_ROW
};

void notify_video(void* setter, int stream, int value)
{
    if (para_profile.video_caller)
        para_profile.video_caller(setter, stream, value);
}

const typed::Module video = [] {
    typed::Module m{};
    m.title = "VIDEO";
    m.members = video_members;
    m.count = kMembers;
    m.rec = PARA_TYPED_RECORDS(para_video);
    m.stride = sizeof(dov_video_param_s) / sizeof(int32_t);
    m.records = PARA_VIDEO_STREAMS;
    m.streams = &g_num_stream;
    m.stream_key = "video%d";
    m.files = {"video_range.json", "video_def.json", "video_cur.json"};
    m.write_by_prefix = true;
    m.missing_kind_result = -1;
    m.st = &video_state;
    m.stamp = &video_item_start_time;
    m.delay_ms = &video_save_param_time;
    m.notify = notify_video;
    m.page = &para_profile.video_page_caller;
    return m;
}();

/* The stream a request key names: the first stream in [0, limit) whose
 * "video%d" the key is a beginning of; -1 for none or no key. */
int stream_of_key(const char* key, int limit)
{
    if (!key)
        return -1;
    for (int i = 0; i < std::min(limit, PARA_VIDEO_STREAMS); ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "video%d", i);
        if (para::starts_with(name, key))
            return i;
    }
    return -1;
}

} // namespace

/* ---- per-member families ------------------------------------------------ */

#define PARA_VIDEO_DEFINE(M, kind, table)                                        \
    PARA_TYPED_GETTERS(video, video, M, k_##M, int stream, stream)              \
    PARA_TYPED_SETTERS(video, video, M, k_##M, PARA_TYPED_STREAM_PARAM, stream) \
    PARA_TYPED_LOADERS(video, M, k_##M)                                         \
    PARA_TYPED_IF_NAMED(kind, PARA_TYPED_NAME_OF(video, video, M, k_##M)         \
        int para_set_video_##M##_cur_bystr(int s, char* str) {                   \
            return typed::set_by_exact_name(video, k_##M, s, str); })

PARA_VIDEO_MEMBERS(PARA_VIDEO_DEFINE)
#undef PARA_VIDEO_DEFINE

PARA_TYPED_MODULE_OPS(video, video)
PARA_TYPED_DELAY_OPS(video, video, video_save_param_time)

/* ---- module operations -------------------------------------------------- */

int para_get_video_streamNum(void)
{
    return g_num_stream;
}

int check_video_num(cJSON* json)
{
    int n = 0;
    for (int i = 0; json && i < PARA_VIDEO_STREAMS; ++i) {
        char key[16];
        std::snprintf(key, sizeof key, "video%d", i);
        if (cJSON_GetObjectItem(json, key))
            ++n;
    }
    PARA_LOG(PARA_INFO, "check video num = %d\n", n);
    return n;
}

int para_init_video(char*)
{
    // Seven table rows share this module; only the first call loads.
    static std::atomic<bool> init_flag{false};
    if (init_flag.exchange(true))
        return 0;
    if (typed::load_files(video, check_video_num, __func__) != 0)
        return -1;
    video_page();
    static const fifo_worker dumps[2] = {
        {"para_video", "enum", para_video_enum, nullptr},
        {"para_video_size", "enum", para_video_size_enum, nullptr},
    };
    add_fifo_work(dumps, 2);
    return 0;
}

int para_get_video_member(char* memberName, int chn, int* val, char** valString)
{
    return typed::get_member(video, memberName, chn, val, valString);
}

int para_set_video_member(char* memberName, int chn, int val, char* valString)
{
    return typed::set_member(video, memberName, chn, val, valString);
}

cJSON* Create_Json_Video_Object(int i)
{
    return typed::members_object(video, i);
}

int para_get_video_opt(char*, void* jsonIn, void** jsonOut, char*)
{
    PARA_LOG(PARA_DETAIL, "inter\n");
    auto* item = static_cast<cJSON*>(jsonIn);
    int s = stream_of_key(item ? item->string : nullptr, g_num_stream);
    if (s < 0) {
        PARA_LOG(PARA_DETAIL, "leave\n");
        return 0;
    }
    typed::get_request(video, item, s, jsonOut, PARA_DETAIL, __func__);
    return 0;
}

int para_set_video_opt(char*, void* jsonIn, char*)
{
    PARA_LOG(PARA_INFO, "inter\n");
    auto* item = static_cast<cJSON*>(jsonIn);
    int s = stream_of_key(item ? item->string : nullptr, PARA_VIDEO_STREAMS);
    if (s >= 0)
        typed::set_request(video, item, s);
    return 0;
}

/* ---- picture sizes and table dumps -------------------------------------- */

int para_get_video_size_byname(const char* name, int flag, int* w, int* h)
{
    if (!name) {
        PARA_LOG(PARA_INFO, "name is null \n");
        return -1;
    }
    for (const image_size_s& row : size_name) {
        if (std::strcmp(row.name, name) == 0 && (row.flag == -1 || row.flag == flag)) {
            if (w)
                *w = row.w;
            if (h)
                *h = row.h;
            return 0;
        }
    }
    PARA_LOG(PARA_INFO, "unsupport %s\n", name);
    return -1;
}

void para_video_enum(const char*, void*)
{
    struct Table {
        const char* title;
        const char* const* names;
        int count;
    };
    static const Table tables[] = {
        {"size", size, 47},
        {"protocol", protocol, 3},
        {"rcMode", rcMode, 5},
        {"profile", profile, 4},
    };
    for (const Table& t : tables) {
        PARA_LOG(PARA_INFO, "--%s:--------\n", t.title);
        for (int i = 0; i < t.count; ++i)
            PARA_LOG(PARA_INFO, "--------%d:%s\n", i, t.names[i]);
    }
}

void para_video_size_enum(const char*, void*)
{
    PARA_LOG(PARA_INFO, "--------size:--------\n");
    for (const image_size_s& row : size_name) {
        if (row.flag == -1)
            PARA_LOG(PARA_INFO, "--------%s %dx%d\n", row.name, row.w, row.h);
        else
            PARA_LOG(PARA_INFO, "--------%s 50HZ:%d %dx%d\n", row.name, row.flag, row.w, row.h);
    }
}

// Video parameter files: every record the module keeps.
#include "harness.h"

namespace {

// The example's first stream repeated up to every record, so the walkers
// visit all of them.
void prepare(const std::string& dir)
{
    for (const char* name : {"video_range.json", "video_def.json"}) {
        para::JsonPtr json(fuzz::load_example_json(name));
        cJSON* first = cJSON_GetObjectItem(json.get(), "video0");
        for (int s = 0; s < PARA_VIDEO_STREAMS; ++s) {
            const std::string key = "video" + std::to_string(s);
            if (!cJSON_GetObjectItem(json.get(), key.c_str()))
                cJSON_AddItemToObject(json.get(), key.c_str(), cJSON_Duplicate(first, 1));
        }
        fuzz::write_text(dir + "/" + name, para::CharPtr(cJSON_Print(json.get())).get());
    }
}

const fuzz::TypedTarget video = {
    "video%d", PARA_VIDEO_STREAMS, para_init_video,
    {_parse_video_range_json, _parse_video_def_json, _parse_video_cur_json},
    para_get_video_opt, para_set_video_opt, para_get_video_member, para_set_video_member,
    Create_Json_Video_Object, video_page, prepare, {nullptr, nullptr},
    [] { return para_get_video_streamNum() == PARA_VIDEO_STREAMS; },
};

} // namespace

FUZZ_TYPED_ENTRY_POINTS(video)

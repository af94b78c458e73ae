// Video parameter files: the range/default/current walkers on a parsed
// input, then records and requests on what they stored.
#include "typed_harness.h"

#include <cstdlib>

#include "para_internal.h"
#include "support.h"

namespace {

// The example's streams repeated up to every record the module keeps, so
// the walkers visit all of them.
void prepare(const std::string& dir)
{
    for (const char* name : {"video_range.json", "video_def.json"}) {
        para::JsonPtr json(fuzz::load_example_json(name));
        cJSON* first = cJSON_GetObjectItem(json.get(), "video0");
        for (int s = 0; s < PARA_VIDEO_STREAMS; ++s) {
            char key[16];
            std::snprintf(key, sizeof key, "video%d", s);
            if (!cJSON_GetObjectItem(json.get(), key))
                cJSON_AddItemToObject(json.get(), key, cJSON_Duplicate(first, 1));
        }
        para::CharPtr text(cJSON_Print(json.get()));
        fuzz::write_text(dir + "/" + name, text.get());
    }
}

const fuzz::TypedTarget video = {
    "video%d",
    PARA_VIDEO_STREAMS,
    para_init_video,
    {_parse_video_range_json, _parse_video_def_json, _parse_video_cur_json},
    para_get_video_opt,
    para_set_video_opt,
    para_get_video_member,
    para_set_video_member,
    nullptr,
    nullptr,
    Create_Json_Video_Object,
    video_page,
    prepare,
    {nullptr, nullptr},
    [] { return para_get_video_streamNum() == PARA_VIDEO_STREAMS; },
};

} // namespace

FUZZ_TYPED_ENTRY_POINTS(video)

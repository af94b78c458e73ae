// Files of the ISP worked example, shared by the direct and the network tests.
#pragma once

#include "support.h"

#include <string>

namespace isp_fixture {

inline const char* k_range = R"({
    "isp0": {
        "style": [0, 3],
        "exposure_mode": [0, 4],
        "shutter": [0, 16],
        "antiflicker": [0, 2],
        "wb_mode": [0, 6],
        "rgain": [0, 255],
        "rgain_tuning": [0, 100]
    }
})";

// Style 0 ("natural") is the default style object of the example.
inline const char* k_styles = R"({
    "isp0_style_def": 0,
    "style_excute_by_arm": 1,
    "isp0_style_list": ["natural", "vivid", "indoor"],
    "natural": {"style": 0, "exposure_mode": 0, "shutter": 6, "antiflicker": 1, "wb_mode": 0, "rgain": 128, "rgain_tuning": 50},
    "vivid": {"style": 7, "saturation": 70, "contrast": 60, "sharpness": 55},
    "indoor": {"wb_mode": 2, "antiflicker": 2}
})";

inline const char* k_cur = R"({
    "isp0": {
        "style": 0,
        "exposure_mode": 2,
        "shutter": 9,
        "antiflicker": 1,
        "wb_mode": 0,
        "rgain": 130,
        "rgain_tuning": 50
    }
})";

// Writes the example; an empty text leaves that file out.
inline void write(const test::TempDir& dir, const std::string& range = k_range,
                  const std::string& styles = k_styles, const std::string& cur = k_cur)
{
    if (!range.empty())
        test::write_file(dir.ro() + "/isp_range.json", range);
    if (!styles.empty())
        test::write_file(dir.ro() + "/isp0_def.json", styles);
    if (!cur.empty())
        test::write_file(dir.rw() + "/isp_cur.json", cur);
}

inline const char* k_def_all =
    R"({"style":0,"exposure_mode":0,"shutter":6,"antiflicker":1,"wb_mode":0,"rgain":128,"rgain_tuning":50})";
inline const char* k_cur_all =
    R"({"style":0,"exposure_mode":2,"shutter":9,"antiflicker":1,"wb_mode":0,"rgain":130,"rgain_tuning":50})";

} // namespace isp_fixture

// Public record layouts as the board (LP64) sees them: host tools and the
// board exchange st_data datagrams and shared maps byte for byte, so any
// drift between two builds shows up here. The cross build runs this under qemu.
#include "support.h"

#include <gtest/gtest.h>

#include <cstddef>

static_assert(sizeof(void*) == 8 && sizeof(long) == 8 && sizeof(int) == 4, "laid out for LP64 targets");

TEST(Layout, PublicRecordsMatchTheBoardAbi)
{
    struct { const char* name; size_t got, expected; } rows[] = {
#define SIZE(T, n) {"sizeof " #T, sizeof(T), n}
#define AT(T, m, n) {#T "." #m, offsetof(T, m), n}
        SIZE(dov_para_profile, 152), SIZE(module_para_handle_s, 56), SIZE(module_para_protocol_handle_s, 32),
        SIZE(para_server_message_info, 4116), SIZE(param_handle_t, 24), SIZE(loop_json_s, 16),
        SIZE(image_size_s, 24), SIZE(st_data, 76), SIZE(dov_share_head_s, 12), SIZE(dbgout_profile_s, 48),
        SIZE(entry, 515), SIZE(fifo_worker, 32), SIZE(config_keys, 16), SIZE(loop_buf_s, 24),
        AT(st_data, value, 8), AT(st_data, mod, 12), AT(st_data, member, 28), AT(st_data, string, 44),
        AT(para_server_message_info, fd, 4096), AT(para_server_message_info, addressRec, 4100),
        AT(dov_para_profile, para_version_conflict, 32), AT(dov_para_profile, conf_save, 144),
        // one 32-bit slot per member, nothing else
        {"video record in int32 slots", sizeof(dov_video_param_s) % 4 + alignof(dov_video_param_s), 4},
    };
    for (auto& r : rows)
        EXPECT_EQ(r.got, r.expected) << r.name;
}

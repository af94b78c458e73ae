// Public record layouts as the board sees them. Host tools and the board
// (both LP64) exchange st_data datagrams and shared maps byte for byte, and
// host applications are built against these records: any drift between the
// two builds shows up here. The cross build runs this under qemu.
#include "support.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstdio>

namespace {

struct Record {
    const char* name;
    size_t size, align, expected;
};

#define RECORD(T, expected) Record{#T, sizeof(T), alignof(T), expected}

const Record records[] = {
    RECORD(dov_para_profile, 152),
    RECORD(module_para_handle_s, 56),
    RECORD(module_para_protocol_handle_s, 32),
    RECORD(para_server_message_info, 4116),
    RECORD(param_handle_t, 24),
    RECORD(loop_json_s, 16),
    RECORD(image_size_s, 24),
    RECORD(st_data, 76),
    RECORD(dov_share_head_s, 12),
    RECORD(dbgout_profile_s, 48),
    RECORD(entry, 515),
    RECORD(fifo_worker, 32),
    RECORD(config_keys, 16),
    RECORD(loop_buf_s, 24),
};

TEST(Layout, PublicRecordsMatchTheBoardAbi)
{
    static_assert(sizeof(void*) == 8 && sizeof(long) == 8 && sizeof(int) == 4,
                  "the records are laid out for LP64 targets");
    std::printf("target: %s, char is %s\n",
#if defined(__aarch64__)
                "aarch64",
#elif defined(__x86_64__)
                "x86_64",
#else
                "other",
#endif
                CHAR_MIN < 0 ? "signed" : "unsigned");
    for (const Record& r : records) {
        std::printf("  %-32s size %5zu align %zu\n", r.name, r.size, r.align);
        EXPECT_EQ(r.size, r.expected) << r.name;
    }
}

TEST(Layout, WireRecordsHaveFixedOffsets)
{
    EXPECT_EQ(offsetof(st_data, value), 8u);
    EXPECT_EQ(offsetof(st_data, mod), 12u);
    EXPECT_EQ(offsetof(st_data, member), 28u);
    EXPECT_EQ(offsetof(st_data, string), 44u);
    EXPECT_EQ(offsetof(para_server_message_info, fd), 4096u);
    EXPECT_EQ(offsetof(para_server_message_info, addressRec), 4100u);
    EXPECT_EQ(offsetof(dov_para_profile, para_version_conflict), 32u);
    EXPECT_EQ(offsetof(dov_para_profile, conf_save), 144u);
    // One 32-bit slot per member, nothing else.
    EXPECT_EQ(sizeof(dov_video_param_s) % sizeof(int32_t), 0u);
    EXPECT_EQ(alignof(dov_video_param_s), alignof(int32_t));
}

} // namespace

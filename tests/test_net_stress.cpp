// Concurrency stress: host threads call the modules' public setters and
// getters while a datagram flood hits port 6800 and save sweeps run; after
// the final stop the saved files must hold the last accepted value of every
// member. Run longer under ThreadSanitizer:
//   PARA_STRESS_SECONDS=10 build-tsan/tests/test_net_stress
#include "para_internal.h"
#include "support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <thread>
#include <vector>

namespace {

/* What the saved files hold after the stop, per module. */
struct Files {
    para::JsonPtr video, audio, af, isp;
    para::JsonPtr odm;
    configure* misc = nullptr;
    configure* netport = nullptr;
    ~Files()
    {
        configure_free(misc);
        configure_free(netport);
    }
};

/* One value holder (module, member, stream) and its ways in and out. Each
 * cell has exactly one writer, so the writer knows the value that must end
 * up current and saved. */
struct Cell {
    std::string label;
    int lo, hi;
    std::function<void(int)> host_set;             // public setter
    std::function<int()> host_get;                 // value the getter answers
    std::function<std::string(int)> request;       // set datagram body; null: host only
    std::function<int(int)> requested_value;       // value the module makes of the request
    std::function<std::string(int)> text;          // the value as the file spells it
    std::function<std::string(const Files&)> saved; // what the file spells
};

std::string json_text(const cJSON* item)
{
    if (cJSON_IsString(item))
        return item->valuestring;
    if (cJSON_IsNumber(item))
        return std::to_string(para::json_int(item));
    return "(missing)";
}

std::string store_text(configure* store, const char* key)
{
    char buf[256];
    if (!store || store->get(store, key, buf, sizeof buf) != 0)
        return "(missing)";
    return buf;
}

int identity(int v)
{
    return v;
}

/* Typed-module members: names for named members, numbers otherwise. */
#define STRESS_TEXT_named(tag, M) [](int v) { return std::string(para_get_##tag##_##M##_str(v)); }
#define STRESS_TEXT_num(tag, M) [](int v) { return std::to_string(v); }
#define STRESS_REQ_named(tag, M) [](int v) { return "\"" + std::string(para_get_##tag##_##M##_str(v)) + "\""; }
#define STRESS_REQ_num(tag, M) [](int v) { return std::to_string(v); }
#define STRESS_BACK_named(tag, M) \
    [](int v) { return para_get_##tag##_##M##_num(const_cast<char*>(para_get_##tag##_##M##_str(v))); }
#define STRESS_BACK_num(tag, M) identity

/* The member's text in a saved file: record is the stream's object (or
 * the whole file of a flat module). */
std::string member_text(const cJSON* file, const std::string& record, const char* key)
{
    const cJSON* obj = record.empty() ? file : cJSON_GetObjectItem(file, record.c_str());
    return json_text(cJSON_GetObjectItem(obj, key));
}

void add_video_cells(std::vector<Cell>& cells)
{
    for (int s = 0; s < para_get_video_streamNum(); ++s) {
        std::string stream = "video" + std::to_string(s);
#define STRESS_VIDEO_CELL(M, kind, table)                                                     \
        if (para_get_video_##M##_cur(s) != -1)                                                \
            cells.push_back(Cell{                                                             \
                stream + "." #M, para_get_video_##M##_min(s), para_get_video_##M##_max(s),    \
                [s](int v) { para_set_video_##M##_cur(s, v); },                               \
                [s] { return para_get_video_##M##_cur(s); },                                  \
                [stream](int v) {                                                             \
                    return "\"" + stream + "\":{\"" #M "\":" + STRESS_REQ_##kind(video, M)(v) + "}"; \
                },                                                                            \
                STRESS_BACK_##kind(video, M), STRESS_TEXT_##kind(video, M),                   \
                [stream](const Files& f) { return member_text(f.video.get(), stream, #M); }});
        PARA_VIDEO_MEMBERS(STRESS_VIDEO_CELL)
    }
}

void add_audio_cells(std::vector<Cell>& cells)
{
#define STRESS_AUDIO_CELL(M, kind, table)                                                     \
    if (para_get_audio_##M##_cur() != -1 && para_get_audio_##M##_max() > para_get_audio_##M##_min()) \
        cells.push_back(Cell{                                                                 \
            "audio." #M, para_get_audio_##M##_min(), para_get_audio_##M##_max(),              \
            [](int v) { para_set_audio_##M##_cur(v); }, [] { return para_get_audio_##M##_cur(); }, \
            [](int v) { return "\"audio\":{\"" #M "\":" + STRESS_REQ_##kind(audio, M)(v) + "}"; }, \
            STRESS_BACK_##kind(audio, M), STRESS_TEXT_##kind(audio, M),                       \
            [](const Files& f) { return member_text(f.audio.get(), "", #M); }});
    PARA_AUDIO_MEMBERS(STRESS_AUDIO_CELL)
}

/* Focus and zoom take no set requests: host threads only. */
void add_af_cells(std::vector<Cell>& cells)
{
#define STRESS_AF_CELL(M)                                                                     \
    if (para_get_af_##M##_max() > para_get_af_##M##_min())                                    \
        cells.push_back(Cell{                                                                 \
            "af." #M, para_get_af_##M##_min(), para_get_af_##M##_max(),                       \
            [](int v) { para_set_af_##M##_cur(v); }, [] { return para_get_af_##M##_cur(); },  \
            nullptr, identity, [](int v) { return std::to_string(v); },                       \
            [](const Files& f) { return member_text(f.af.get(), "", #M); }});
    PARA_AF_MEMBERS(STRESS_AF_CELL)
}

/* The style member loads a whole style over the others: left out, every
 * other settable member of both ISPs is in. */
void add_isp_cells(std::vector<Cell>& cells)
{
    for (int p = 0; p < PARA_ISP_NUM; ++p) {
        std::string isp = "isp" + std::to_string(p);
#define STRESS_ISP_CELL_SET(m)                                                                \
        if (std::string_view(#m) != "style" && para_isp_exist[p].m &&                         \
            para_get_isp_##m##_max(p) > para_get_isp_##m##_min(p))                            \
            cells.push_back(Cell{                                                             \
                isp + "." #m, para_get_isp_##m##_min(p), para_get_isp_##m##_max(p),           \
                [p](int v) { para_set_isp_##m##_cur(p, v); },                                 \
                [p] { return para_get_isp_##m##_cur(p); },                                    \
                [isp](int v) { return "\"" + isp + "\":{\"" #m "\":" + std::to_string(v) + "}"; }, \
                identity, [](int v) { return std::to_string(v); },                            \
                [isp](const Files& f) { return member_text(f.isp.get(), isp, #m); }});
#define STRESS_ISP_CELL(m, file, set, out) PARA_ISP_IF_##set(PARA_ISP_IF_##out(STRESS_ISP_CELL_SET(m)))
        PARA_ISP_MEMBERS(STRESS_ISP_CELL)
    }
}

void add_misc_cells(std::vector<Cell>& cells)
{
#define STRESS_MISC_TEXT_name(m) [](int v) { return std::string(para_get_misc_##m##_str(v)); }
#define STRESS_MISC_TEXT_number(m) [](int v) { return std::to_string(v); }
#define STRESS_MISC_REQ_name(m) [](int v) { return "\"" + std::string(para_get_misc_##m##_str(v)) + "\""; }
#define STRESS_MISC_REQ_number(m) [](int v) { return std::to_string(v); }
#define STRESS_MISC_CELL(m, kind)                                                             \
    if (para_get_misc_##m##_cur() != -1 && para_get_misc_##m##_max() > para_get_misc_##m##_min()) \
        cells.push_back(Cell{                                                                 \
            "misc." #m, para_get_misc_##m##_min(), para_get_misc_##m##_max(),                 \
            [](int v) { para_set_misc_##m##_cur(v); }, [] { return para_get_misc_##m##_cur(); }, \
            [](int v) { return "\"misc\":{\"" #m "\":" + STRESS_MISC_REQ_##kind(m)(v) + "}"; }, \
            identity, STRESS_MISC_TEXT_##kind(m),                                             \
            [](const Files& f) { return store_text(f.misc, #m); }});
    PARA_MISC_MEMBERS(STRESS_MISC_CELL)
}

void add_netport_cells(std::vector<Cell>& cells)
{
    for (const char* key : {"http_port", "rtsp_port", "dhcp", "stress_a", "stress_b"}) {
        std::string k = key;
        cells.push_back(Cell{
            "netport." + k, 1, 65535,
            [k](int v) { para_conf_set_member("netport", k.c_str(), std::to_string(v).c_str()); },
            [k] {
                char buf[64];
                return para_conf_get_member_safe("netport", k.c_str(), buf, sizeof buf) == 0
                           ? std::atoi(buf)
                           : -1;
            },
            [k](int v) { return "\"netport\":{\"" + k + "\":\"" + std::to_string(v) + "\"}"; },
            identity, [](int v) { return std::to_string(v); },
            [k](const Files& f) { return store_text(f.netport, k.c_str()); }});
    }
}

/* The factory store has no request row: host threads only. */
void add_odm_cells(std::vector<Cell>& cells)
{
    for (const char* key : {"stress_odm_a", "stress_odm_b", "stress_odm_c"}) {
        std::string k = key;
        cells.push_back(Cell{
            "odm." + k, 0, 1000000,
            [k](int v) { para_set_odm_int(const_cast<char*>(k.c_str()), v); },
            [k] {
                int v = -1;
                para_get_odm_int(const_cast<char*>(k.c_str()), &v);
                return v;
            },
            nullptr, identity, [](int v) { return std::to_string(v); },
            [k](const Files& f) { return json_text(cJSON_GetObjectItem(f.odm.get(), k.c_str())); }});
    }
}

std::atomic<long> member_calls{0}, page_calls{0};

class Stress : public ::testing::Test {
protected:
    void SetUp() override
    {
        test::copy_dir_files(test::example_device_dir(), dir.ro());
        dir.use_as_profile();
        para_profile.conf_save = 1;
        para_profile.video_caller = [](void*, int, int) { ++member_calls; };
        para_profile.video_page_caller = [](void*) { ++page_calls; };
        para_profile.misc_caller = [](char*, const void*, char*, int) { ++member_calls; };
        para_profile.misc_page_caller = [](char*, void*) { ++page_calls; };
        para_profile.conf_caller_in = [](char*, const char*) { ++member_calls; };
        para_profile.conf_caller = [](char*) { ++page_calls; };
        para_profile.odm_caller = [](void*) { ++member_calls; };
        para_profile.audio_caller = [](void*, int) { ++member_calls; };
        para_profile.audio_page_caller = [](void*) { ++page_calls; };
        para_profile.af_caller = [](void*, int) { ++member_calls; };
        para_profile.isp_caller = [](void*, int, int) { ++member_calls; };
        para_profile.isp_page_caller = [](void*) { ++page_calls; };
        platformparam_set_save_param_time(50, 50);
        platformparam_init();
        ASSERT_EQ(para_server_bound_port(), PARA_SERVER_PORT);
    }

    void fail(const std::string& what)
    {
        std::lock_guard<std::mutex> lk(mu);
        if (failures.size() < 20)
            failures.push_back(what);
    }

    test::TempDir dir;
    std::mutex mu;
    std::vector<std::string> failures;
};

int stress_seconds()
{
    const char* env = std::getenv("PARA_STRESS_SECONDS");
    int s = env ? std::atoi(env) : 3;
    return s > 0 ? s : 3;
}

} // namespace

TEST_F(Stress, LastAcceptedValueOfEveryMemberIsSaved)
{
    std::vector<Cell> cells;
    add_video_cells(cells);
    add_misc_cells(cells);
    add_netport_cells(cells);
    add_odm_cells(cells);
    add_audio_cells(cells);
    add_af_cells(cells);
    add_isp_cells(cells);
    ASSERT_GT(cells.size(), 30u);

    // Owners 0..2 are host threads, owner 3 writes through the port. Every
    // cell has one owner; host-only cells go to the host threads.
    constexpr int kHosts = 3, kOwners = kHosts + 1;
    std::vector<std::vector<size_t>> owned(kOwners);
    for (size_t i = 0; i < cells.size(); ++i) {
        int o = static_cast<int>(i % kOwners);
        owned[!cells[i].request && o == kHosts ? i % kHosts : o].push_back(i);
    }
    std::vector<std::string> expected(cells.size());
    for (size_t i = 0; i < cells.size(); ++i) {
        int v = cells[i].host_get(); // -1: absent until written (new keys)
        expected[i] = v < 0 ? "" : cells[i].text(v);
    }

    std::atomic<bool> stop{false};
    std::atomic<long> writes{0}, requests{0}, sweeps{0}, reads{0};
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(stress_seconds());

    auto writer = [&](int owner) {
        std::mt19937 rng(1234 + owner);
        const auto& mine = owned[owner];
        while (!mine.empty() && std::chrono::steady_clock::now() < deadline) {
            size_t i = mine[rng() % mine.size()];
            const Cell& c = cells[i];
            int v = std::uniform_int_distribution<int>(c.lo, c.hi)(rng);
            if (owner < kHosts) {
                c.host_set(v);
            } else {
                std::string req = "{\"msg_type\":\"set\",\"msg_id\":" + std::to_string(writes.load()) +
                                  "," + c.request(v) + "}";
                // A flooded port may drop the datagram: send again until
                // answered (storing the same value twice changes nothing).
                while (!test::udp_request(req, 200) && std::chrono::steady_clock::now() < deadline + std::chrono::seconds(5)) {
                }
                v = c.requested_value(v);
                ++requests;
            }
            ++writes;
            int now = c.host_get();
            if (now != v)
                fail(c.label + ": wrote " + std::to_string(v) + ", reads " + std::to_string(now));
            expected[i] = c.text(v);
        }
    };
    auto reader = [&] {
        while (!stop) {
            for (const Cell& c : cells)
                c.host_get();
            ++reads;
        }
    };
    auto flood = [&] {
        const char* gets[] = {
            R"({"msg_type":"get","msg_id":1,"video0":["all"],"video1":["frameRate","size"]})",
            R"({"msg_type":"get","msg_id":2,"misc":["all"],"netport":["all"]})",
            R"({"msg_type":"get","msg_id":3,"misc_def":["all"],"video1":["all"]})",
            R"({"msg_type":"get","msg_id":4,"audio":["all"],"af":["all"],"isp0":["all"]})",
            R"({"msg_type":"get","msg_id":5,"isp1_cur_all":["all"],"isp0_def":["all"]})",
            R"({"msg_from":"www","msg_type":"get","msg_name":"encode"})",
        };
        // Each request waits for its answer: the port stays busy all the
        // time, yet a slow machine (sanitizers, two cores) never builds the
        // backlog that would make the kernel drop the writers' datagrams.
        for (size_t n = 0; !stop; ++n)
            test::udp_request(gets[n % std::size(gets)], 500);
    };
    auto saver = [&] {
        while (!stop) {
            platformparam_save();
            save_cur_video_param_delay(0);
            save_cur_audio_param_delay(0);
            ++sweeps;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    };

    std::vector<std::thread> background;
    background.emplace_back(reader);
    background.emplace_back(flood);
    background.emplace_back(saver);
    std::vector<std::thread> writers;
    for (int o = 0; o < kOwners; ++o)
        writers.emplace_back(writer, o);
    for (auto& t : writers)
        t.join();
    stop = true;
    for (auto& t : background)
        t.join();

    // Each kind of work overlapped the others; how often depends on how busy
    // the machine is, so only that it ran is checked.
    EXPECT_GT(writes.load(), 100);
    EXPECT_GT(requests.load(), 0);
    EXPECT_GT(sweeps.load(), 0);
    EXPECT_GT(member_calls.load(), 0);
    EXPECT_GT(page_calls.load(), 0);
    for (const auto& f : failures)
        ADD_FAILURE() << f;

    platformparam_stop(1);
    Files files;
    bool unreadable = false;
    for (auto [json, name] : {std::pair{&files.video, "video"}, {&files.audio, "audio"},
                              {&files.af, "af"}, {&files.isp, "isp"}}) {
        *json = para::load_json_file(__func__, (dir.rw() + "/" + name + "_cur.json").c_str(),
                                     &unreadable, false);
        EXPECT_TRUE(*json) << name;
    }
    files.odm =
        para::load_json_file(__func__, (dir.rw() + "/persist/odm.json").c_str(), &unreadable, false);
    files.misc = configure_init();
    files.netport = configure_init();
    ASSERT_EQ(configure_parse(files.misc, nullptr, (dir.rw() + "/misc.conf").c_str()), 0);
    ASSERT_EQ(configure_parse(files.netport, nullptr, (dir.rw() + "/netport.conf").c_str()), 0);
    ASSERT_TRUE(files.odm);
    for (size_t i = 0; i < cells.size(); ++i) {
        if (!expected[i].empty()) {
            EXPECT_EQ(cells[i].saved(files), expected[i]) << cells[i].label;
        }
    }
    RecordProperty("writes", static_cast<int>(writes.load()));
    RecordProperty("requests", static_cast<int>(requests.load()));
    RecordProperty("sweeps", static_cast<int>(sweeps.load()));
}

/* Several host threads stopping at once (a signal handler's thread and the
 * main loop, say): the worker is joined once, every module saved, and every
 * call returns. */
TEST_F(Stress, ConcurrentStopsJoinTheWorkerOnce)
{
    para_set_video_gop_cur(0, 42);
    test::LogCapture log(PARA_INFO);
    std::atomic<int> ready{0};
    std::vector<std::thread> stoppers;
    for (int i = 0; i < 4; ++i)
        stoppers.emplace_back([&] {
            ++ready;
            while (ready.load() < 4) {
            }
            EXPECT_EQ(platformparam_stop(1), 0);
        });
    for (auto& t : stoppers)
        t.join();
    EXPECT_EQ(log.count("platformparam_stop ok"), 1);
    auto saved = test::read_file(dir.rw() + "/video_cur.json");
    ASSERT_TRUE(saved);
    EXPECT_NE(saved->find("\"gop\":\t42"), std::string::npos);
}

// Concurrency stress: host threads call the modules' public setters and
// getters while a datagram flood hits port 6800 and save sweeps run; after the
// final stop the saved files hold the last accepted value of every member.
// Longer under ThreadSanitizer: PARA_STRESS_SECONDS=10 build-tsan/tests/test_net_stress
#include "para_internal.h"
#include "support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <random>
#include <thread>

namespace {

/* One value holder with exactly one writer, who therefore knows the value
 * that must end up current and saved. file indexes Files::json (video, audio,
 * af, isp, odm) or, from 5, Files::store (misc, netport). */
struct Cell {
    std::string record, key; // record "": no set request, host threads only
    int lo, hi;
    std::function<void(int)> set;
    std::function<int()> get;
    std::string (*text)(int); // the value as request and file spell it
    bool quoted;
    int file;
    std::string file_record; // the object in the file holding key ("": the top)
};
struct Files {
    para::JsonPtr json[5];
    configure* store[2] = {configure_init(), configure_init()};
    ~Files() { configure_free(store[0]), configure_free(store[1]); }
};
std::string saved(const Cell& c, const Files& f)
{
    char buf[256];
    if (c.file >= 5)
        return f.store[c.file - 5]->get(f.store[c.file - 5], c.key.c_str(), buf, sizeof buf) == 0 ? buf : "(missing)";
    const cJSON* obj = f.json[c.file].get();
    const cJSON* item = cJSON_GetObjectItem(c.file_record.empty() ? obj : cJSON_GetObjectItem(obj, c.file_record.c_str()), c.key.c_str());
    return cJSON_IsString(item) ? item->valuestring : cJSON_IsNumber(item) ? std::to_string(para::json_int(item)) : "(missing)";
}
std::string num(int v) { return std::to_string(v); }
// How each kind of member is spelled, and whether requests quote it.
#define TEXT_num(tag, M) num, false
#define TEXT_number(tag, M) num, false
#define TEXT_named(tag, M) [](int v) { return std::string(para_get_##tag##_##M##_str(v)); }, true
#define TEXT_name(tag, M) TEXT_named(tag, M)

std::vector<Cell> all_cells()
{
    std::vector<Cell> cells;
    for (int s = 0; s < para_get_video_streamNum(); ++s) {
        std::string r = "video" + std::to_string(s);
#define VIDEO_CELL(M, kind, table) if (para_get_video_##M##_cur(s) != -1) cells.push_back({r, #M, \
    para_get_video_##M##_min(s), para_get_video_##M##_max(s), [s](int v) { para_set_video_##M##_cur(s, v); }, \
    [s] { return para_get_video_##M##_cur(s); }, TEXT_##kind(video, M), 0, r});
        PARA_VIDEO_MEMBERS(VIDEO_CELL)
    }
#define AUDIO_CELL(M, kind, table) if (para_get_audio_##M##_cur() != -1 && para_get_audio_##M##_max() > para_get_audio_##M##_min()) \
    cells.push_back({"audio", #M, para_get_audio_##M##_min(), para_get_audio_##M##_max(), [](int v) { para_set_audio_##M##_cur(v); }, \
        [] { return para_get_audio_##M##_cur(); }, TEXT_##kind(audio, M), 1, ""});
    PARA_AUDIO_MEMBERS(AUDIO_CELL)
    // focus and zoom take no set requests
#define AF_CELL(M) if (para_get_af_##M##_max() > para_get_af_##M##_min()) cells.push_back({"", #M, para_get_af_##M##_min(), \
    para_get_af_##M##_max(), [](int v) { para_set_af_##M##_cur(v); }, [] { return para_get_af_##M##_cur(); }, num, false, 2, ""});
    PARA_AF_MEMBERS(AF_CELL)
    // the style loads a whole style over the others: left out
    for (int p = 0; p < PARA_ISP_NUM; ++p) {
        std::string r = "isp" + std::to_string(p);
#define ISP_CELL_SET(m) if (std::string(#m) != "style" && para_isp_exist[p].m && para_get_isp_##m##_max(p) > para_get_isp_##m##_min(p)) \
    cells.push_back({r, #m, para_get_isp_##m##_min(p), para_get_isp_##m##_max(p), [p](int v) { para_set_isp_##m##_cur(p, v); }, \
        [p] { return para_get_isp_##m##_cur(p); }, num, false, 3, r});
#define ISP_CELL(m, file, set, out) PARA_ISP_IF_##set(PARA_ISP_IF_##out(ISP_CELL_SET(m)))
        PARA_ISP_MEMBERS(ISP_CELL)
    }
    for (std::string k : {"stress_odm_a", "stress_odm_b", "stress_odm_c"}) // the factory store takes no requests
        cells.push_back({"", k, 0, 1000000, [k](int v) { para_set_odm_int(const_cast<char*>(k.c_str()), v); },
            [k] { int v = -1; return para_get_odm_int(const_cast<char*>(k.c_str()), &v), v; }, num, false, 4, ""});
#define MISC_CELL(m, kind) if (para_get_misc_##m##_cur() != -1 && para_get_misc_##m##_max() > para_get_misc_##m##_min()) \
    cells.push_back({"misc", #m, para_get_misc_##m##_min(), para_get_misc_##m##_max(), [](int v) { para_set_misc_##m##_cur(v); }, \
        [] { return para_get_misc_##m##_cur(); }, TEXT_##kind(misc, m), 5, ""});
    PARA_MISC_MEMBERS(MISC_CELL)
    for (std::string k : {"http_port", "rtsp_port", "dhcp", "stress_a", "stress_b"})
        cells.push_back({"netport", k, 1, 65535, [k](int v) { para_conf_set_member("netport", k.c_str(), num(v).c_str()); },
            [k] { char b[64]; return para_conf_get_member_safe("netport", k.c_str(), b, sizeof b) == 0 ? std::atoi(b) : -1; },
            num, true, 6, ""});
    return cells;
}

std::atomic<long> member_calls{0}, page_calls{0};

} // namespace

TEST(Stress, LastAcceptedValueOfEveryMemberIsSaved)
{
    test::TempDir dir;
    test::copy_dir_files(test::example_device_dir(), dir.ro());
    dir.use_as_profile();
    auto& p = para_profile;
    p.conf_save = 1;
    p.video_caller = p.isp_caller = [](void*, int, int) { ++member_calls; };
    p.audio_caller = p.af_caller = [](void*, int) { ++member_calls; };
    p.misc_caller = [](char*, const void*, char*, int) { ++member_calls; };
    p.conf_caller_in = [](char*, const char*) { ++member_calls; };
    p.odm_caller = [](void*) { ++member_calls; };
    p.video_page_caller = p.audio_page_caller = p.isp_page_caller = [](void*) { ++page_calls; };
    p.misc_page_caller = [](char*, void*) { ++page_calls; };
    p.conf_caller = [](char*) { ++page_calls; };
    platformparam_set_save_param_time(50, 50);
    platformparam_init();
    ASSERT_EQ(para_server_bound_port(), PARA_SERVER_PORT);
    std::vector<Cell> cells = all_cells();
    ASSERT_GT(cells.size(), 30u);
    // Owners 0..2 are host threads, owner 3 writes through the port; cells
    // without a request go to the host threads.
    constexpr int kHosts = 3;
    std::vector<size_t> owned[kHosts + 1];
    std::vector<std::string> expected, failures;
    for (size_t i = 0; i < cells.size(); ++i) {
        owned[cells[i].record.empty() && i % 4 == kHosts ? i % kHosts : i % 4].push_back(i);
        int v = cells[i].get(); // -1: absent until written (new keys)
        expected.push_back(v < 0 ? "" : cells[i].text(v));
    }
    const char* seconds = std::getenv("PARA_STRESS_SECONDS");
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds && std::atoi(seconds) > 0 ? std::atoi(seconds) : 3);
    std::atomic<bool> stop{false};
    std::atomic<long> writes{0}, requests{0}, sweeps{0};
    std::mutex mu;
    auto writer = [&](int owner) {
        std::mt19937 rng(1234 + owner);
        while (!owned[owner].empty() && std::chrono::steady_clock::now() < deadline) {
            size_t i = owned[owner][rng() % owned[owner].size()];
            const Cell& c = cells[i];
            int v = std::uniform_int_distribution<int>(c.lo, c.hi)(rng);
            if (owner < kHosts) {
                c.set(v);
            } else { // a flooded port may drop it: again until answered (the same value twice changes nothing)
                std::string t = c.quoted ? "\"" + c.text(v) + "\"" : c.text(v);
                std::string req = R"({"msg_type":"set","msg_id":)" + num(writes) + ",\"" + c.record + "\":{\"" + c.key + "\":" + t + "}}";
                while (!test::udp_request(req, 200) && std::chrono::steady_clock::now() < deadline + std::chrono::seconds(5)) {
                }
                ++requests;
            }
            ++writes;
            if (c.text(c.get()) != c.text(v)) {
                std::lock_guard<std::mutex> lk(mu);
                failures.push_back(c.record + "." + c.key + ": wrote " + c.text(v) + ", reads " + c.text(c.get()));
            }
            expected[i] = c.text(v);
        }
    };
    const char* gets[] = {R"({"msg_type":"get","msg_id":1,"video0":["all"],"video1":["frameRate","size"]})",
        R"({"msg_type":"get","msg_id":2,"misc":["all"],"netport":["all"]})", R"({"msg_type":"get","misc_def":["all"],"video1":["all"]})",
        R"({"msg_type":"get","msg_id":4,"audio":["all"],"af":["all"],"isp0":["all"]})",
        R"({"msg_type":"get","isp1_cur_all":["all"],"isp0_def":["all"]})", R"({"msg_from":"www","msg_type":"get","msg_name":"encode"})"};
    std::vector<std::thread> background, writers;
    background.emplace_back([&] { while (!stop) for (const Cell& c : cells) c.get(); });
    // Each request waits for its answer: the port stays busy, yet a slow
    // machine never builds the backlog that would drop the writers' datagrams.
    background.emplace_back([&] { for (size_t n = 0; !stop; ++n) test::udp_request(gets[n % std::size(gets)], 500); });
    background.emplace_back([&] {
        while (!stop) {
            platformparam_save(), save_cur_video_param_delay(0), save_cur_audio_param_delay(0), ++sweeps;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    for (int o = 0; o <= kHosts; ++o)
        writers.emplace_back(writer, o);
    for (auto& t : writers)
        t.join();
    stop = true;
    for (auto& t : background)
        t.join();
    // Each kind of work ran alongside the others; how often is the machine's business.
    for (long n : {writes.load(), requests.load(), sweeps.load(), member_calls.load(), page_calls.load()})
        EXPECT_GT(n, 0);
    for (const auto& f : failures)
        ADD_FAILURE() << f;

    // Several host threads stopping at once (a signal handler's thread and the
    // main loop, say): the worker is joined once, every call returns.
    test::LogCapture log(PARA_INFO);
    std::atomic<int> ready{0};
    for (int i = 0; i < 4; ++i)
        writers[i] = std::thread([&] { for (++ready; ready < 4;) {} EXPECT_EQ(platformparam_stop(1), 0); });
    for (auto& t : writers)
        t.join();
    EXPECT_EQ(log.count("platformparam_stop ok"), 1);
    Files files;
    bool unreadable = false;
    const char* json_files[] = {"video_cur.json", "audio_cur.json", "af_cur.json", "isp_cur.json", "persist/odm.json"};
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(files.json[i] = para::load_json_file(__func__, (dir.rw() + "/" + json_files[i]).c_str(), &unreadable, false)) << json_files[i];
    ASSERT_EQ(configure_parse(files.store[0], nullptr, (dir.rw() + "/misc.conf").c_str()), 0);
    ASSERT_EQ(configure_parse(files.store[1], nullptr, (dir.rw() + "/netport.conf").c_str()), 0);
    for (size_t i = 0; i < cells.size(); ++i)
        EXPECT_TRUE(expected[i].empty() || saved(cells[i], files) == expected[i]) << cells[i].record << "." << cells[i].key
            << ": " << saved(cells[i], files) << " saved, " << expected[i] << " written";
    RecordProperty("writes", static_cast<int>(writes)), RecordProperty("sweeps", static_cast<int>(sweeps));
}

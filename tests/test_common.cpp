// The common service stand-in: trace output, path joining, the configure
// store, the deferred-work queue and line updates of the host application's
// own key = value files; single-threaded cases are scenarios of
// tests/data/common and conf_lines.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "scenario.h"
#include "support.h"

#include <atomic>
#include <random>
#include <thread>
#include <vector>

SCENARIO_TESTS(CommonScenario, "common", false);
SCENARIO_TESTS(ConfLineScenario, "conf_lines", false);

TEST(Trace, LevelFilterPrefixAndLineFeed)
{
    test::LogCapture log(6);
    const int line = __LINE__ + 1;
    PARA_LOG(PARA_INFO, "value %d\n", 5);
    PARA_LOG(PARA_DETAIL, "hidden");
    PARA_LOG(PARA_ERR, "already ends\n");
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("[para TestBody +", 0), 0u);
    EXPECT_NE(lines[0].find("]value 5\n"), std::string::npos);
    EXPECT_EQ(lines[1].back(), '\n');
    EXPECT_NE(lines[1][lines[1].size() - 2], '\n'); // no second line feed added
    // The source line sits left-aligned in four columns.
    char col[16];
    snprintf(col, sizeof col, " +%-4d]", line);
    EXPECT_NE(lines[0].find(col), std::string::npos) << lines[0];

    // A line longer than the trace buffer is cut, still ends in a line feed.
    log.clear();
    PARA_LOG(PARA_ERR, "%s", std::string(10000, 'x').c_str());
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].back(), '\n');
    EXPECT_LT(log.lines()[0].size(), 4097u);
    // Unprefixed, the trace writes what it is given: the line feeds are the format's.
    log.clear();
    dov_traceout(PARA_INFO, "%s", "two\n\n");
    dov_traceout(PARA_INFO, "%s", "none");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"two\n\n", "none"}));
}

TEST(Configure, ConcurrentWritersAndReaders)
{
    configure* s = configure_init();
    std::atomic<bool> stop{false};
    std::vector<std::thread> ts;
    for (int t = 0; t < 3; ++t)
        ts.emplace_back([&, t] {
            char key[16], val[16], buf[256];
            for (int i = 0; i < 2000; ++i) {
                snprintf(key, sizeof key, "k%d", i % 50);
                snprintf(val, sizeof val, "%d", t * 10000 + i);
                s->put(s, key, val);
                s->get(s, key, buf, sizeof buf);
            }
        });
    std::thread reader([&] { // counts the entries while the writers add them
        for (int n = 0; !stop; n = 0)
            s->loop(s, [](void* c, const char*, const char*) { ++*static_cast<int*>(c); return 0; }, &n);
    });
    for (auto& t : ts)
        t.join();
    stop = true;
    reader.join();
    EXPECT_EQ(s->list.used, 50u);
    configure_free(s);
}

TEST(FifoWork, TriggeredRecordsRunOnTheQueueThread)
{
    static std::atomic<int> runs{0};
    static std::string seen;
    static std::thread::id where;
    fifo_worker recs[2] = {
        {"dump", "enum", [](const char* v, void* a) { seen = std::string(v) + (a ? "+" : "-"); where = std::this_thread::get_id(); ++runs; }, nullptr},
        {"other", nullptr, [](const char*, void*) { runs += 100; }, nullptr},
    };
    ASSERT_EQ(add_fifo_work(recs, 2), 0);
    EXPECT_EQ(runs.load(), 0); // registering runs nothing
    EXPECT_EQ(fifo_work_trigger("dump", nullptr), 1);
    fifo_work_drain();
    EXPECT_EQ(runs.load(), 1);
    EXPECT_EQ(seen, "enum-");
    EXPECT_NE(where, std::this_thread::get_id());
    EXPECT_EQ(fifo_work_run("dump", "now"), 1);
    EXPECT_EQ(seen, "now-");
    EXPECT_EQ(fifo_work_trigger("missing", nullptr), 0);
    EXPECT_EQ(fifo_work_trigger(nullptr, nullptr), 2);
    fifo_work_drain();
    EXPECT_EQ(runs.load(), 103);
}

TEST(ConfLines, ConcurrentWritersLoseNoUpdate)
{
    test::TempDir dir;
    std::string file = dir.path() + "/host.conf";
    test::write_file(file, "a=0\nb=0\n");
    auto writer = [&](const char* key) {
        for (int i = 1; i <= 150; ++i)
            ASSERT_EQ(update_line_conf_int(&file[0], const_cast<char*>(key), i, const_cast<char*>("%s=%d")), 0);
    };
    std::thread ta(writer, "a"), tb(writer, "b");
    ta.join();
    tb.join();
    EXPECT_EQ(test::read_file(file), "a=150\nb=150\n");
}

namespace {

cJSON* random_tree(std::mt19937& rng, int depth)
{
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    auto text = [&] {
        std::string s;
        for (int i = pick(8); i > 0; --i)
            s += static_cast<char>(1 + pick(255)); // control bytes, quotes, high bytes
        return s;
    };
    const double numbers[] = {0, -0.0, 1, -1, 2147483647.0, -2147483648.0, 3e9, -3e9, 0.1, 1.25, 1e300, -4.5e-7,
                              123456789.123, 60};
    switch (depth > 3 ? pick(5) : pick(7)) {
    case 0: return cJSON_CreateNull();
    case 1: return cJSON_CreateBool(pick(2));
    case 2: return cJSON_CreateNumber(numbers[pick(14)]);
    case 3: return cJSON_CreateNumber(static_cast<double>(static_cast<int32_t>(rng())));
    case 4: return cJSON_CreateString(text().c_str());
    case 5: {
        cJSON* a = cJSON_CreateArray();
        for (int i = pick(4); i > 0; --i)
            cJSON_AddItemToArray(a, random_tree(rng, depth + 1));
        return a;
    }
    default: {
        cJSON* o = cJSON_CreateObject();
        for (int i = pick(4); i > 0; --i)
            cJSON_AddItemToObject(o, text().c_str(), random_tree(rng, depth + 1));
        return o;
    }
    }
}

} // namespace

TEST(PrintJson, SameBytesAsTheJsonLibrary)
{
    std::mt19937 rng(12345);
    const char* files[] = {"video_def.json", "isp0_def.json", "www2json.json", "audio_range.json"};
    for (int i = 0; i < 3004; ++i) { // the example's files, then random trees
        para::JsonPtr tree(i >= 4 ? random_tree(rng, 0)
            : cJSON_Parse(para::CharPtr(read_file_to_buf((test::example_device_dir() + "/" + files[i]).c_str())).get()));
        para::CharPtr ours(para::print_json(tree.get())), theirs(cJSON_Print(tree.get()));
        ASSERT_TRUE(ours && theirs) << "tree " << i;
        ASSERT_STREQ(ours.get(), theirs.get()) << "tree " << i;
    }
    EXPECT_EQ(para::print_json(nullptr), nullptr);
}

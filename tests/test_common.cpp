// The common service stand-in: trace output, path joining, the configure
// store and the deferred-work queue.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "support.h"

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

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
}

TEST(Files, CatFileNameAndReadFile)
{
    char buf[16];
    EXPECT_EQ(cat_file_name(buf, sizeof buf, "/a", "b.json"), 9);
    EXPECT_STREQ(buf, "/a/b.json");
    cat_file_name(buf, sizeof buf, "/a/", "b");
    EXPECT_STREQ(buf, "/a/b");
    cat_file_name(buf, sizeof buf, nullptr, "b");
    EXPECT_STREQ(buf, "b");
    EXPECT_EQ(cat_file_name(buf, sizeof buf, "/a/long/dir", "name.json"), -1);
    EXPECT_STREQ(buf, "");

    char path[PARA_PATH_MAX];
    EXPECT_FALSE(para::make_path(path, std::string(125, 'd').c_str(), "x", ".json"));
    EXPECT_STREQ(path, "");

    test::TempDir dir;
    std::string bin("a\0b", 3);
    test::write_file(dir.path() + "/f", bin);
    size_t len = 0;
    char* text = read_file_to_buf_len((dir.path() + "/f").c_str(), &len);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(text[3], '\0');
    free(text);
    EXPECT_EQ(read_file_to_buf((dir.path() + "/missing").c_str()), nullptr);

    char num[12];
    EXPECT_STREQ(lib_itoa(-2147483647 - 1, num), "-2147483648");
    timespec a{10, 900000000}, b{12, 100000000};
    EXPECT_EQ(lib_common_diff_msec_timespec(&a, &b), 1200);
    EXPECT_EQ(lib_system("exit 3"), 3);
}

TEST(Configure, ParsesBothLineFormsAndReadsBackWhatItWrites)
{
    test::TempDir dir;
    std::string p = dir.path() + "/a.conf";
    test::write_file(p, "# comment\n\nip=10.0.0.2\nname = \"cam one\"\n  spaced =  x y  \r\nnoequals\n=novalue\n"
                        "empty=\nquoted=\"\"\n");
    configure* s = configure_init();
    ASSERT_EQ(configure_parse(s, nullptr, p.c_str()), 0);
    char buf[256];
    EXPECT_EQ(s->get(s, "ip", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "10.0.0.2");
    s->get(s, "name", buf, sizeof buf);
    EXPECT_STREQ(buf, "cam one");
    s->get(s, "spaced", buf, sizeof buf);
    EXPECT_STREQ(buf, "x y");
    EXPECT_EQ(s->get(s, "empty", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_NE(s->get(s, "noequals", buf, sizeof buf), 0);
    EXPECT_EQ(s->list.used, 5u);

    // Values that the bare form would not carry come back quoted.
    EXPECT_EQ(s->put(s, "lead", " blank"), 1);
    EXPECT_EQ(s->put(s, "q", "\"x\""), 1);
    EXPECT_EQ(s->put(s, "lead", " blank"), 0);
    EXPECT_EQ(s->put(s, "bad", "two\nlines"), -1);
    EXPECT_EQ(s->put(s, std::string(256, 'k').c_str(), "v"), -1);
    EXPECT_EQ(s->put(s, "k", std::string(255, 'v').c_str()), 1);

    std::string out = dir.path() + "/out.conf";
    FILE* f = fopen(out.c_str(), "w");
    s->loop(s, loop_2_conf, f);
    fclose(f);
    configure* back = configure_init();
    ASSERT_EQ(configure_parse(back, nullptr, out.c_str()), 0);
    ASSERT_EQ(back->list.used, s->list.used);
    for (uint32_t i = 0; i < s->list.used; ++i) {
        EXPECT_STREQ(back->list.ptr[i].key, s->list.ptr[i].key);
        EXPECT_STREQ(back->list.ptr[i].value, s->list.ptr[i].value) << s->list.ptr[i].key;
    }
    configure_free(back);

    // get into a buffer that is too small: refused, text cut and terminated.
    char small[4];
    EXPECT_NE(s->get(s, "name", small, sizeof small), 0);
    EXPECT_STREQ(small, "cam");
    configure_free(s);
    configure* empty = configure_init();
    EXPECT_EQ(configure_parse(empty, nullptr, (dir.path() + "/none").c_str()), -1);
    configure_free(empty);
}

TEST(Configure, LoopToBufferStopsWhenFull)
{
    configure* s = configure_init();
    s->put(s, "a", "1");
    s->put(s, "b", "22");
    char buf[16];
    loop_buf_s lb{buf, sizeof buf, 0, 0};
    s->loop(s, loop_2_buf, &lb);
    EXPECT_EQ(lb.ret, 0);
    EXPECT_STREQ(buf, "a=1\nb=22\n");
    EXPECT_EQ(lb.used, 9);
    // Exactly one byte short of room for the terminator.
    char tight[9];
    loop_buf_s lt{tight, sizeof tight, 0, 0};
    s->loop(s, loop_2_buf, &lt);
    EXPECT_NE(lt.ret, 0);
    EXPECT_EQ(lt.used, 4);
    configure_free(s);
}

TEST(Configure, ChangedKeysAfterReparse)
{
    test::TempDir dir;
    std::string p = dir.path() + "/n.conf";
    test::write_file(p, "a=1\nb=2\nc=3\n");
    configure* s = configure_init();
    configure_parse(s, nullptr, p.c_str());
    const char* names[] = {"a", "b", "c"};
    config_keys* keys = config_keys_format(names, 3);
    // First load marks everything; draining clears the marks.
    while (configure_key_IsChanged(s, keys) >= 0) {
    }
    test::write_file(p, "a=1\nb=2\nc=4\n");
    configure_parse(s, nullptr, p.c_str());
    EXPECT_EQ(configure_key_IsChanged(s, keys), 2);
    EXPECT_EQ(configure_key_IsChanged(s, keys), -1);
    // A filter limits what a parse takes.
    test::write_file(p, "a=9\nb=9\n");
    configure_parse(s, keys + 1, p.c_str());
    char buf[8];
    s->get(s, "a", buf, sizeof buf);
    EXPECT_STREQ(buf, "1");
    s->get(s, "b", buf, sizeof buf);
    EXPECT_STREQ(buf, "9");
    free(keys);
    configure_free(s);
}

TEST(Configure, EntriesHandedOutSurviveGrowth)
{
    configure* s = configure_init();
    s->put(s, "ip", "10.0.0.1");
    entry* held = s->getparameter(s, "ip");
    ASSERT_NE(held, nullptr);
    for (int i = 0; i < 100; ++i) // several reallocations of the entry array
        s->put(s, ("k" + std::to_string(i)).c_str(), "v");
    EXPECT_STREQ(held->value, "10.0.0.1"); // a freed array fails here under ASan
    char buf[16];
    ASSERT_EQ(s->get(s, "ip", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "10.0.0.1");
    EXPECT_EQ(s->list.used, 101u);
    configure_free(s);
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
    std::thread reader([&] {
        while (!stop) {
            int n = 0;
            s->loop(s, [](void* c, const char*, const char*) { ++*static_cast<int*>(c); return 0; }, &n);
        }
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
    for (int i = 0; i < 3000; ++i) {
        para::JsonPtr tree(random_tree(rng, 0));
        para::CharPtr ours(para::print_json(tree.get()));
        para::CharPtr theirs(cJSON_Print(tree.get()));
        ASSERT_TRUE(ours && theirs);
        ASSERT_STREQ(ours.get(), theirs.get()) << "tree " << i;
    }
    for (const char* f : {"video_def.json", "isp0_def.json", "www2json.json", "audio_range.json"}) {
        para::CharPtr text(read_file_to_buf((test::example_device_dir() + "/" + f).c_str()));
        para::JsonPtr tree(cJSON_Parse(text.get()));
        para::CharPtr ours(para::print_json(tree.get()));
        para::CharPtr theirs(cJSON_Print(tree.get()));
        EXPECT_STREQ(ours.get(), theirs.get()) << f;
    }
    EXPECT_EQ(para::print_json(nullptr), nullptr);
}

// Inputs found by the fuzz targets (fuzz/): each once crashed or broke an
// invariant the targets check.
#include "para_internal.h"
#include "support.h"

#include <gtest/gtest.h>

namespace {

struct Store : std::unique_ptr<configure, void (*)(configure*)> {
    Store() : unique_ptr(configure_init(), configure_free), s(get()) {}
    configure* s;
};

// The store written as a .conf file reads back to the same entries in the
// same order.
void expect_file_round_trip(const Store& store)
{
    test::TempDir dir;
    FILE* f = fopen((dir.path() + "/out.conf").c_str(), "w");
    ASSERT_NE(f, nullptr);
    store.s->loop(store.s, loop_2_conf, f);
    fclose(f);
    Store again;
    ASSERT_EQ(configure_parse(again.s, nullptr, (dir.path() + "/out.conf").c_str()), 0);
    ASSERT_EQ(again.s->list.used, store.s->list.used);
    for (uint32_t i = 0; i < store.s->list.used; ++i)
        EXPECT_EQ(std::string(again.s->list.ptr[i].key) + "=" + again.s->list.ptr[i].value,
                  std::string(store.s->list.ptr[i].key) + "=" + store.s->list.ptr[i].value);
}

} // namespace

// A NUL byte inside a .conf line ended the key early, after the blanks had
// been trimmed: the key kept a trailing blank that the file form cannot
// carry. Keys reach the store from requests too: one holding "=", starting
// with a comment mark or with a blank at either end was written as a line
// that read back as another key (or none); such keys are refused.
TEST(Regression, ConfStoreReadsBackWhatItTook)
{
    test::TempDir dir;
    test::write_file(dir.path() + "/in.conf", std::string("/ \0\x04=\nname \0junk= x\nport=80 \0tail\n", 33));
    Store store;
    ASSERT_EQ(configure_parse(store.s, nullptr, (dir.path() + "/in.conf").c_str()), 0);
    char buf[CONFIGURE_TEXT_MAX];
    EXPECT_EQ(store.s->get(store.s, "port", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "80");
    EXPECT_EQ(store.s->list.used, 1u);
    expect_file_round_trip(store);
    for (const char* key : {"v=w", "=x", "# note", "; note", " lead", "trail ", "tab\t"})
        EXPECT_EQ(store.s->put(store.s, key, "k"), -1) << key;
    for (const char* key : {"a b", "\"", "x#", "v;w"})
        EXPECT_EQ(store.s->put(store.s, key, "=v w= "), 1) << key;
    EXPECT_EQ(store.s->list.used, 5u);
    expect_file_round_trip(store);
}

// The .conf reader of the key/value store, and the two writers that must
// produce text it reads back to the same entries.
#include "support.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

int collect(void* argv, const char* key, const char* value)
{
    static_cast<Entries*>(argv)->emplace_back(key, value);
    return 0;
}

Entries entries_of(configure* s)
{
    Entries out;
    s->loop(s, collect, &out);
    return out;
}

void check_same(const Entries& want, const Entries& got, const char* how)
{
    if (want == got)
        return;
    std::fprintf(stderr, "%s round trip changed the store: %zu entries became %zu\n", how, want.size(),
                 got.size());
    for (size_t i = 0; i < want.size() || i < got.size(); ++i)
        std::fprintf(stderr, "  [%s]=[%s]  vs  [%s]=[%s]\n", i < want.size() ? want[i].first.c_str() : "-",
                     i < want.size() ? want[i].second.c_str() : "-", i < got.size() ? got[i].first.c_str() : "-",
                     i < got.size() ? got[i].second.c_str() : "-");
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static fuzz::MemFile in("conf-in");
    static fuzz::MemFile out("conf-out");
    static char buf[64 * 1024];
    in.assign(data, size);

    fuzz::Store store;
    if (configure_parse(store.s, nullptr, in.path()) != 0)
        std::abort(); // an in-memory file is always readable

    // Keys also come from requests, not only from files: every value read
    // is offered back as a key. Whatever the store takes, its file must
    // carry.
    for (const auto& [k, v] : entries_of(store.s))
        store.s->put(store.s, v.c_str(), k.c_str());
    const Entries want = entries_of(store.s);

    // Every value the store holds is reachable by its key.
    char value[CONFIGURE_TEXT_MAX];
    for (const auto& [k, v] : want) {
        if (store.s->get(store.s, k.c_str(), value, sizeof value) != 0 || v != value)
            std::abort();
        if (store.s->put(store.s, k.c_str(), v.c_str()) != 0)
            std::abort(); // same text: no change
    }

    // The file writer's text reads back to the same entries.
    char* text_buf = nullptr;
    size_t text_len = 0;
    FILE* f = open_memstream(&text_buf, &text_len);
    if (!f)
        std::abort();
    store.s->loop(store.s, loop_2_conf, f);
    std::fclose(f);
    const std::string text(text_buf, text_len);
    std::free(text_buf);
    out.assign(text.data(), text.size());
    fuzz::Store again;
    configure_parse(again.s, nullptr, out.path());
    check_same(want, entries_of(again.s), "loop_2_conf");

    // The buffer writer writes the same text when it has room for it and
    // its terminator, and reports a shortage, in bounds, when it has not.
    if (text.size() + 1 > sizeof buf)
        return 0;
    const int needed = static_cast<int>(text.size()) + 1;
    buf[0] = '\0'; // callers clear the buffer: an empty store writes nothing
    loop_buf_s fits{buf, needed, 0, 0};
    store.s->loop(store.s, loop_2_buf, &fits);
    if (fits.ret != 0 || fits.used + 1 != needed || text != buf)
        std::abort();
    if (needed > 1) {
        loop_buf_s shy{buf, needed - 1, 0, 0};
        store.s->loop(store.s, loop_2_buf, &shy);
        if (shy.ret == 0 || shy.used >= needed - 1)
            std::abort();
    }
    return 0;
}

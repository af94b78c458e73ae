// The .conf reader of the key/value store, and the two writers that must
// produce text it reads back to the same entries.
#include "harness.h"

#include <cstdlib>
#include <utility>
#include <vector>

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

Entries entries_of(configure* s)
{
    Entries out;
    s->loop(s, [](void* o, const char* k, const char* v) { return static_cast<Entries*>(o)->emplace_back(k, v), 0; },
            &out);
    return out;
}

void one(const uint8_t* data, size_t size)
{
    static const std::string in = std::string(fuzz::temp_dir()) + "/in.conf", out = in + ".out";
    static char buf[64 * 1024];
    fuzz::write_text(in, fuzz::text(data, size));
    fuzz::Store store, again;
    if (configure_parse(store.s, nullptr, in.c_str()) != 0)
        std::abort(); // the file was just written

    // Keys also come from requests: every value read is offered back as a
    // key. Whatever the store takes, its file must carry.
    for (const auto& [k, v] : entries_of(store.s))
        store.s->put(store.s, v.c_str(), k.c_str());
    const Entries want = entries_of(store.s);
    // Every value is reachable by its key; the same text again is no change.
    char value[CONFIGURE_TEXT_MAX];
    for (const auto& [k, v] : want)
        if (store.s->get(store.s, k.c_str(), value, sizeof value) != 0 || v != value ||
            store.s->put(store.s, k.c_str(), v.c_str()) != 0)
            std::abort();

    // The file writer's text reads back to the same entries.
    char* text_buf = nullptr;
    size_t text_len = 0;
    FILE* f = open_memstream(&text_buf, &text_len);
    if (!f)
        std::abort();
    store.s->loop(store.s, loop_2_conf, f);
    std::fclose(f);
    const std::string text(para::CharPtr(text_buf).get(), text_len);
    fuzz::write_text(out, text);
    configure_parse(again.s, nullptr, out.c_str());
    if (entries_of(again.s) != want) {
        std::fprintf(stderr, "loop_2_conf round trip changed the store:\n%s", text.c_str());
        std::abort();
    }

    // The buffer writer writes the same text when it has room for it and
    // its terminator, and reports a shortage, in bounds, when it has not.
    const int needed = static_cast<int>(text.size()) + 1;
    if (text.size() + 1 > sizeof buf)
        return;
    buf[0] = '\0'; // callers clear the buffer: an empty store writes nothing
    loop_buf_s fits{buf, needed, 0, 0}, shy{buf, needed - 1, 0, 0};
    store.s->loop(store.s, loop_2_buf, &fits);
    if (fits.ret != 0 || fits.used + 1 != needed || text != buf)
        std::abort();
    if (needed > 1)
        store.s->loop(store.s, loop_2_buf, &shy);
    if (needed > 1 && (shy.ret == 0 || shy.used >= needed - 1))
        std::abort();
}

} // namespace

FUZZ_TARGET(fuzz::quiet, one)

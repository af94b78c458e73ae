// Web-form converter with the example device's mapping file: raw requests,
// form texts of a write, and reply trees turned back into form text.
#include "harness.h"

#include <algorithm>
#include <vector>

#include "ipc/server/www2json.h"

namespace {

void reverse(const cJSON* reply)
{
    para::CharPtr text(para_reverse_convert_www_opt(const_cast<cJSON*>(reply)));
    if (text && std::strlen(text.get()) > WWW_TEXT_LIMIT)
        std::abort();
}

// The converter reads the receive buffer of the server: 4096 bytes holding
// at most 4095 characters and a NUL. The error buffer has exactly err_size
// bytes (none for 0), so a write past it is caught.
void convert(const std::string& text, int err_size)
{
    std::vector<char> buffer(PARA_MESSAGE_BUF, '\0');
    std::memcpy(buffer.data(), text.data(), std::min(text.size(), buffer.size() - 1));
    std::vector<char> err(static_cast<size_t>(err_size), 'x');
    if (err_size > 0)
        err[0] = '\0';
    para::JsonPtr req(static_cast<cJSON*>(para_convert_www_opt(buffer.data(), err.data(), err_size)));
    if (err_size >= 2 && !std::memchr(err.data(), '\0', static_cast<size_t>(err_size) - 1))
        std::abort(); // the error text must leave room for the server's own terminator
    if (req) {
        std::free(cJSON_Print(req.get()));
        reverse(req.get()); // a module answer has the shape of the request's module objects
    }
}

void init()
{
    fuzz::quiet();
    para_config = fuzz::load_example_json("www2json.json");
}

void one(const uint8_t* data, size_t size)
{
    const std::string input = fuzz::text(data, size);
    if (!input.empty() && input[0] == '{') {
        // A datagram of the web server, and a reply tree to turn back.
        convert(input, 1024);
        convert(input, static_cast<int>(size % 8));
        if (para::JsonPtr reply = fuzz::parse(data, size))
            reverse(reply.get());
        return;
    }
    // The form text of a write; the walker itself has no length limit.
    para::JsonPtr set(cJSON_CreateObject());
    cJSON_AddStringToObject(set.get(), "msg_name", "encode");
    cJSON_AddStringToObject(set.get(), "data", input.c_str());
    if (para::JsonPtr req{set_http2json(set.get())})
        reverse(req.get());
}

} // namespace

FUZZ_TARGET(init, one)

// Web-form converter with the example device's mapping file: raw requests,
// form texts of a write, and reply trees turned back into form text.
#include "support.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "ipc/server/www2json.h"

namespace {

using Json = para::JsonPtr;

void reverse(const cJSON* reply)
{
    if (char* text = para_reverse_convert_www_opt(const_cast<cJSON*>(reply))) {
        if (std::strlen(text) > WWW_TEXT_LIMIT)
            std::abort();
        std::free(text);
    }
}

// The converter reads the receive buffer of the server: 4096 bytes holding
// at most 4095 characters and a NUL.
Json convert(const std::string& text, int err_size)
{
    std::vector<char> buffer(PARA_MESSAGE_BUF, '\0');
    std::memcpy(buffer.data(), text.data(), std::min(text.size(), buffer.size() - 1));
    // Exactly err_size bytes (none for 0), so a write past it is caught.
    para::CharPtr err(static_cast<char*>(std::malloc(static_cast<size_t>(err_size))));
    if (err_size > 0)
        std::memset(err.get(), 'x', static_cast<size_t>(err_size));
    if (err_size > 0)
        err.get()[0] = '\0';
    Json req(static_cast<cJSON*>(para_convert_www_opt(buffer.data(), err.get(), err_size)));
    if (err_size >= 2 && !std::memchr(err.get(), '\0', static_cast<size_t>(err_size) - 1))
        std::abort(); // the error text must leave room for the server's own terminator
    if (req) {
        para::CharPtr printed(cJSON_Print(req.get()));
        // A module answer has the shape of the request's module objects.
        reverse(req.get());
    }
    return req;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::quiet();
    para_config = fuzz::load_example_json("www2json.json");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input = fuzz::as_text(data, size);
    if (!input.empty() && input[0] == '{') {
        // A datagram of the web server, and a reply tree to turn back.
        convert(input, 1024);
        convert(input, static_cast<int>(size % 8));
        if (Json reply{cJSON_ParseWithLength(input.data(), input.size())})
            reverse(reply.get());
        return 0;
    }
    // The form text of a write; the walker itself has no length limit.
    Json set(cJSON_CreateObject());
    cJSON_AddStringToObject(set.get(), "msg_name", "encode");
    cJSON_AddStringToObject(set.get(), "data", input.c_str());
    if (Json req{set_http2json(set.get())})
        reverse(req.get());
    return 0;
}

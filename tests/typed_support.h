// Requests to the typed modules' table operations, as the message server
// hands them over: the item under its key, replies printed unformatted.
#pragma once

#include "para_internal.h"
#include "support.h"

#include <gtest/gtest.h>

#include <string>

namespace typed_test {

using GetOp = int (*)(char*, void*, void**, char*);
using SetOp = int (*)(char*, void*, char*);

inline std::string printed(void* json)
{
    char* p = cJSON_PrintUnformatted(static_cast<cJSON*>(json));
    std::string text = p ? p : "";
    free(p);
    return text;
}

// The reply to {"key": items}; "" when the module gives none.
inline std::string get(GetOp op, const char* request)
{
    cJSON* msg = cJSON_Parse(request);
    void* out = nullptr;
    EXPECT_EQ(op(nullptr, msg ? msg->child : nullptr, &out, nullptr), 0);
    std::string text = out ? printed(out) : "";
    cJSON_Delete(static_cast<cJSON*>(out));
    cJSON_Delete(msg);
    return text;
}

inline void set(SetOp op, const char* request)
{
    cJSON* msg = cJSON_Parse(request);
    EXPECT_EQ(op(nullptr, msg ? msg->child : nullptr, nullptr), 0);
    cJSON_Delete(msg);
}

// A reading post hands over the whole message, which has no key.
inline bool answers_whole_message(GetOp op, const char* message)
{
    cJSON* msg = cJSON_Parse(message);
    void* out = nullptr;
    op(nullptr, msg, &out, nullptr);
    cJSON_Delete(static_cast<cJSON*>(out));
    cJSON_Delete(msg);
    return out != nullptr;
}

// Starts the library; the tests need the fixed port, since another process
// holding it would answer in our place.
inline void start_server()
{
    platformparam_init();
    ASSERT_EQ(para_server_bound_port(), PARA_SERVER_PORT);
}

// One datagram to the port: the reply in compact form.
inline std::string ask(const std::string& request)
{
    auto r = test::udp_request(request);
    return r ? test::compact(*r) : "(no reply)";
}

} // namespace typed_test

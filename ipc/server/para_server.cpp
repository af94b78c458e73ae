// Message server: JSON requests on UDP port 6800 (get, set, post, API
// commands), routed to the module handler table by key prefix.
#include "para_internal.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

namespace {

struct list_head {
    list_head* prev;
    list_head* next;
};

struct param_lists_s {
    char customer_name[64];
    int array_size;
    param_handle_t* params;
    list_head list;
};

param_lists_s total_param;
pthread_once_t register_param_base_inited = PTHREAD_ONCE_INIT;
// Commands may be registered from a host thread while the worker looks
// them up; the lock is never held while a command runs.
std::mutex registry_mu;

const char kInvalidApi[] = "{\"err\":\"Invalid API command\"}";

param_lists_s* entry_of(list_head* l)
{
    return reinterpret_cast<param_lists_s*>(reinterpret_cast<char*>(l) - offsetof(param_lists_s, list));
}

void init_registry_head()
{
    total_param.list.prev = &total_param.list;
    total_param.list.next = &total_param.list;
}

void SendBuf2Client(int fd, struct sockaddr_in socket_addr, const char* buf, unsigned int buflen)
{
    PARA_LOG(PARA_INFO, "send buf : %s,buflen:%d\n", buf ? buf : "", static_cast<int>(buflen));
    if (buflen == 0 || !buf)
        return;
    if (sendto(fd, buf, buflen, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&socket_addr), sizeof socket_addr) < 0)
        PARA_LOG(PARA_ERR, "reply of %u bytes not sent: %s\n", buflen, strerror(errno));
}

void send_text(para_server_message_info* info, char* text)
{
    if (!text)
        return;
    SendBuf2Client(info->fd, info->addressRec, text, static_cast<unsigned>(strlen(text)));
    free(text);
}

// First row, in table order, whose name is a prefix of key.
module_para_handle_s* find_row(const char* key)
{
    if (!key)
        return nullptr;
    for (int i = 0; i < module_para_handle_num; ++i) {
        module_para_handle_s& row = module_para_handle[i];
        // First byte first: most rows differ there, and this runs per key.
        if (row.parse_name && row.parse_name[0] == key[0] && para::starts_with(key, row.parse_name))
            return &row;
    }
    return nullptr;
}

const char* string_of(const cJSON* obj, const char* key)
{
    const cJSON* it = cJSON_GetObjectItem(obj, key);
    return cJSON_IsString(it) ? it->valuestring : nullptr;
}

void log_tree_at_detail(para::Caller fn, const char* what, const cJSON* json)
{
    if (para::log_level() != PARA_DETAIL || !json)
        return;
    para::CharPtr text(cJSON_Print(json));
    PARA_LOG_FN(PARA_DETAIL, fn, "%s%s\n", what, text ? text.get() : "(unprintable)");
}

bool is_prefix_of(const char* s, const char* word)
{
    return strncmp(s, word, strlen(s)) == 0;
}

int bound_fd = -1;
in_addr_t bind_addr = htonl(INADDR_ANY);

} // namespace

int para_server_port = PARA_SERVER_PORT;

int para_server_bound_port(void)
{
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    if (bound_fd < 0 || getsockname(bound_fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
        return -1;
    return ntohs(addr.sin_port);
}

extern "C" int para_server_bind_address(const char* ipv4)
{
    in_addr a{};
    if (!ipv4 || !*ipv4) {
        a.s_addr = htonl(INADDR_ANY);
    } else if (inet_pton(AF_INET, ipv4, &a) != 1) {
        PARA_LOG(PARA_ERR, "'%s' is no IPv4 address; bind address left as it is\n", ipv4);
        return -1;
    }
    bind_addr = a.s_addr;
    return 0;
}

extern "C" void param_base_register_init(void)
{
    pthread_once(&register_param_base_inited, init_registry_head);
}

int para_server_init(void)
{
    param_base_register_init();
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        PARA_LOG(PARA_ERR, "socket error: %s\n", strerror(errno));
        return -1;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(para_server_port));
    addr.sin_addr.s_addr = bind_addr;
    int ret = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    if (ret < 0) {
        PARA_LOG(PARA_ERR, "bind error ret = %d\n", ret);
        close(fd);
        return -1;
    }
    PARA_LOG(PARA_INFO, "para_server sock:%d\n", fd);
    bound_fd = fd;
    return fd;
}

extern "C" int register_param_command(char* customer_name, param_handle_t* param_list, int array_size)
{
    PARA_LOG(PARA_INFO, "enter\n");
    if (!customer_name || !param_list || !param_list[0].content || !param_list[0].pfunc || array_size <= 0) {
        PARA_LOG(PARA_INFO, "fail\n");
        return -1;
    }
    param_base_register_init();
    auto* node = static_cast<param_lists_s*>(calloc(1, sizeof(param_lists_s)));
    if (!node) {
        PARA_LOG(PARA_INFO, "fail\n");
        return -1;
    }
    snprintf(node->customer_name, sizeof node->customer_name, "%s", customer_name);
    node->params = param_list;
    node->array_size = array_size;
    {
        std::lock_guard<std::mutex> lk(registry_mu);
        list_head* head = &total_param.list;
        node->list.prev = head->prev;
        node->list.next = head;
        head->prev->next = &node->list;
        head->prev = &node->list;
    }
    PARA_LOG(PARA_INFO, "leave\n");
    return 0;
}

int param_base_json_dispose(para_server_message_info* info, cJSON* jsonin, cJSON** jsonout, int type)
{
    PARA_LOG(PARA_INFO, "enter\n");
    const char* name = string_of(jsonin, "msg_name");
    if (!name)
        return -1;
    size_t len = strlen(name);
    param_handle_t* found = nullptr;
    {
        param_base_register_init();
        std::lock_guard<std::mutex> lk(registry_mu);
        // Newest registration first, and inside it the last command first.
        for (list_head* l = total_param.list.prev; l != &total_param.list && !found; l = l->prev) {
            param_lists_s* arr = entry_of(l);
            for (int i = arr->array_size - 1; i >= 0; --i) {
                param_handle_t& cmd = arr->params[i];
                if (cmd.content && cmd.pfunc && strncmp(cmd.content, name, len) == 0) {
                    found = &cmd;
                    break;
                }
            }
        }
    }
    if (!found) {
        PARA_LOG(PARA_INFO, "leave\n");
        return -1;
    }
    PARA_LOG(PARA_INFO, "found, msg_name:%s, content: %s\n", name, found->content);
    if (found->pfunc(type, info, jsonout) == 0) {
        PARA_LOG(PARA_INFO, "ret == 0\n");
        return 0;
    }
    PARA_LOG(PARA_INFO, "ret == -1\n");
    return -1;
}

int Recive_message_Process_gset(para_server_message_info* info, cJSON* json, int type)
{
    para::JsonPtr request(json);
    const module_para_protocol_handle_s* proto = nullptr;
    if (const char* from = request ? string_of(request.get(), "msg_from") : nullptr) {
        for (int i = 0; i < module_para_protocol_handle_num; ++i)
            if (para::same(module_para_protocol_handle[i].parse_name, from))
                proto = &module_para_protocol_handle[i];
    }
    if (proto) {
        char err[1024] = {0};
        request.reset();
        if (proto->convert)
            request.reset(static_cast<cJSON*>(proto->convert(info->buffer, err, sizeof err)));
        err[sizeof err - 1] = '\0';
        if (!request && err[0])
            SendBuf2Client(info->fd, info->addressRec, err, static_cast<unsigned>(strlen(err)));
    }
    if (!request) {
        PARA_LOG(PARA_INFO, "ERROR : json null\n");
        return -1;
    }
    log_tree_at_detail(__func__, "", request.get());

    para::JsonPtr reply(cJSON_CreateObject());
    for (cJSON* item = request->child; item; item = item->next) {
        if (!item->string)
            continue;
        module_para_handle_s* row = find_row(item->string);
        if (!row)
            continue;
        if (type == 0) {
            PARA_LOG(PARA_INFO, "get module = %s\n", row->parse_name);
            if (!row->get_buf)
                continue;
            void* out = nullptr;
            row->get_buf(item->string, item, &out, row->parse_name);
            if (out)
                cJSON_AddItemToObject(reply.get(), item->string, static_cast<cJSON*>(out));
        } else if (row->set_buf) {
            row->set_buf(item->string, item, row->parse_name);
        }
    }
    if (type == 1) {
        if (const char* name = string_of(request.get(), "msg_name"))
            cJSON_AddStringToObject(reply.get(), "msg_name", name);
        const cJSON* id = cJSON_GetObjectItem(request.get(), "msg_id");
        if (cJSON_IsNumber(id))
            cJSON_AddNumberToObject(reply.get(), "msg_id", id->valueint);
    }

    char* text = nullptr;
    if (proto) {
        if (para::log_level() == PARA_DETAIL) {
            para::CharPtr t(cJSON_Print(reply.get()));
            PARA_LOG(PARA_DETAIL, "reverse_convert:%s\n", t ? t.get() : "");
        }
        text = proto->reverse_convert ? proto->reverse_convert(reply.get()) : nullptr;
    } else {
        text = para::print_json(reply.get());
    }
    reply.reset();
    request.reset();
    send_text(info, text);
    return 0;
}

int Recive_message_Process_post(para_server_message_info* info, cJSON* json, int type)
{
    para::JsonPtr request(json);
    const char* name = string_of(json, "msg_name");
    const char* send = string_of(json, "msg_send");
    if (module_para_handle_s* row = find_row(name)) {
        PARA_LOG(PARA_INFO, "get module = %s\n", row->parse_name);
        if (send && is_prefix_of(send, "set")) {
            cJSON* data = cJSON_GetObjectItem(json, "data");
            if (row->set_buf && data)
                row->set_buf(const_cast<char*>("data"), data, row->parse_name);
        } else if (row->get_buf) {
            void* out = nullptr;
            row->get_buf(nullptr, json, &out, row->parse_name);
            if (out)
                cJSON_AddItemToObject(json, "data", static_cast<cJSON*>(out));
        }
    }
    char* text = para::print_json(json);
    request.reset();
    send_text(info, text);
    return 0;
}

int Recive_message_Process_api(para_server_message_info* info, cJSON* json, int type)
{
    para::JsonPtr request(json);
    const char* name = string_of(json, "msg_name");
    if (!name) {
        PARA_LOG(PARA_INFO, "msg_name is NULL\n");
        SendBuf2Client(info->fd, info->addressRec, kInvalidApi, sizeof kInvalidApi - 1);
        return -1;
    }
    cJSON* out = nullptr;
    int ret = param_base_json_dispose(info, json, &out, type);
    para::JsonPtr out_owner(out);
    if (ret == -1) {
        PARA_LOG(PARA_INFO, "not found api command: %s\n", name);
        SendBuf2Client(info->fd, info->addressRec, kInvalidApi, sizeof kInvalidApi - 1);
    } else if (out) {
        send_text(info, para::print_json(out));
    }
    return 0;
}

int para_server_message_Process(para_server_message_info* info)
{
    if (!info)
        return 0;
    cJSON* json = cJSON_Parse(info->buffer);
    if (!json) {
        PARA_LOG(PARA_INFO, "cJSON_Parse err,Rec buffer: %s\n", info->buffer);
        return 0;
    }
    PARA_LOG(PARA_INFO, "cJSON_Parse ,Rec buffer: %s\n", info->buffer);
    const char* mt = string_of(json, "msg_type");
    if (!mt) {
        PARA_LOG(PARA_INFO, "get msg_type err\n");
        cJSON_Delete(json);
        return 0;
    }
    if (is_prefix_of(mt, "get"))
        Recive_message_Process_gset(info, json, 0);
    else if (is_prefix_of(mt, "set"))
        Recive_message_Process_gset(info, json, 1);
    else if (is_prefix_of(mt, "post"))
        Recive_message_Process_post(info, json, 2);
    else if (strstr(mt, "get"))
        Recive_message_Process_api(info, json, 0);
    else if (strstr(mt, "set"))
        Recive_message_Process_api(info, json, 1);
    else
        cJSON_Delete(json);
    return 0;
}

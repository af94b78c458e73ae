// Parameter core: start-up profile, module handler table, lifecycle, the
// worker thread "Para_Process" and its save sweep.
#include "para_internal.h"
#include "para_sys.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

extern "C" {

dov_para_profile para_profile = {
    const_cast<char*>("/home"), const_cast<char*>("/data"), 0, nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0,
};

#define PARA_ROW(name, init, stage2, set, get, need, save) \
    {const_cast<char*>(name), init, stage2, set, get, need, save}
#define PARA_VIDEO_ROW(name) \
    PARA_ROW(name, para_init_video, nullptr, para_set_video_opt, para_get_video_opt, para_need_save_video, para_save_video)

// Names and order are part of the routing contract: a request key reaches
// the first row whose name is its prefix, so do not reorder.
module_para_handle_s module_para_handle[PARA_MODULE_ROWS] = {
    PARA_ROW("odmInter", para_init_odm, para_init_stage2_odm, nullptr, nullptr, para_need_save_odm, para_save_odm),
    PARA_ROW("isp0", para_init_isp, nullptr, para_set_isp_opt, para_get_isp_opt, para_need_save_isp, para_save_isp),
    PARA_ROW("isp1", nullptr, nullptr, para_set_isp_opt, para_get_isp_opt, nullptr, nullptr),
    PARA_ROW("af", para_init_af, nullptr, nullptr, para_get_af_opt, para_need_save_af, para_save_af),
    PARA_VIDEO_ROW("video0"),
    PARA_VIDEO_ROW("video1"),
    PARA_ROW("audio", para_init_audio, nullptr, para_set_audio_opt, para_get_audio_opt, para_need_save_audio, para_save_audio),
    PARA_ROW("json", para_init_misc, nullptr, nullptr, nullptr, nullptr, nullptr),
    PARA_ROW("conf", para_init_conf, nullptr, nullptr, nullptr, nullptr, nullptr),
    PARA_ROW("msg_type", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
    PARA_ROW("msg_name", nullptr, nullptr, nullptr, para_get_msg_name_opt, nullptr, nullptr),
    PARA_ROW("msg_id", nullptr, nullptr, nullptr, para_get_msg_id_opt, nullptr, nullptr),
    PARA_VIDEO_ROW("video2"),
    PARA_VIDEO_ROW("video3"),
    PARA_VIDEO_ROW("video4"),
    PARA_VIDEO_ROW("video5"),
    PARA_VIDEO_ROW("video6"),
    PARA_ROW("end", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
};
int module_para_handle_num = 0;

module_para_protocol_handle_s module_para_protocol_handle[1] = {
    {const_cast<char*>("www"), para_init_www, para_convert_www_opt, para_reverse_convert_www_opt},
};
int module_para_protocol_handle_num = 1;

cJSON* para_config = nullptr;
module_para_handle_s module_para_handle_extern_temp[PARA_EXTERN_ROWS];
int module_para_handle_num_extern_temp = 0;

} // extern "C"

namespace {

const module_para_handle_s json_pattern =
    PARA_ROW("json_pattern", para_init_misc, nullptr, para_set_misc_opt, para_get_misc_opt, para_need_save_misc, para_save_misc);
const module_para_handle_s conf_pattern =
    PARA_ROW("conf_pattern", para_init_conf, nullptr, para_set_conf_opt, para_get_conf_opt, para_need_save_conf, para_save_conf);

pthread_mutex_t param_mux = PTHREAD_MUTEX_INITIALIZER;
std::atomic<int> platformparam_Stop_flag{0};
int para_socket_descriptor = -1;
pthread_t para_Pid;
/* Taken by exactly one stopping thread: a second join of the worker would
 * wait forever (or worse) on a thread that is gone. */
std::atomic<bool> para_worker_running{false};
bool para_server_started = false;

para_server_message_info message_info;

void count_builtin_rows()
{
    module_para_handle_num = 0;
    for (int i = 0; i < PARA_MODULE_ROWS; ++i) {
        if (para::same(module_para_handle[i].parse_name, "end")) {
            module_para_handle_num = i + 1;
            return;
        }
    }
}

// One pattern list ("json_pattern_list" / "conf_pattern_list"), from the
// mapping file or from the built-in default text.
void register_pattern(para::Caller fn, const char* list_name, const char* default_text,
                      const module_para_handle_s& tmpl, const char* added_fmt_kind)
{
    const cJSON* list = para_config ? cJSON_GetObjectItem(para_config, list_name) : nullptr;
    para::JsonPtr fallback;
    if (!list) {
        char text[256];
        snprintf(text, sizeof text, "%s", default_text);
        fallback.reset(cJSON_Parse(text));
        list = fallback ? cJSON_GetObjectItem(fallback.get(), list_name) : nullptr;
        if (!list) {
            PARA_LOG_FN(PARA_INFO, fn, "%s error\n", list_name);
            return;
        }
    }
    const cJSON* name = nullptr;
    cJSON_ArrayForEach(name, list) {
        if (module_para_handle_num >= PARA_MODULE_ROWS) {
            PARA_LOG_FN(PARA_ERR, fn, "err not enough module_para_handle\n");
            return;
        }
        // A row without a usable name could never be routed to; skip it.
        if (!cJSON_IsString(name) || !name->valuestring || !*name->valuestring) {
            PARA_LOG_FN(PARA_ERR, fn, "%s: ignoring an element that is not a non-empty string\n", list_name);
            continue;
        }
        module_para_handle_s& row = module_para_handle[module_para_handle_num];
        row = tmpl;
        row.parse_name = lib_strdup(name->valuestring);
        PARA_LOG_FN(PARA_INFO, fn, "add %s:%s\n", added_fmt_kind, row.parse_name);
        ++module_para_handle_num;
    }
}

} // namespace

int save_param(int force)
{
    pthread_mutex_lock(&param_mux);
    bool saved = false;
    for (int i = 0; i < module_para_handle_num; ++i) {
        module_para_handle_s& row = module_para_handle[i];
        if (!row.save)
            continue;
        if (!force && !(row.need_save && row.need_save(row.parse_name)))
            continue;
        PARA_LOG(PARA_INFO, "%s save...\n", row.parse_name);
        saved = true;
        if (row.save(row.parse_name) != 0)
            PARA_LOG(PARA_ERR, "%s save err\n", row.parse_name);
    }
    if (saved)
        lib_system("sync");
    pthread_mutex_unlock(&param_mux);
    return 0;
}

namespace {

void receive_one(para::Caller fn, int fd)
{
    para_server_message_info& info = message_info;
    socklen_t alen = sizeof info.addressRec;
    // MSG_TRUNC reports the real length, so an over-long datagram is seen
    // as such instead of being parsed from a cut buffer.
    ssize_t n = recvfrom(fd, info.buffer, sizeof info.buffer, MSG_DONTWAIT | MSG_TRUNC,
                         reinterpret_cast<sockaddr*>(&info.addressRec), &alen);
    if (n <= 0)
        return;
    if (n >= static_cast<ssize_t>(sizeof info.buffer)) {
        // The buffer must stay a terminated text of received bytes only, so
        // a datagram that fills it cannot be served.
        PARA_LOG_FN(PARA_ERR, fn, "datagram of %zd bytes dropped: requests are limited to %zu bytes\n", n,
                 sizeof info.buffer - 1);
        return;
    }
    info.buffer[n] = '\0';
    info.fd = fd;
    para_server_message_Process(&info);
}

void* platformparam_Process(void*)
{
    prctl(PR_SET_NAME, "Para_Process", 0, 0, 0);
    // poll, not select: a host with many files open may get a socket
    // descriptor past FD_SETSIZE. A negative descriptor is ignored by poll,
    // which then just waits out the turn.
    pollfd sock{para_socket_descriptor, POLLIN, 0};
    for (;;) {
        sock.revents = 0;
        int r = poll(&sock, 1, 100);
        if (r < 0) {
            if (errno == EINTR)
                continue; // a signal to the host must not end request service
            PARA_LOG(PARA_ERR, "poll failed: %s; the worker ends\n", strerror(errno));
            break;
        }
        if (r > 0 && (sock.revents & POLLNVAL)) {
            PARA_LOG(PARA_ERR, "poll failed: socket %d is not open; the worker ends\n", sock.fd);
            break;
        }
        // A pending socket error counts as readable, as it did for select:
        // the receive takes the error off the socket instead of spinning.
        if (r > 0 && sock.fd >= 0)
            receive_one(__func__, sock.fd);
        if (platformparam_Stop_flag.load())
            break;
        save_param(0);
    }
    return nullptr;
}

} // namespace

/* ---- module table ------------------------------------------------------- */

void register_para_handle_json_pattern(void)
{
    register_pattern(__func__, "json_pattern_list", "{\"json_pattern_list\":[\"misc\"]}", json_pattern,
                     "json_pattern");
}

void register_para_handle_conf_pattern(void)
{
    register_pattern(__func__, "conf_pattern_list",
                     "{\"conf_pattern_list\":[\"netport\",\"overlay\",\"ndi_config\"]}",
                     conf_pattern, "conf_pattern");
}

int register_para_handle_extern_pattern(void)
{
    for (int i = 0; i < module_para_handle_num_extern_temp; ++i) {
        if (module_para_handle_num >= PARA_MODULE_ROWS) {
            PARA_LOG(PARA_ERR, "err not enough module_para_handle\n");
            return -1;
        }
        module_para_handle[module_para_handle_num] = module_para_handle_extern_temp[i];
        PARA_LOG(PARA_INFO, "add extern_pattern:%s\n", module_para_handle_extern_temp[i].parse_name);
        ++module_para_handle_num;
    }
    return 0;
}

extern "C" void register_para_handle_extern(module_para_handle_s* handle)
{
    if (!handle)
        return;
    if (module_para_handle_num != 0) {
        PARA_LOG(PARA_ERR, "err:call register_para_handle_extern before platformparam_init\n");
        return;
    }
    if (!handle->parse_name || !*handle->parse_name) {
        PARA_LOG(PARA_ERR, "extern module without a name refused\n");
        return;
    }
    for (int i = 0; i < module_para_handle_num_extern_temp; ++i) {
        module_para_handle_s& row = module_para_handle_extern_temp[i];
        if (para::same(row.parse_name, handle->parse_name)) {
            row.set_buf = handle->set_buf;
            row.get_buf = handle->get_buf;
            PARA_LOG(PARA_INFO, "%s ok,%p %p\n", row.parse_name, reinterpret_cast<void*>(row.set_buf),
                     reinterpret_cast<void*>(row.get_buf));
            return;
        }
    }
    if (module_para_handle_num_extern_temp >= PARA_EXTERN_ROWS) {
        PARA_LOG(PARA_ERR, "err not enough module_para_handle_extern_temp\n");
        return;
    }
    module_para_handle_s& row = module_para_handle_extern_temp[module_para_handle_num_extern_temp++];
    row = module_para_handle_s{};
    row.parse_name = handle->parse_name;
    row.set_buf = handle->set_buf;
    row.get_buf = handle->get_buf;
}

// The rows "msg_name" / "msg_id" echo the request's own keys into a reply,
// when the row's name begins with the key.
static bool echoes(const cJSON* in, void** jsonOut, const char* parse_name)
{
    return in && in->string && jsonOut && parse_name && strncmp(parse_name, in->string, strlen(in->string)) == 0;
}

int para_get_msg_name_opt(char*, void* jsonIn, void** jsonOut, char* parse_name)
{
    auto* in = static_cast<cJSON*>(jsonIn);
    if (echoes(in, jsonOut, parse_name) && cJSON_IsString(in) && in->valuestring)
        *jsonOut = cJSON_CreateString(in->valuestring);
    return 0;
}

int para_get_msg_id_opt(char*, void* jsonIn, void** jsonOut, char* parse_name)
{
    auto* in = static_cast<cJSON*>(jsonIn);
    if (echoes(in, jsonOut, parse_name))
        *jsonOut = cJSON_CreateNumber(in->valueint);
    return 0;
}

int para_free_msg_name_opt(char*)
{
    return 0;
}

extern "C" int para_conflict_callback(char* para_file, int old_version, int new_version)
{
    PARA_LOG(PARA_INFO, "%s %d->%d\n", para_file ? para_file : "(null)", old_version, new_version);
    if (para_profile.para_version_conflict)
        para_profile.para_version_conflict(para_file, old_version, new_version);
    return 0;
}

/* ---- lifecycle ---------------------------------------------------------- */

extern "C" void platformparam_init(void)
{
    PARA_LOG(PARA_INFO, "cJson version:%d %d %d\n", CJSON_VERSION_MAJOR, CJSON_VERSION_MINOR,
             CJSON_VERSION_PATCH);
    if (para_profile.client) {
        para_client_init();
        return;
    }
    if (para_server_started) {
        // Every module loads once; a second start would add the pattern rows again.
        PARA_LOG(PARA_ERR, "platformparam_init called twice; ignored\n");
        return;
    }
    para_server_started = true;

    { // the mapping file's text lives only until it is parsed
        char path[PARA_PATH_MAX];
        const char* map_name = para_profile.config_file_name ? para_profile.config_file_name : "www2json.json";
        para::CharPtr text;
        if (para::make_path(path, para_profile.param_rofile_dir, map_name)) {
            text = std::move(para::read_file(__func__, path).text);
            if (!text)
                PARA_LOG(PARA_INFO, "mapping file %s not readable; default pattern lists apply\n", path);
        }
        para_config = text ? cJSON_Parse(text.get()) : nullptr;
        if (!para_config) {
            // The error position points into text (or into whatever an earlier
            // parse of the host left behind): only a failed parse of our own
            // text has one, and only while the text lives.
            const char* at = text ? cJSON_GetErrorPtr() : nullptr;
            PARA_LOG(PARA_ERR, "Error before: [%s]\n", at ? at : "(null)");
        }
    }

    count_builtin_rows();
    register_para_handle_json_pattern();
    register_para_handle_conf_pattern();
    register_para_handle_extern_pattern();
    PARA_LOG(PARA_INFO, "module_para_handle_num:%d\n", module_para_handle_num);

    for (int i = 0; i < module_para_handle_num; ++i) {
        module_para_handle_s& row = module_para_handle[i];
        if (row.init && row.init(row.parse_name) != 0)
            PARA_LOG(PARA_ERR, "%s init err\n", row.parse_name);
    }
    for (int i = 0; i < module_para_handle_num; ++i) {
        module_para_handle_s& row = module_para_handle[i];
        if (row.init_stage2)
            row.init_stage2(row.parse_name);
    }
    for (int i = 0; i < module_para_protocol_handle_num; ++i) {
        module_para_protocol_handle_s& p = module_para_protocol_handle[i];
        if (p.init && p.init() != 0)
            PARA_LOG(PARA_ERR, "%s init err\n", p.parse_name);
    }

    para_socket_descriptor = para_server_init();
    if (pthread_create(&para_Pid, nullptr, platformparam_Process, nullptr) == 0)
        para_worker_running = true;
    else
        PARA_LOG(PARA_ERR, "cannot start the worker thread\n");
}

extern "C" int platformparam_stop(int IsStop)
{
    platformparam_Stop_flag.store(IsStop);
    if (!IsStop || !para_worker_running.exchange(false))
        return 0;
    pthread_join(para_Pid, nullptr);
    save_param(1);
    PARA_LOG(PARA_INFO, "platformparam_stop ok\n");
    return 0;
}

extern "C" int platformparam_save(void)
{
    return save_param(1);
}

extern "C" void platformparam_set_save_param_time(int audio_ms, int video_ms)
{
    para_set_audio_save_param_time(audio_ms);
    para_set_video_save_param_time(video_ms);
}

/* ---- conf line updates (host-owned key = value files) ------------------ */

/* The host application's own key = value files are small; the limits keep
 * every line readable by the same code that wrote it. Whatever does not fit
 * is refused and the file stays as it was. */
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <string>

namespace {

constexpr size_t kConfFileMax = 2047;    /* characters of a whole file */
constexpr size_t kConfLineMax = 95;      /* characters of a line, its LF included */
constexpr size_t kConfComposedMax = 63;  /* characters of a composed line */

/* A line sets key when it begins with key followed by a space or '='. */
bool line_sets(std::string_view line, std::string_view key)
{
    return line.size() > key.size() && line.compare(0, key.size(), key) == 0 &&
           (line[key.size()] == ' ' || line[key.size()] == '=');
}

bool read_all(para::Caller fn, int fd, std::string& out, const char* path)
{
    char buf[512];
    for (;;) {
        ssize_t n = para::sys::calls.read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            PARA_LOG_FN(PARA_ERR, fn, "read %s: %s\n", path, strerror(errno));
            return false;
        }
        if (n == 0)
            return true;
        out.append(buf, static_cast<size_t>(n));
        if (out.size() > kConfFileMax) {
            PARA_LOG_FN(PARA_ERR, fn, "%s longer than %zu characters, not changed\n", path, kConfFileMax);
            return false;
        }
    }
}

/* The new content, or false when a line or the result breaks the limits. */
bool replace_lines(para::Caller fn, const std::string& old, std::string_view key,
                   std::string_view item, std::string& out, const char* path)
{
    size_t pos = 0;
    while (pos < old.size()) {
        size_t end = old.find('\n', pos);
        size_t next = end == std::string::npos ? old.size() : end + 1;
        std::string_view line(old.data() + pos, next - pos);
        pos = next;
        if (line.size() > kConfLineMax) {
            PARA_LOG_FN(PARA_ERR, fn, "%s: line longer than %zu characters, not changed\n", path,
                     kConfLineMax);
            return false;
        }
        if (line[0] == '\0')
            continue;
        if (line_sets(line, key)) {
            out.append(item);
            out.push_back('\n');
        } else {
            out.append(line);
        }
    }
    if (out.size() > kConfFileMax) {
        PARA_LOG_FN(PARA_ERR, fn, "%s would grow past %zu characters, not changed\n", path, kConfFileMax);
        return false;
    }
    return true;
}

bool plain_text(para::Caller fn, const char* text, const char* what)
{
    if (!text) {
        PARA_LOG_FN(PARA_ERR, fn, "%s missing\n", what);
        return false;
    }
    if (std::strpbrk(text, "\r\n")) {
        PARA_LOG_FN(PARA_ERR, fn, "%s holds a line break\n", what);
        return false;
    }
    return true;
}

/* The two line formats of each kind of value. */
const char* const conf_str_formats[] = {"%s = \"%s\"", "%s=%s"};
const char* const conf_int_formats[] = {"%s = \"%d\"", "%s=%d"};

bool value_ok(const char*, int) { return true; }
bool value_ok(para::Caller fn, const char* text) { return plain_text(fn, text, "value"); }

template <typename Value>
int update_composed(para::Caller fn, char* path, char* keyword, Value value, const char* format,
                    const char* const (&allowed)[2])
{
    if (!format || (std::strcmp(format, allowed[0]) != 0 && std::strcmp(format, allowed[1]) != 0)) {
        PARA_LOG_FN(PARA_ERR, fn, "error: format is wrong\n");
        return -1;
    }
    if (!plain_text(fn, keyword, "keyword") || !value_ok(fn, value))
        return -1;
    char line[kConfComposedMax + 1];
    int n = std::snprintf(line, sizeof line, format, keyword, value);
    if (n < 0 || static_cast<size_t>(n) > kConfComposedMax) {
        PARA_LOG_FN(PARA_ERR, fn, "line for %s longer than %zu characters, not changed\n", keyword,
                 kConfComposedMax);
        return -1;
    }
    return update_conf(path, keyword, line);
}

} // namespace

int update_conf(char* path, char* keyword, char* item)
{
    if (!plain_text(__func__, path, "path") || !plain_text(__func__, keyword, "keyword") ||
        !plain_text(__func__, item, "new line"))
        return -1;
    if (!*keyword) {
        PARA_LOG(PARA_ERR, "empty keyword refused\n");
        return -1;
    }
    if (std::strlen(item) + 1 > kConfLineMax) {
        PARA_LOG(PARA_ERR, "new line for %s longer than %zu characters, not changed\n", keyword,
                 kConfLineMax);
        return -1;
    }
    /* Rename replaces a link by a file: work on what it points to. */
    std::string target;
    if (!para::resolve_target(__func__, path, target))
        return -1;
    struct stat st{};
    const char* step;
    para::Fd fd{para::open_locked(target, O_RDWR, st, &step)};
    if (fd.fd < 0) {
        PARA_LOG(PARA_ERR, "%s %s: %s\n", step, target.c_str(), strerror(errno));
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        PARA_LOG(PARA_ERR, "%s is not a regular file, not changed\n", path);
        return -1;
    }
    std::string old, updated;
    if (!read_all(__func__, fd.fd, old, path) ||
        !replace_lines(__func__, old, keyword, item, updated, path))
        return -1;
    return para::durable_write(__func__, target.c_str(), updated.data(), updated.size(), true,
                               fd.fd) == 0
               ? 0
               : -1;
}

int update_line_conf(char* path, char* keyword, char* new_key_word_value)
{
    return update_conf(path, keyword, new_key_word_value);
}

int update_line_conf_str(char* path, char* keyword, char* keyvalue, char* format)
{
    return update_composed(__func__, path, keyword, keyvalue, format, conf_str_formats);
}

int update_line_conf_int(char* path, char* keyword, int keyvalue, char* format)
{
    return update_composed(__func__, path, keyword, keyvalue, format, conf_int_formats);
}

#include "support.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>


namespace test {

TempDir::TempDir()
{
    const char* base = getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/paratest.XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data()))
        abort();
    path_ = buf.data();
    ro_ = ro();
    rw_ = rw();
    mkdir(ro_.c_str(), 0755);
    mkdir(rw_.c_str(), 0755);
}

TempDir::~TempDir()
{
    if (getenv("PARA_KEEP_TMP"))
        return;
    std::string cmd = "rm -rf '" + path_ + "'";
    if (system(cmd.c_str()) != 0) {
    }
}

void TempDir::use_as_profile()
{
    para_profile.param_rofile_dir = const_cast<char*>(ro_.c_str());
    para_profile.param_rwfile_dir = const_cast<char*>(rw_.c_str());
}

void write_file(const std::string& path, const std::string& content)
{
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << content;
}

std::optional<std::string> read_file(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    if (!f)
        return std::nullopt;
    std::ostringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

bool file_exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

void copy_dir_files(const std::string& src, const std::string& dst)
{
    DIR* d = opendir(src.c_str());
    if (!d)
        return;
    while (dirent* e = readdir(d)) {
        std::string from = src + "/" + e->d_name;
        struct stat st{};
        if (stat(from.c_str(), &st) == 0 && S_ISREG(st.st_mode))
            write_file(dst + "/" + e->d_name, *read_file(from));
    }
    closedir(d);
}

std::string example_device_dir()
{
    return std::string(PARA_SOURCE_DIR) + "/examples/device";
}

LogCapture* LogCapture::current_ = nullptr;

namespace {
// Guards current_: the worker may be inside cb while a capture ends.
std::mutex capture_mu;
} // namespace

LogCapture::LogCapture(int level) : saved_level_(__atomic_load_n(&dbgout_profile.para_level, __ATOMIC_RELAXED))
{
    {
        std::lock_guard<std::mutex> lk(capture_mu);
        current_ = this;
    }
    __atomic_store_n(&dbgout_profile.para_level, level, __ATOMIC_RELAXED);
    __atomic_store_n(&dbgout_profile.log_cb, &LogCapture::cb, __ATOMIC_RELEASE);
}

LogCapture::~LogCapture()
{
    __atomic_store_n(&dbgout_profile.log_cb, static_cast<dov_log_cb>(nullptr), __ATOMIC_RELEASE);
    __atomic_store_n(&dbgout_profile.para_level, saved_level_, __ATOMIC_RELAXED);
    std::lock_guard<std::mutex> lk(capture_mu);
    current_ = nullptr;
}

void LogCapture::cb(int, const char* line)
{
    std::lock_guard<std::mutex> outer(capture_mu);
    LogCapture* c = current_;
    if (!c)
        return;
    std::lock_guard<std::mutex> lk(c->mu_);
    c->lines_.emplace_back(line);
}

std::vector<std::string> LogCapture::lines() const
{
    std::lock_guard<std::mutex> lk(mu_);
    return lines_;
}

bool LogCapture::contains(const std::string& text) const
{
    return count(text) > 0;
}

int LogCapture::count(const std::string& text) const
{
    std::lock_guard<std::mutex> lk(mu_);
    int n = 0;
    for (const auto& l : lines_)
        if (l.find(text) != std::string::npos)
            ++n;
    return n;
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lk(mu_);
    lines_.clear();
}

std::string LogCapture::dump() const
{
    std::lock_guard<std::mutex> lk(mu_);
    std::string out;
    for (const auto& l : lines_)
        out += l;
    return out;
}

static int open_client(int port, sockaddr_in* to)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    memset(to, 0, sizeof *to);
    to->sin_family = AF_INET;
    to->sin_port = htons(static_cast<uint16_t>(port));
    to->sin_addr.s_addr = inet_addr("127.0.0.1");
    return fd;
}

int udp_send(const std::string& bytes, int port)
{
    sockaddr_in to{};
    int fd = open_client(port, &to);
    int n = static_cast<int>(sendto(fd, bytes.data(), bytes.size(), 0,
                                    reinterpret_cast<sockaddr*>(&to), sizeof to));
    close(fd);
    return n;
}

std::optional<std::string> udp_request(const std::string& text, int timeout_ms, int port)
{
    sockaddr_in to{};
    int fd = open_client(port, &to);
    if (sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) < 0) {
        close(fd);
        return std::nullopt;
    }
    pollfd p{fd, POLLIN, 0};
    std::optional<std::string> out;
    if (poll(&p, 1, timeout_ms) == 1) {
        char buf[65536];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n >= 0)
            out = std::string(buf, static_cast<size_t>(n));
    }
    close(fd);
    return out;
}

bool wait_until(const std::function<bool()>& pred, int timeout_ms)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < end) {
        if (pred())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return pred();
}

CommandResult run_command(const std::string& cmd)
{
    CommandResult r{-1, ""};
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    if (!p)
        return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

std::string emulator_prefix()
{
    std::string emulator = PARA_TEST_EMULATOR;
    return emulator.empty() ? "" : emulator + " ";
}

std::string tools_prefix()
{
    return emulator_prefix() + PARA_BINARY_DIR + "/tools/";
}

std::string compact(const std::string& json_text)
{
    cJSON* j = cJSON_Parse(json_text.c_str());
    if (!j)
        return "";
    char* p = cJSON_PrintUnformatted(j);
    std::string out = p ? p : "";
    free(p);
    cJSON_Delete(j);
    return out;
}

} // namespace test

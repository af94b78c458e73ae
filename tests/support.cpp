#include "support.h"
#include "para_sys.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "para_internal.h"

#ifdef PARA_TEST_COVERAGE
// A child that ends by _exit writes no coverage counts of its own.
extern "C" void __gcov_dump();
#endif

namespace test {

namespace fs = std::filesystem;

TempDir::TempDir()
{
    const char* base = getenv("TMPDIR");
    path_ = std::string(base && *base ? base : "/tmp") + "/paratest.XXXXXX";
    if (!mkdtemp(path_.data()))
        abort();
    fs::create_directory(ro_ = ro());
    fs::create_directory(rw_ = rw());
}

TempDir::~TempDir()
{
    if (std::error_code ec; !getenv("PARA_KEEP_TMP"))
        fs::remove_all(path_, ec);
}

void write_file(const std::string& path, const std::string& content) { std::ofstream(path, std::ios::binary) << content; }

std::optional<std::string> read_file(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    if (!f)
        return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(f), {});
}

bool file_exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

void copy_dir_files(const std::string& src, const std::string& dst)
{
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(src, ec))
        if (e.is_regular_file())
            write_file(dst + "/" + e.path().filename().string(), *read_file(e.path()));
}

namespace {
// The capture alive, and the guard of its lines (the worker may be in cb as a capture ends).
LogCapture* current;
std::mutex mu;
} // namespace

LogCapture::LogCapture(int level) : saved_level_(__atomic_load_n(&dbgout_profile.para_level, __ATOMIC_RELAXED))
{
    std::lock_guard<std::mutex> lk(mu);
    current = this;
    __atomic_store_n(&dbgout_profile.para_level, level, __ATOMIC_RELAXED);
    __atomic_store_n(&dbgout_profile.log_cb, &LogCapture::cb, __ATOMIC_RELEASE);
}

LogCapture::~LogCapture()
{
    __atomic_store_n(&dbgout_profile.log_cb, static_cast<dov_log_cb>(nullptr), __ATOMIC_RELEASE);
    __atomic_store_n(&dbgout_profile.para_level, saved_level_, __ATOMIC_RELAXED);
    std::lock_guard<std::mutex> lk(mu);
    current = nullptr;
}

void LogCapture::cb(int, const char* line)
{
    std::lock_guard<std::mutex> lk(mu);
    if (current)
        current->lines_.emplace_back(line);
}

std::vector<std::string> LogCapture::lines() const
{
    std::lock_guard<std::mutex> lk(mu);
    return lines_;
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lk(mu);
    lines_.clear();
}

int LogCapture::count(const std::string& text) const
{
    int n = 0;
    for (const auto& l : lines())
        n += l.find(text) != std::string::npos;
    return n;
}

std::string LogCapture::dump() const
{
    std::string out;
    for (const auto& l : lines())
        out += l;
    return out;
}

std::optional<std::string> udp_request(const std::string& text, int timeout_ms, int port)
{
    sockaddr_in to{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    pollfd p{fd, POLLIN, 0};
    std::optional<std::string> out;
    if (sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) >= 0 &&
        poll(&p, 1, timeout_ms) == 1) {
        std::string buf(65536, '\0');
        ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        if (n >= 0)
            out = buf.substr(0, static_cast<size_t>(n));
    }
    close(fd);
    return out;
}

bool wait_until(const std::function<bool()>& pred, int timeout_ms)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    bool ok = false;
    while (!(ok = pred()) && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return ok;
}

CommandResult run_command(const std::string& cmd)
{
    CommandResult r{-1, ""};
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    char buf[4096];
    for (size_t n; p && (n = fread(buf, 1, sizeof buf, p)) > 0;)
        r.out.append(buf, n);
    int st = p ? pclose(p) : -1;
    r.status = p && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

std::string in_child(const std::function<std::string()>& fn)
{
    int p[2];
    if (pipe(p) != 0)
        return "pipe failed";
    pid_t pid = fork();
    if (pid == 0) {
        close(p[0]);
        std::string out = fn();
        for (size_t done = 0; done < out.size();) {
            ssize_t n = write(p[1], out.data() + done, out.size() - done);
            if (n <= 0)
                break;
            done += static_cast<size_t>(n);
        }
#ifdef PARA_TEST_COVERAGE
        __gcov_dump();
#endif
        _exit(0);
    }
    close(p[1]);
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = read(p[0], buf, sizeof buf)) > 0;)
        out.append(buf, static_cast<size_t>(n));
    close(p[0]);
    int st = 0;
    waitpid(pid, &st, 0);
    return WIFEXITED(st) && WEXITSTATUS(st) == 0 ? out
           : WIFEXITED(st)                      ? "exit " + std::to_string(WEXITSTATUS(st))
                                                : "signal " + std::to_string(WTERMSIG(st));
}

std::string compact(const std::string& json_text)
{
    para::JsonPtr j(cJSON_Parse(json_text.c_str()));
    para::CharPtr p(j ? cJSON_PrintUnformatted(j.get()) : nullptr);
    return p ? p.get() : "";
}

namespace {
long long disk_room;
}

void full_disk(long long room)
{
    disk_room = room;
    para::sys::calls.pwrite = [](int fd, const void* b, size_t n, off_t at) -> ssize_t {
        struct stat st{};
        fstat(fd, &st);
        long long held = std::max<long long>(st.st_size, st.st_blocks * 512LL), more = std::max<long long>(0, at + static_cast<long long>(n) - held);
        if (more > disk_room)
            n = static_cast<size_t>(std::max<long long>(0, held + disk_room - at)), more = disk_room;
        if (n == 0)
            return errno = ENOSPC, -1;
        disk_room -= more;
        return para::sys::defaults().pwrite(fd, b, n, at);
    };
    para::sys::calls.fallocate = [](int fd, int mode, off_t at, off_t len) {
        if (len > disk_room)
            return errno = ENOSPC, -1;
        disk_room -= len;
        return para::sys::defaults().fallocate(fd, mode, at, len);
    };
}

} // namespace test

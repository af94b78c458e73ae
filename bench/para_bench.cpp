// Speed of the library's hot paths, each against a floor or a peer measured
// in the same run. Prints a table of figures and ratios at the end; with
// --results FILE also writes it as Markdown.
#include <benchmark/benchmark.h>

#include "para_internal.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

std::string g_example = std::string(PARA_SOURCE_DIR) + "/examples/device";
std::string g_rw;

// ---- a UDP client with a connected socket ------------------------------

struct UdpClient {
    int fd = -1;
    explicit UdpClient(int port)
    {
        fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(static_cast<uint16_t>(port));
        to.sin_addr.s_addr = inet_addr("127.0.0.1");
        connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to);
    }
    ~UdpClient() { close(fd); }
    // false on time-out
    bool round_trip(const std::string& req, char* buf, size_t size)
    {
        send(fd, req.data(), req.size(), 0);
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 1000) != 1)
            return false;
        return recv(fd, buf, size, 0) > 0;
    }
};

// ---- the floor: a plain UDP echo server on loopback --------------------

struct EchoServer {
    int fd = -1;
    int port = 0;
    std::thread th;
    std::atomic<bool> stop{false};
    EchoServer()
    {
        fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = inet_addr("127.0.0.1");
        bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
        port = ntohs(a.sin_port);
        timeval tv{0, 100000};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        th = std::thread([this] {
            char buf[4096];
            while (!stop) {
                sockaddr_in from{};
                socklen_t fl = sizeof from;
                ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &fl);
                if (n > 0)
                    sendto(fd, buf, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr*>(&from), fl);
            }
        });
    }
    ~EchoServer()
    {
        stop = true;
        th.join();
        close(fd);
    }
};

// One Redis command in its wire form.
std::string resp(std::initializer_list<std::string> words)
{
    std::string out = "*" + std::to_string(words.size()) + "\r\n";
    for (const auto& w : words)
        out += "$" + std::to_string(w.size()) + "\r\n" + w + "\r\n";
    return out;
}

// ---- the peer: Redis 7 on a loopback port, one client, no pipelining ---

struct Redis {
    pid_t pid = -1;
    int fd = -1;
    bool ok = false;
    Redis()
    {
        const int port = 16379;
        pid = fork();
        if (pid == 0) {
            int devnull = open("/dev/null", O_WRONLY);
            dup2(devnull, 1);
            dup2(devnull, 2);
            execlp("redis-server", "redis-server", "--port", std::to_string(port).c_str(), "--bind", "127.0.0.1",
                   "--save", "", "--appendonly", "no", static_cast<char*>(nullptr));
            _exit(127);
        }
        for (int i = 0; i < 100 && !ok; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            fd = socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(port);
            a.sin_addr.s_addr = inet_addr("127.0.0.1");
            if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
                int one = 1;
                setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                ok = command(resp({"SET", "video0.gop", "60"}));
            } else {
                close(fd);
                fd = -1;
            }
        }
    }
    bool command(const std::string& cmd)
    {
        if (send(fd, cmd.data(), cmd.size(), 0) != static_cast<ssize_t>(cmd.size()))
            return false;
        char buf[256];
        return recv(fd, buf, sizeof buf, 0) > 0;
    }
    ~Redis()
    {
        if (fd >= 0)
            close(fd);
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
};

const std::string kGetTwo = R"({"msg_type":"get","msg_name":"bench","msg_id":1,"video0":["bitRate","gop"]})";

void BM_EchoRoundTrip(benchmark::State& st)
{
    EchoServer echo;
    UdpClient c(echo.port);
    char buf[4096];
    for (auto _ : st)
        if (!c.round_trip(kGetTwo, buf, sizeof buf))
            st.SkipWithError("echo time-out");
}

void BM_GetTwoVideoMembers(benchmark::State& st)
{
    UdpClient c(PARA_SERVER_PORT);
    char buf[4096];
    for (auto _ : st)
        if (!c.round_trip(kGetTwo, buf, sizeof buf))
            st.SkipWithError("no reply from port 6800");
}

void BM_RedisGet(benchmark::State& st)
{
    Redis r;
    if (!r.ok) {
        st.SkipWithError("redis-server not available");
        return;
    }
    const std::string get = resp({"GET", "video0.gop"});
    for (auto _ : st)
        if (!r.command(get))
            st.SkipWithError("redis error");
}

void BM_SetChangingValue(benchmark::State& st)
{
    UdpClient c(PARA_SERVER_PORT);
    char buf[4096];
    int gop = 0;
    std::string a = R"({"msg_type":"set","msg_name":"bench","msg_id":2,"video0":{"gop":)";
    for (auto _ : st) {
        std::string req = a + std::to_string(10 + (gop++ & 63)) + "}}";
        if (!c.round_trip(req, buf, sizeof buf))
            st.SkipWithError("no reply from port 6800");
    }
}

void BM_DirectSetterGetter(benchmark::State& st)
{
    int v = 0;
    for (auto _ : st) {
        para_set_video_bitRate_cur(1, 100 + (v++ & 255));
        benchmark::DoNotOptimize(para_get_video_bitRate_cur(1));
    }
}

void BM_IdleSaveSweep(benchmark::State& st)
{
    for (auto _ : st)
        save_param(0);
}

// Every module written as at stop: one durable replace per file, then "sync".
void BM_ForcedSave(benchmark::State& st)
{
    for (auto _ : st)
        platformparam_save();
}

// Start-up runs once per process, so each iteration is a fresh child that
// measures platformparam_init up to the first reply on port 6800.
void BM_StartupToFirstReply(benchmark::State& st)
{
    for (auto _ : st) {
        int pfd[2];
        if (pipe(pfd) != 0) {
            st.SkipWithError("pipe");
            return;
        }
        pid_t pid = fork();
        if (pid == 0) {
            close(pfd[0]);
            std::string rw = g_rw + "/startup";
            mkdir(rw.c_str(), 0755);
            para_profile.param_rofile_dir = const_cast<char*>(g_example.c_str());
            para_profile.param_rwfile_dir = const_cast<char*>(rw.c_str());
            para_server_port = 0;
            dbgout_profile.para_level = 0;
            auto t0 = Clock::now();
            platformparam_init();
            UdpClient c(para_server_bound_port());
            char buf[4096];
            bool ok = c.round_trip(kGetTwo, buf, sizeof buf);
            double secs = std::chrono::duration<double>(Clock::now() - t0).count();
            if (!ok)
                secs = -1;
            ssize_t w = write(pfd[1], &secs, sizeof secs);
            (void)w;
            _exit(0);
        }
        close(pfd[1]);
        double secs = -1;
        ssize_t r = read(pfd[0], &secs, sizeof secs);
        close(pfd[0]);
        waitpid(pid, nullptr, 0);
        if (r != sizeof secs || secs < 0) {
            st.SkipWithError("child did not answer");
            return;
        }
        st.SetIterationTime(secs);
    }
}

// A page of 20 fields read through the web form: the request converted to
// JSON and the reply converted back to form text.
void BM_WebReadConversion20(benchmark::State& st)
{
    para::JsonPtr map(cJSON_CreateObject());
    cJSON* page = cJSON_AddArrayToObject(map.get(), "page20");
    cJSON_AddItemToArray(page, cJSON_CreateString("video0"));
    cJSON_AddItemToArray(page, cJSON_CreateString("video1"));
    para::JsonPtr reply(cJSON_CreateObject());
    cJSON_AddStringToObject(reply.get(), "msg_name", "page20");
    cJSON_AddNumberToObject(reply.get(), "msg_id", 1);
    const char* marks[] = {"", "K", "P", "F"};
    for (const char* mod : {"video0", "video1"}) {
        cJSON* entry = cJSON_AddObjectToObject(map.get(), mod);
        cJSON* values = cJSON_AddObjectToObject(reply.get(), mod);
        for (int i = 0; i < 10; ++i) {
            std::string member = "m" + std::to_string(i);
            std::string field = std::string(mod) + "_f" + std::to_string(i);
            cJSON* arr = cJSON_AddArrayToObject(entry, member.c_str());
            cJSON_AddItemToArray(arr, cJSON_CreateString(field.c_str()));
            cJSON_AddItemToArray(arr, cJSON_CreateString(i == 9 ? "S" : "N"));
            if (*marks[i % 4])
                cJSON_AddItemToArray(arr, cJSON_CreateString(marks[i % 4]));
            if (i == 9)
                cJSON_AddStringToObject(values, member.c_str(), "text");
            else
                cJSON_AddNumberToObject(values, member.c_str(), 1000 * i + 500);
        }
    }
    cJSON* saved = para_config;
    para_config = map.get();
    char req[] = R"({"msg_from":"www","msg_type":"get","msg_name":"page20"})";
    char err[1024];
    int saved_level = dbgout_profile.para_level;
    dbgout_profile.para_level = 0;
    for (auto _ : st) {
        auto* request = static_cast<cJSON*>(para_convert_www_opt(req, err, sizeof err));
        char* text = para_reverse_convert_www_opt(reply.get());
        if (!request || !text)
            st.SkipWithError("conversion failed");
        benchmark::DoNotOptimize(text);
        cJSON_Delete(request);
        free(text);
    }
    dbgout_profile.para_level = saved_level;
    para_config = saved;
    st.SetItemsProcessed(st.iterations());
}

// A .conf file of 100,000 lines read into a fresh store, then one lookup:
// reading is linear and a lookup does not walk the store.
void BM_ConfParse100k(benchmark::State& st)
{
    std::string path = g_rw + "/big.conf";
    FILE* f = fopen(path.c_str(), "w");
    if (!f) {
        st.SkipWithError("big.conf");
        return;
    }
    for (int i = 0; i < 100000; ++i)
        fprintf(f, "key%d=value%d\n", i, i);
    fclose(f);
    for (auto _ : st) {
        configure* s = configure_init();
        configure_parse(s, nullptr, path.c_str());
        benchmark::DoNotOptimize(s->getparameter(s, "key99999"));
        configure_free(s);
    }
    unlink(path.c_str());
}

BENCHMARK(BM_EchoRoundTrip)->MinTime(1.0);
BENCHMARK(BM_GetTwoVideoMembers)->MinTime(1.0);
BENCHMARK(BM_RedisGet)->MinTime(1.0);
BENCHMARK(BM_SetChangingValue)->MinTime(1.0);
BENCHMARK(BM_DirectSetterGetter);
BENCHMARK(BM_IdleSaveSweep);
BENCHMARK(BM_ForcedSave)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_StartupToFirstReply)->UseManualTime()->Iterations(50);
BENCHMARK(BM_WebReadConversion20);
BENCHMARK(BM_ConfParse100k)->Unit(benchmark::kMillisecond);

// Collects every run so the summary can put figures side by side.
class Collector : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> ns; // real time per iteration
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs)
            if (!r.error_occurred)
                ns[r.run_name.function_name] = r.GetAdjustedRealTime() *
                                         (r.time_unit == benchmark::kMicrosecond ? 1e3
                                          : r.time_unit == benchmark::kMillisecond ? 1e6 : 1.0);
    }
};

std::string fmt_ns(double v)
{
    char b[64];
    if (v >= 1e6)
        snprintf(b, sizeof b, "%.2f ms", v / 1e6);
    else if (v >= 1e3)
        snprintf(b, sizeof b, "%.2f µs", v / 1e3);
    else
        snprintf(b, sizeof b, "%.1f ns", v);
    return b;
}

std::string summary(const Collector& c)
{
    auto get = [&](const char* k) {
        auto it = c.ns.find(k);
        return it == c.ns.end() ? -1.0 : it->second;
    };
    double echo = get("BM_EchoRoundTrip"), getv = get("BM_GetTwoVideoMembers"), redis = get("BM_RedisGet");
    double set = get("BM_SetChangingValue"), direct = get("BM_DirectSetterGetter"), sweep = get("BM_IdleSaveSweep");
    double start = get("BM_StartupToFirstReply"), web = get("BM_WebReadConversion20");
    double forced = get("BM_ForcedSave");
    double conf = get("BM_ConfParse100k");
    struct Row {
        std::string what, figure, ratio, target, verdict;
    };
    auto ratio = [](double a, double b) {
        if (a < 0 || b <= 0)
            return std::string("n/a");
        char s[32];
        snprintf(s, sizeof s, "%.2fx", a / b);
        return std::string(s);
    };
    auto verdict = [](bool known, bool ok) { return std::string(!known ? "n/a" : ok ? "met" : "MISSED"); };
    std::vector<Row> rows = {
        {"get of two video members via port 6800", fmt_ns(getv), ratio(getv, echo) + " of UDP echo (" + fmt_ns(echo) + ")",
         "<= 1.3x echo", verdict(getv > 0 && echo > 0, getv <= 1.3 * echo)},
        {"same vs Redis 7 GET (loopback, 1 client)", fmt_ns(getv), ratio(getv, redis) + " of Redis (" + fmt_ns(redis) + ")",
         "< 1.0x Redis", verdict(getv > 0 && redis > 0, getv < redis)},
        {"set request that changes a value", fmt_ns(set), ratio(set, echo) + " of UDP echo", "-", "-"},
        {"public setter + getter of a video member", fmt_ns(direct), "-", "<= 100 ns", verdict(direct > 0, direct <= 100)},
        {"idle save sweep over the whole table", fmt_ns(sweep), "-", "<= 1 µs", verdict(sweep > 0, sweep <= 1000)},
        {"forced save of the example device (all files + sync)", fmt_ns(forced), "-", "-", "-"},
        {"start-up to first reply (example device)", fmt_ns(start), "-", "<= 5 ms", verdict(start > 0, start <= 5e6)},
        {"web-form read conversion, 20 fields", web > 0 ? std::to_string(static_cast<long>(1e9 / web)) + " /s" : "n/a",
         fmt_ns(web) + " each", ">= 200000 /s", verdict(web > 0, web > 0 && 1e9 / web >= 200000)},
        {"read of a 100,000-line .conf file", fmt_ns(conf), "-", "< 1 s", verdict(conf > 0, conf < 1e9)},
    };
    std::string out = "| benchmark | figure | ratio | target | |\n|---|---|---|---|---|\n";
    for (const Row& r : rows)
        out += "| " + r.what + " | " + r.figure + " | " + r.ratio + " | " + r.target + " | " + r.verdict + " |\n";
    return out;
}

} // namespace

int main(int argc, char** argv)
{
    std::string results;
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        if (std::string(argv[i]) == "--results" && i + 1 < argc)
            results = argv[++i];
        else
            args.push_back(argv[i]);
    }
    int n = static_cast<int>(args.size());
    benchmark::Initialize(&n, args.data());

    char tmpl[] = "/tmp/parabench.XXXXXX";
    g_rw = mkdtemp(tmpl);
    signal(SIGPIPE, SIG_IGN);
    dbgout_profile.para_level = 0;
    para_profile.param_rofile_dir = const_cast<char*>(g_example.c_str());
    para_profile.param_rwfile_dir = const_cast<char*>(g_rw.c_str());
    platformparam_set_save_param_time(3600 * 1000, 3600 * 1000); // no save during the set benchmark
    platformparam_init();

    Collector rep;
    benchmark::RunSpecifiedBenchmarks(&rep);
    std::string table = summary(rep);
    printf("\n%s", table.c_str());
    fflush(stdout);
    if (!results.empty()) {
        FILE* f = fopen(results.c_str(), "w");
        if (f) {
            fprintf(f, "# Benchmark results\n\nOne run of `make bench` on this machine (%u cores).\n\n%s",
                    std::thread::hardware_concurrency(), table.c_str());
            fclose(f);
        }
    }
    std::string rm = "rm -rf " + g_rw;
    if (system(rm.c_str()) != 0) {
    }
    _exit(0); // the library's worker thread is still serving
}

// paramd: the host application around the parameter library. Fills the
// start-up profile from its flags, serves UDP port 6800, logs every callback
// and stops with a forced save on SIGINT/SIGTERM.
#include "para.h"

#include <arpa/inet.h>
#include <getopt.h>
#include <sys/socket.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void usage(FILE* out)
{
    fprintf(out,
            "usage: paramd --ro DIR [--rw DIR] [--map FILE] [--log-level N] [--conf-save]\n"
            "\n"
            "Runs the parameter server of the camera on UDP port 6800.\n"
            "\n"
            "  -r, --ro DIR         read-only parameter directory: ranges, defaults, styles,\n"
            "                       the mapping file (required; must exist)\n"
            "  -w, --rw DIR         read-write directory for current values (default /data;\n"
            "                       created when missing)\n"
            "  -m, --map FILE       mapping file name inside the read-only directory\n"
            "                       (default www2json.json)\n"
            "  -l, --log-level N    library log level: 3 errors, 6 information, 7 detail\n"
            "                       (default 6)\n"
            "  -c, --conf-save      write .conf modules back (off by default, as on the device)\n"
            "  -h, --help           this text\n"
            "\n"
            "Signals: SIGINT/SIGTERM stop with a forced save of every module; SIGUSR1 dumps\n"
            "the video tables to the log; SIGHUP reloads the \"netport\" .conf module.\n");
}

void say(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("paramd: ", stdout);
    vfprintf(stdout, fmt, ap);
    fputc('\n', stdout);
    fflush(stdout);
    va_end(ap);
}

std::string json_text(void* json)
{
    char* t = json ? cJSON_PrintUnformatted(static_cast<cJSON*>(json)) : nullptr;
    std::string s = t ? t : "null";
    free(t);
    return s;
}

void install_callbacks()
{
    dov_para_profile& p = para_profile;
    p.para_version_conflict = [](char* f, int o, int n) { say("version conflict %s: %d -> %d", f, o, n); };
    p.isp_caller = [](void* s, int pipe, int v) { say("isp member changed: setter %p isp %d value %d", s, pipe, v); };
    p.video_caller = [](void* s, int st, int v) { say("video member changed: setter %p stream %d value %d", s, st, v); };
    p.audio_caller = [](void* s, int v) { say("audio member changed: setter %p value %d", s, v); };
    p.af_caller = [](void* s, int v) { say("af member changed: setter %p value %d", s, v); };
    p.misc_caller = [](char* f, const void* s, char* k, int v) {
        say("%s key changed: %s = %d (setter %p)", f, k, v, s);
    };
    p.odm_caller = [](void* k) { say("factory key changed: %s", static_cast<char*>(k)); };
    p.conf_caller_in = [](char* f, const char* k) { say("%s.conf key changed: %s", f, k); };
    p.isp_page_caller = [](void* j) { say("isp page: %s", json_text(j).c_str()); };
    p.video_page_caller = [](void* j) { say("video page: %s", json_text(j).c_str()); };
    p.audio_page_caller = [](void* j) { say("audio page: %s", json_text(j).c_str()); };
    p.af_page_caller = [](void* j) { say("af page: %s", json_text(j).c_str()); };
    p.misc_page_caller = [](char* n, void* j) { say("%s page: %s", n, json_text(j).c_str()); };
    p.conf_caller = [](char* f) { say("%s.conf page changed or reloaded", f); };
}

// The library keeps running without its port (and only logs it); a user who
// starts a second paramd wants to be told instead.
bool port_free(int port)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0)
        return true;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

bool is_dir(const char* path)
{
    struct stat st{};
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

} // namespace

int main(int argc, char** argv)
{
    static std::string ro, rw = "/data", map;
    int level = 6;
    int conf_save = 0;
    static const option opts[] = {
        {"ro", required_argument, nullptr, 'r'},        {"rw", required_argument, nullptr, 'w'},
        {"map", required_argument, nullptr, 'm'},       {"log-level", required_argument, nullptr, 'l'},
        {"conf-save", no_argument, nullptr, 'c'},       {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "r:w:m:l:ch", opts, nullptr)) != -1) {
        switch (c) {
        case 'r': ro = optarg; break;
        case 'w': rw = optarg; break;
        case 'm': map = optarg; break;
        case 'l': {
            char* end = nullptr;
            long v = strtol(optarg, &end, 10);
            if (!*optarg || *end || v < 0 || v > 7) {
                fprintf(stderr, "paramd: --log-level wants a number from 0 to 7, got '%s'\n", optarg);
                return 2;
            }
            level = static_cast<int>(v);
            break;
        }
        case 'c': conf_save = 1; break;
        case 'h': usage(stdout); return 0;
        default: usage(stderr); return 2;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "paramd: unexpected argument '%s'\n", argv[optind]);
        usage(stderr);
        return 2;
    }
    if (ro.empty()) {
        fprintf(stderr, "paramd: --ro DIR is required\n");
        usage(stderr);
        return 2;
    }
    if (!is_dir(ro.c_str())) {
        fprintf(stderr, "paramd: read-only directory '%s' does not exist or is not a directory\n", ro.c_str());
        return 1;
    }
    if (!is_dir(rw.c_str()) && mkdir(rw.c_str(), 0755) != 0) {
        fprintf(stderr, "paramd: cannot create read-write directory '%s': %s\n", rw.c_str(), strerror(errno));
        return 1;
    }
    // The library builds paths in 128-byte buffers.
    if (ro.size() > 100 || rw.size() > 100) {
        fprintf(stderr, "paramd: directory names longer than 100 characters are not supported\n");
        return 1;
    }

    if (!port_free(PARA_SERVER_PORT)) {
        fprintf(stderr, "paramd: UDP port %d is in use (is another paramd running?)\n", PARA_SERVER_PORT);
        return 1;
    }

    dbgout_profile.para_level = level;
    para_profile.param_rofile_dir = ro.data();
    para_profile.param_rwfile_dir = rw.data();
    para_profile.config_file_name = map.empty() ? nullptr : map.data();
    para_profile.conf_save = conf_save;
    install_callbacks();

    // Block the signals before the worker starts so only sigwait sees them.
    sigset_t set;
    sigemptyset(&set);
    for (int s : {SIGINT, SIGTERM, SIGUSR1, SIGHUP})
        sigaddset(&set, s);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);

    platformparam_init();
    say("serving %s (current values in %s) on UDP port %d", ro.c_str(), rw.c_str(), PARA_SERVER_PORT);

    for (;;) {
        int sig = 0;
        if (sigwait(&set, &sig) != 0)
            continue;
        if (sig == SIGUSR1) {
            fifo_work_trigger("para_video", nullptr);
            fifo_work_trigger("para_video_size", nullptr);
        } else if (sig == SIGHUP) {
            fifo_work_trigger("netport", nullptr);
        } else {
            say("stopping (signal %d): saving every module", sig);
            platformparam_stop(1);
            say("stopped");
            return 0;
        }
    }
}

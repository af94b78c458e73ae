// paramd and paramctl as a user runs them: real processes, real port 6800.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "support.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

const std::string kBin = test::tools_prefix();

using Result = test::CommandResult;

Result run(const std::string& cmd)
{
    return test::run_command(cmd);
}

class Paramd {
public:
    explicit Paramd(const std::string& rw)
    {
        log_ = rw + "/../paramd.log";
        pid_ = fork();
        if (pid_ == 0) {
            FILE* f = freopen(log_.c_str(), "w", stdout);
            (void)f;
            dup2(1, 2);
            std::string ro = test::example_device_dir();
            std::string cmd = "exec " + kBin + "paramd --ro '" + ro + "' --rw '" + rw + "' --log-level 3";
            execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    bool wait_serving()
    {
        return test::wait_until([this] { return output().find("serving") != std::string::npos; }, 5000);
    }
    int stop(int sig = SIGTERM)
    {
        kill(pid_, sig);
        int st = 0;
        waitpid(pid_, &st, 0);
        pid_ = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
    std::string output() const { return test::read_file(log_).value_or(""); }
    ~Paramd()
    {
        if (pid_ > 0)
            stop(SIGKILL);
    }

private:
    pid_t pid_ = -1;
    std::string log_;
};

} // namespace

TEST(Tools, ParamdServesTheExampleDeviceAndStopsWithASave)
{
    test::TempDir dir;
    Paramd d(dir.rw());
    ASSERT_TRUE(d.wait_serving()) << d.output();

    Result r = run(kBin + "paramctl --json raw '{\"msg_type\":\"get\",\"msg_name\":\"t\",\"msg_id\":9}'");
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(test::compact(r.out), R"({"msg_name":"t","msg_id":9})");

    r = run(kBin + "paramctl get video0 all");
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("video0.bitRate = 4500"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("video0.size = \"PIC_HD1080\""), std::string::npos) << r.out;

    // A change through paramctl reaches the host's page callback and, at
    // the forced save of the stop, the current file.
    r = run(kBin + "paramctl set video1 gop=25");
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(test::wait_until([&] { return d.output().find("video page:") != std::string::npos; }, 2000));

    r = run(kBin + "paramctl api getStatus nothing");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("Invalid API command"), std::string::npos);

    // A second server on the same port is refused with a clear message.
    r = run(kBin + "paramd --ro " + test::example_device_dir() + " --rw " + dir.rw());
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("UDP port 6800 is in use"), std::string::npos) << r.out;

    EXPECT_EQ(d.stop(SIGTERM), 0);
    std::string out = d.output();
    EXPECT_NE(out.find("stopping (signal 15): saving every module"), std::string::npos) << out;
    EXPECT_NE(out.find("paramd: stopped"), std::string::npos) << out;
    auto saved = test::read_file(dir.rw() + "/video_cur.json");
    ASSERT_TRUE(saved);
    para::JsonPtr j(cJSON_Parse(saved->c_str()));
    ASSERT_TRUE(j);
    EXPECT_EQ(cJSON_GetObjectItem(cJSON_GetObjectItem(j.get(), "video1"), "gop")->valueint, 25);
}

TEST(Tools, ParamctlTimesOutClearlyWithoutServer)
{
    Result r = run(kBin + "paramctl --timeout 200 get video0");
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.out.find("no reply from 127.0.0.1:6800 within 200 ms"), std::string::npos) << r.out;
}

TEST(Tools, UsageErrorsAndHelp)
{
    Result r = run(kBin + "paramd --ro /nonexistent/dir");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("read-only directory '/nonexistent/dir' does not exist"), std::string::npos) << r.out;

    r = run(kBin + "paramd");
    EXPECT_EQ(r.status, 2);
    r = run(kBin + "paramd --help");
    EXPECT_EQ(r.status, 0);
    for (const char* flag : {"--ro", "--rw", "--map", "--log-level", "--conf-save"})
        EXPECT_NE(r.out.find(flag), std::string::npos) << flag;

    for (const char* cmd : {"get", "set", "post", "api", "raw"}) {
        r = run(kBin + "paramctl " + cmd + " --help");
        EXPECT_EQ(r.status, 0) << cmd;
        EXPECT_NE(r.out.find(std::string("usage: paramctl [options] ") + cmd), std::string::npos) << r.out;
    }
    r = run(kBin + "paramctl set video0 novalue");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("expected member=value"), std::string::npos);
    r = run(kBin + "paramctl frobnicate");
    EXPECT_EQ(r.status, 2);
}

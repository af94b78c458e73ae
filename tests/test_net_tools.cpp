// paramd and paramctl as a user runs them: real processes on port 6800,
// cases from tests/data/paramctl_cases.txt (the format is described there).
#include "support.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>

namespace {

struct Case { int line, exit; std::string pattern, command; };
using Section = std::pair<std::string, std::vector<Case>>; // head: "none", "host", or "paramd ARGS"

std::vector<Section> sections()
{
    std::vector<Section> s;
    std::ifstream in(std::string(PARA_SOURCE_DIR) + "/tests/data/paramctl_cases.txt");
    std::string l;
    for (int n = 1; std::getline(in, l); ++n) {
        size_t a = l.find(" | "), b = a == std::string::npos ? a : l.find(" | ", a + 3);
        if (l.empty() || l[0] == '#')
            continue;
        if (l[0] == '[')
            s.push_back({l.substr(1, l.find(']') - 1), {}});
        else if (s.empty() || b == std::string::npos)
            ADD_FAILURE() << "paramctl_cases.txt:" << n << ": malformed case";
        else
            s.back().second.push_back({n, std::stoi(l.substr(0, a)), l.substr(a + 3, b - a - 3), l.substr(b + 3)});
    }
    return s;
}

class Tools : public testing::TestWithParam<size_t> {};

TEST_P(Tools, CasesOfTheSection)
{
    const Section sec = sections().at(GetParam());
    test::TempDir dir;
    const std::string tools = test::tools_prefix(), log = dir.path() + "/paramd.log";
    pid_t paramd = -1; // serves examples/device until the end of the section
    if (sec.first.rfind("paramd", 0) == 0) {
        std::string cmd = "exec " + tools + "paramd --ro '" + test::example_device_dir() + "' --rw '" + dir.path() +
                          "/rw' " + sec.first.substr(6) + " >'" + log + "' 2>&1";
        if ((paramd = fork()) == 0) {
            execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        auto up = [&] { return test::read_file(log).value_or("").find("paramd: serving") != std::string::npos; };
        EXPECT_TRUE(test::wait_until(up, 5000)) << test::read_file(log).value_or("");
    } else if (sec.first == "host") {
        test::copy_dir_files(test::example_device_dir(), dir.ro());
        dir.use_as_profile();
        dbgout_profile.para_level = 3;
        platformparam_init();
    }
    const std::string prelude = "T='" + dir.path() + "'; RO='" + test::example_device_dir() + "'; TOOLS='" + tools +
                                "'; paramctl() { " + tools + "paramctl \"$@\"; }; paramd() { " + tools +
                                "paramd \"$@\"; }; ";
    for (const Case& c : sec.second) {
        SCOPED_TRACE("paramctl_cases.txt:" + std::to_string(c.line) + ": " + c.command);
        test::CommandResult r = test::run_command("{ " + prelude + c.command + "\n}");
        EXPECT_EQ(r.status, c.exit) << r.out;
        EXPECT_TRUE(std::regex_search(r.out, std::regex(c.pattern))) << "pattern: " << c.pattern << "\n" << r.out;
    }
    if (sec.first == "host")
        platformparam_stop(1);
    if (paramd > 0 && kill(paramd, SIGTERM) == 0)
        waitpid(paramd, nullptr, 0);
}

INSTANTIATE_TEST_SUITE_P(Cases, Tools, testing::Range<size_t>(0, sections().size()), [](const auto& info) {
    return std::regex_replace(std::to_string(info.param) + "_" + sections().at(info.param).first, std::regex("\\W"), "_");
});

} // namespace

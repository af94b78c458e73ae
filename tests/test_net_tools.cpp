// paramd and paramctl as a user runs them: real processes on port 6800,
// cases from tests/data/paramctl_cases.txt (the format is described there).
#include <gtest/gtest.h>

#include "support.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace {

struct Case {
    int line;
    int exit;
    std::string pattern, command;
};

struct Section {
    std::string head; // "none", "host", or "paramd ARGS"
    std::vector<Case> cases;
};

std::string trim(const std::string& s)
{
    size_t a = s.find_first_not_of(" \t"), b = s.find_last_not_of(" \t");
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

std::vector<Section> load_sections()
{
    std::vector<Section> out;
    std::ifstream in(std::string(PARA_SOURCE_DIR) + "/tests/data/paramctl_cases.txt");
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        if (line.empty() || line[0] == '#')
            continue;
        if (line[0] == '[') {
            out.push_back({line.substr(1, line.find(']') - 1), {}});
            continue;
        }
        size_t a = line.find(" | "), b = a == std::string::npos ? a : line.find(" | ", a + 3);
        if (out.empty() || b == std::string::npos)
            ADD_FAILURE() << "paramctl_cases.txt:" << n << ": malformed case";
        else
            out.back().cases.push_back({n, std::stoi(line.substr(0, a)), trim(line.substr(a + 3, b - a - 3)),
                                        trim(line.substr(b + 3))});
    }
    return out;
}

const std::vector<Section>& sections()
{
    static const std::vector<Section> s = load_sections();
    return s;
}

// paramd on the example device until the end of the section.
class Paramd {
public:
    Paramd(const std::string& dir, const std::string& args) : log_(dir + "/paramd.log")
    {
        pid_ = fork();
        if (pid_ == 0) {
            std::string cmd = "exec " + test::tools_prefix() + "paramd --ro '" + test::example_device_dir() +
                              "' --rw '" + dir + "/rw' " + args + " >'" + log_ + "' 2>&1";
            execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    bool serving() const
    {
        return test::wait_until([this] { return log().find("paramd: serving") != std::string::npos; }, 5000);
    }
    std::string log() const { return test::read_file(log_).value_or(""); }
    ~Paramd()
    {
        if (pid_ <= 0)
            return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }

private:
    std::string log_;
    pid_t pid_ = -1;
};

class Tools : public testing::TestWithParam<size_t> {};

TEST_P(Tools, CasesOfTheSection)
{
    const Section& sec = sections().at(GetParam());
    test::TempDir dir;
    std::unique_ptr<Paramd> paramd;
    if (sec.head.rfind("paramd", 0) == 0) {
        paramd = std::make_unique<Paramd>(dir.path(), sec.head.substr(6));
        ASSERT_TRUE(paramd->serving()) << paramd->log();
    } else if (sec.head == "host") {
        test::copy_dir_files(test::example_device_dir(), dir.ro());
        dir.use_as_profile();
        dbgout_profile.para_level = 3;
        platformparam_init();
    }
    const std::string prelude = "T='" + dir.path() + "'; RO='" + test::example_device_dir() + "'; TOOLS='" +
                                test::tools_prefix() +
                                "'; paramctl() { " + test::tools_prefix() + "paramctl \"$@\"; }; paramd() { " +
                                test::tools_prefix() + "paramd \"$@\"; }; ";
    for (const Case& c : sec.cases) {
        SCOPED_TRACE("paramctl_cases.txt:" + std::to_string(c.line) + ": " + c.command);
        test::CommandResult r = test::run_command("{ " + prelude + c.command + "\n}");
        EXPECT_EQ(r.status, c.exit) << r.out;
        bool found = false;
        try {
            found = std::regex_search(r.out, std::regex(c.pattern));
        } catch (const std::regex_error& e) {
            ADD_FAILURE() << "bad pattern: " << e.what();
        }
        EXPECT_TRUE(found) << "pattern: " << c.pattern << "\noutput:\n" << r.out;
    }
    if (sec.head == "host")
        platformparam_stop(1);
}

INSTANTIATE_TEST_SUITE_P(Cases, Tools, testing::Range<size_t>(0, sections().size()),
                         [](const testing::TestParamInfo<size_t>& info) {
                             std::string name = sections().at(info.param).head;
                             for (char& ch : name)
                                 if (!isalnum(static_cast<unsigned char>(ch)))
                                     ch = '_';
                             return std::to_string(info.param) + "_" + name;
                         });

} // namespace

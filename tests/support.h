// Shared helpers of the tests: fixture directories, log capture, a UDP client.
#pragma once

#include "para.h"

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace test {

// A fresh directory with "ro" and "rw" inside, removed at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string ro() const { return path_ + "/ro"; }
    std::string rw() const { return path_ + "/rw"; }
    // Points para_profile at ro/rw (the strings live as long as this object).
    void use_as_profile() { para_profile.param_rofile_dir = ro_.data(), para_profile.param_rwfile_dir = rw_.data(); }

private:
    std::string path_, ro_, rw_;
};

void write_file(const std::string& path, const std::string& content);
// Whole file, NUL bytes included; nullopt when missing.
std::optional<std::string> read_file(const std::string& path);
bool file_exists(const std::string& path);
// Copies every regular file of src into dst.
void copy_dir_files(const std::string& src, const std::string& dst);
inline std::string example_device_dir() { return std::string(PARA_SOURCE_DIR) + "/examples/device"; }

// Captures every log line of the library while alive (level 7 unless told).
class LogCapture {
public:
    explicit LogCapture(int level = 7);
    ~LogCapture();
    std::vector<std::string> lines() const;
    bool contains(const std::string& text) const { return count(text) > 0; }
    int count(const std::string& text) const;
    void clear();
    std::string dump() const;

private:
    static void cb(int level, const char* line);
    std::vector<std::string> lines_;
    int saved_level_;
};

// Sends one datagram to 127.0.0.1:port and waits for one reply.
std::optional<std::string> udp_request(const std::string& text, int timeout_ms = 1000,
                                       int port = PARA_SERVER_PORT);
// Polls pred every 10 ms until it holds or timeout passes.
bool wait_until(const std::function<bool()>& pred, int timeout_ms);

// A shell command's stdout and stderr together, and its exit status (-1: no normal exit).
struct CommandResult { int status; std::string out; };
CommandResult run_command(const std::string& cmd);
// Shell prefix of the built tools ("<dir>/tools/"); a cross build puts its
// emulator in front so the tools run where the tests run.
// "<emulator> " in a cross build, else "": prefix for re-running a test binary.
inline std::string emulator_prefix() { return *PARA_TEST_EMULATOR ? PARA_TEST_EMULATOR " " : ""; }
inline std::string tools_prefix() { return emulator_prefix() + PARA_BINARY_DIR + "/tools/"; }
// fn run in a forked child (fresh module state, the same files): its text, or
// "exit N" / "signal N" when the child ended otherwise (fn may _exit(N)).
// The child's coverage counts are written before it ends.
std::string in_child(const std::function<std::string()>& fn);

// From now on the disk has room for only room more bytes (the library's
// table of calls): a write beyond what a file holds takes from it and stops
// short when it is gone; fallocate fails past it.
void full_disk(long long room);
// Compact form of a JSON text (parse + print unformatted), "" if not JSON.
std::string compact(const std::string& json_text);

} // namespace test

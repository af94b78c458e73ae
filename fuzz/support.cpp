#include "support.h"

#include <sys/stat.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace fuzz {

std::string example_dir()
{
    return std::string(PARA_SOURCE_DIR) + "/examples/device";
}

namespace {

std::string created_dir;

void remove_temp_dir()
{
    std::error_code ec;
    if (!created_dir.empty())
        std::filesystem::remove_all(created_dir, ec);
}

} // namespace

const char* temp_dir()
{
    if (created_dir.empty()) {
        // Memory-backed when the machine has it: some targets write files
        // for every input.
        const char* base = std::getenv("TMPDIR");
        if (!base || !*base)
            base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string tmpl = std::string(base) + "/para-fuzz-XXXXXX";
        if (!mkdtemp(tmpl.data())) {
            std::perror("mkdtemp");
            std::abort();
        }
        created_dir = tmpl;
        std::atexit(remove_temp_dir);
    }
    return created_dir.c_str();
}

void quiet()
{
    dbgout_profile.para_level = 0;
    dbgout_profile.lib_level = 0;
}

cJSON* load_example_json(const char* name)
{
    std::string path = example_dir() + "/" + name;
    char* text = read_file_to_buf(path.c_str());
    cJSON* json = text ? cJSON_Parse(text) : nullptr;
    std::free(text);
    if (!json) {
        std::fprintf(stderr, "cannot load %s\n", path.c_str());
        std::abort();
    }
    return json;
}

void write_text(const std::string& path, const std::string& text)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f || std::fwrite(text.data(), 1, text.size(), f) != text.size() || std::fclose(f) != 0) {
        std::perror(path.c_str());
        std::abort();
    }
}

std::string as_text(const uint8_t* data, size_t size)
{
    return std::string(reinterpret_cast<const char*>(data), size);
}

MemFile::MemFile(const char* name)
{
    fd_ = memfd_create(name, MFD_CLOEXEC);
    if (fd_ < 0) {
        std::perror("memfd_create");
        std::abort();
    }
    std::snprintf(path_, sizeof path_, "/proc/self/fd/%d", fd_);
}

MemFile::~MemFile()
{
    close(fd_);
}

void MemFile::assign(const void* data, size_t size)
{
    if (ftruncate(fd_, 0) != 0 || pwrite(fd_, data, size, 0) != static_cast<ssize_t>(size)) {
        std::perror("memfd write");
        std::abort();
    }
}

void print_and_free(cJSON* json)
{
    std::free(json ? cJSON_PrintUnformatted(json) : nullptr);
    cJSON_Delete(json);
}

void use_example_device()
{
    static std::string ro = example_dir();
    static std::string rw = std::string(temp_dir()) + "/rw";
    mkdir(rw.c_str(), 0755);
    para_profile.param_rofile_dir = ro.data();
    para_profile.param_rwfile_dir = rw.data();
}

} // namespace fuzz

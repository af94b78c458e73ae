/* Client role: single value changes sent to the main application as raw
 * st_data datagrams, and the shared maps the main application publishes
 * as POSIX shared memory objects. */
#include "para_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <mutex>

/* The receiver reads the record as raw bytes: its layout is the protocol. */
static_assert(sizeof(st_data) == 76, "st_data is a 76-byte datagram");
static_assert(offsetof(st_data, type) == 0, "st_data.type");
static_assert(offsetof(st_data, chn) == 4, "st_data.chn");
static_assert(offsetof(st_data, value) == 8, "st_data.value");
static_assert(offsetof(st_data, mod) == 12, "st_data.mod");
static_assert(offsetof(st_data, member) == 28, "st_data.member");
static_assert(offsetof(st_data, string) == 44, "st_data.string");
static_assert(sizeof(dov_share_head_s) == 12, "shared map header");

extern "C" {
void* g_shareMap;
unsigned int g_shareMapLen;
}

namespace {

int send_port = PARA_SERVER_PORT;
sockaddr_in address;
std::atomic<int> socket_descriptor_send{-1};
int g_isSocketReady;
std::mutex socket_mutex;

/* One view of a share module's object: what registration found, or what
 * this process published. The length bounds every map pointer handed out. */
struct ShareView {
    void* base;
    size_t len;
    bool published;
    dev_t dev; /* the object mapped, to notice a re-publish under the same name */
    ino_t ino;
};
ShareView g_shareMapList[PARA_SHARE_MODULES];
/* Guards the views: a re-publish replaces one while host threads read maps. */
std::mutex share_mutex;

char share_prefix[32] = "/para_share_";

void set_address()
{
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr("127.0.0.1");
    address.sin_port = htons(static_cast<uint16_t>(send_port));
}

st_data new_record(const char* mod, const char* member, int chn, int type)
{
    st_data d;
    std::memset(&d, 0, sizeof d);
    d.type = type;
    d.chn = chn;
    std::memcpy(d.mod, mod, strnlen(mod, sizeof d.mod));
    std::memcpy(d.member, member, strnlen(member, sizeof d.member));
    return d;
}

void send_record(const st_data& d)
{
    std::lock_guard<std::mutex> lk(socket_mutex); /* address may be re-pointed */
    sendto(socket_descriptor_send.load(), &d, sizeof d, 0, reinterpret_cast<const sockaddr*>(&address),
           sizeof address);
}

int share_number(const char* mod, const char* member, int chn, int val)
{
    st_data d = new_record(mod, member, chn, 0);
    d.value = val;
    send_record(d);
    return 0;
}

int share_text(const char* fn, const char* mod, const char* member, int chn, const char* str)
{
    if (!str) {
        PARA_LOG_FN(PARA_ERR, fn, "no text for %s.%s, nothing sent\n", mod, member);
        return 0;
    }
    st_data d = new_record(mod, member, chn, 1);
    std::memcpy(d.string, str, strnlen(str, sizeof d.string));
    send_record(d);
    return 0;
}

bool valid_mod(const char* fn, int mod)
{
    if (mod >= 0 && mod < PARA_SHARE_MODULES)
        return true;
    PARA_LOG_FN(PARA_INFO, fn, "ERROR: This mod is not exist!\n");
    return false;
}

bool share_name(char (&out)[64], int mod)
{
    int n = std::snprintf(out, sizeof out, "%s%d", share_prefix, mod);
    return n > 0 && static_cast<size_t>(n) < sizeof out;
}

/* Maps an object the main application created; {} when there is none or
 * it is too small to hold a header. */
ShareView open_share(const char* fn, int mod)
{
    char name[64];
    if (!share_name(name, mod))
        return {};
    int fd = shm_open(name, O_RDWR, 0);
    if (fd < 0)
        return {};
    struct stat st{};
    void* base = MAP_FAILED;
    if (fstat(fd, &st) == 0 && static_cast<size_t>(st.st_size) >= sizeof(dov_share_head_s))
        base = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (base == MAP_FAILED) {
        PARA_LOG_FN(PARA_ERR, fn, "cannot map %s\n", name);
        return {};
    }
    return {base, static_cast<size_t>(st.st_size), false, st.st_dev, st.st_ino};
}

/* True when the name still stands for the object the view maps (or there
 * is no object under the name at all: nothing newer to map). */
bool same_object(int mod, const ShareView& view)
{
    char name[64];
    if (!share_name(name, mod))
        return true;
    int fd = shm_open(name, O_RDONLY, 0);
    if (fd < 0)
        return true;
    struct stat st{};
    bool same = fstat(fd, &st) != 0 || (st.st_dev == view.dev && st.st_ino == view.ino);
    close(fd);
    return same;
}

/* A client maps what the main application published. When the application
 * published again (a new object under the same name), map the new one.
 * The old mapping stays: pointers handed out before may still be read. */
void refresh_share(const char* fn, int mod)
{
    ShareView& view = g_shareMapList[mod];
    if (view.published || (view.base && same_object(mod, view)))
        return;
    if (ShareView fresh = open_share(fn, mod); fresh.base)
        view = fresh;
}

dov_share_head_s* head_of(int mod)
{
    return static_cast<dov_share_head_s*>(g_shareMapList[mod].base);
}

} // namespace

void para_client_set_send_port(int port)
{
    std::lock_guard<std::mutex> lk(socket_mutex);
    send_port = port;
    set_address();
}

int para_client_send_socket(void)
{
    return socket_descriptor_send.load();
}

void para_share_set_name_prefix(const char* prefix)
{
    std::snprintf(share_prefix, sizeof share_prefix, "%s", prefix ? prefix : "");
}

constexpr size_t kMemberRoom = sizeof(st_data::member);

extern "C" {

#define PARA_SHARE_DEFINE(mod, member)                                                     \
    static_assert(sizeof(#member) <= kMemberRoom, #member " too long");                      \
    int para_set_share_##mod##_##member##_number(int chn, int val)                         \
    {                                                                                      \
        return share_number(#mod, #member, chn, val);                                      \
    }                                                                                      \
    int para_set_share_##mod##_##member##_string(int chn, const char* str)                 \
    {                                                                                      \
        return share_text(__func__, #mod, #member, chn, str);                                   \
    }
PARA_SHARE_MEMBERS(PARA_SHARE_DEFINE)
#undef PARA_SHARE_DEFINE

void Send_Initial(void)
{
    std::lock_guard<std::mutex> lk(socket_mutex);
    set_address();
    /* One socket per process, however often this runs. */
    if (socket_descriptor_send.load() < 0)
        socket_descriptor_send = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

int para_client_init(void)
{
    return 0;
}

int para_share_register(int mod)
{
    if (!valid_mod(__func__, mod))
        return -1;
    {
        std::lock_guard<std::mutex> lk(share_mutex);
        refresh_share(__func__, mod);
        PARA_LOG(PARA_INFO, "video ptr = %p\n", g_shareMapList[mod].base);
        dov_share_head_s* head = head_of(mod);
        if (!head || __atomic_load_n(&head->flag, __ATOMIC_ACQUIRE) != 1) {
            PARA_LOG(PARA_INFO, "ERROR: main program don't register this share module\n");
            return -1;
        }
    }
    if (!g_isSocketReady) {
        Send_Initial();
        g_isSocketReady = 1;
    }
    return 0;
}

void* para_get_share_map(int mod, int mapIdx)
{
    if (!valid_mod(__func__, mod))
        return nullptr;
    std::lock_guard<std::mutex> lk(share_mutex);
    dov_share_head_s* head = head_of(mod);
    // The application clears the flag before it takes an object away.
    if (head && __atomic_load_n(&head->flag, __ATOMIC_ACQUIRE) != 1) {
        refresh_share(__func__, mod);
        head = head_of(mod);
    }
    if (!head)
        return nullptr;
    const int num = head->num;
    const int size = head->size;
    /* The header lives in memory another process writes: never trust it
     * to stay inside what was mapped here. */
    const size_t end = sizeof(dov_share_head_s) + static_cast<size_t>(size < 0 ? 0 : size) *
                                                      static_cast<size_t>(mapIdx < 0 ? 0 : mapIdx);
    if (mapIdx < 1 || mapIdx > num || size < 0 || end > g_shareMapList[mod].len) {
        PARA_LOG(PARA_INFO, "ERROR: This share map is not exist!\n");
        return nullptr;
    }
    return static_cast<char*>(g_shareMapList[mod].base) + sizeof(dov_share_head_s) +
           static_cast<size_t>(size) * static_cast<size_t>(mapIdx - 1);
}

void* para_share_publish(int mod, int num, int size)
{
    if (!valid_mod(__func__, mod))
        return nullptr;
    std::lock_guard<std::mutex> lk(share_mutex);
    if (num < 1 || size < 1 || static_cast<int64_t>(num) * size > INT32_MAX - 64) {
        PARA_LOG(PARA_ERR, "share module %d: bad geometry %d x %d\n", mod, num, size);
        return nullptr;
    }
    const size_t len = sizeof(dov_share_head_s) + static_cast<size_t>(num) * static_cast<size_t>(size);
    ShareView& view = g_shareMapList[mod];
    if (view.base) {
        dov_share_head_s* head = head_of(mod);
        if (view.published && head->num == num && head->size == size)
            return view.base;
        PARA_LOG(PARA_ERR, "share module %d is already mapped here with another layout\n", mod);
        return nullptr;
    }
    char name[64];
    if (!share_name(name, mod))
        return nullptr;
    int fd = shm_open(name, O_RDWR | O_CREAT, 0666);
    struct stat st{};
    if (fd >= 0 && fstat(fd, &st) != 0)
        st = {};
    if (fd < 0) {
        PARA_LOG(PARA_ERR, "shm_open %s failed\n", name);
        return nullptr;
    }
    void* base = MAP_FAILED;
    if (ftruncate(fd, static_cast<off_t>(len)) == 0)
        base = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (base == MAP_FAILED) {
        PARA_LOG(PARA_ERR, "cannot size or map %s\n", name);
        return nullptr;
    }
    /* Flag last: a client that sees 1 also sees the geometry. */
    auto* head = static_cast<dov_share_head_s*>(base);
    __atomic_store_n(&head->flag, 0, __ATOMIC_RELEASE);
    std::memset(static_cast<char*>(base) + sizeof *head, 0, len - sizeof *head);
    head->num = num;
    head->size = size;
    __atomic_store_n(&head->flag, 1, __ATOMIC_RELEASE);
    view = {base, len, true, st.st_dev, st.st_ino};
    PARA_LOG(PARA_INFO, "published %s: %d maps of %d bytes\n", name, num, size);
    return base;
}

int para_share_unpublish(int mod)
{
    if (!valid_mod(__func__, mod))
        return -1;
    std::lock_guard<std::mutex> lk(share_mutex);
    ShareView& view = g_shareMapList[mod];
    if (!view.published)
        return -1;
    __atomic_store_n(&head_of(mod)->flag, 0, __ATOMIC_RELEASE);
    char name[64];
    if (share_name(name, mod))
        shm_unlink(name);
    munmap(view.base, view.len);
    view = {};
    return 0;
}

} // extern "C"

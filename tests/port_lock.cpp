// Linked into the test_net_* executables. Port 6800 is machine-wide and CTest's
// RESOURCE_LOCK only orders tests of one run, so concurrent runs (several build
// trees) also queue on this file lock, taken when tests run, not when CTest lists
// them. An own network namespace (netns.sh) needs none.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>

namespace {
struct PortLock : ::testing::Environment {
    void SetUp() override
    {
        int fd = getenv("PARA_PRIVATE_NET") ? -1 : open("/tmp/para-port-6800.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0666);
        if (fd >= 0)
            flock(fd, LOCK_EX);
    }
};
::testing::Environment* const port_lock = ::testing::AddGlobalTestEnvironment(new PortLock);
} // namespace

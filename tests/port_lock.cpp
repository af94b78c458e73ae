// Linked into the test_net_* executables. Port 6800 is machine-wide: CTest's
// RESOURCE_LOCK only orders tests of one run, so concurrent runs (several
// build trees) also queue on this file lock. Taken when tests run, not when
// CTest only lists them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>

namespace {

class PortLock : public ::testing::Environment {
public:
    void SetUp() override
    {
        if (getenv("PARA_PRIVATE_NET")) // own network namespace (netns.sh)
            return;
        int fd = open("/tmp/para-port-6800.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0666);
        if (fd >= 0)
            flock(fd, LOCK_EX);
    }
};
::testing::Environment* const port_lock = ::testing::AddGlobalTestEnvironment(new PortLock);

} // namespace

// .conf store: a file of 50,000 lines (near the 1 MiB read cap) loads whole (reload marks, order and
// text pointers are scenarios of tests/data/stores_conf).
#include <gtest/gtest.h>

#include "support.h"

TEST(ConfStoreText, FiftyThousandLinesLoadWhole)
{
    std::string ro, rw;
    for (int i = 0; i < 50000; ++i) // every thousandth key also in the read-write file
        (i % 1000 ? ro : rw) += "key" + std::to_string(i) + "=over" + std::to_string(i) + "\n";
    test::TempDir dir;
    test::write_file(dir.ro() + "/netport.conf", ro);
    test::write_file(dir.rw() + "/netport.conf", rw);
    dir.use_as_profile();
    for (const char* name : {"conf", "netport"})
        para_init_conf(const_cast<char*>(name));
    char buf[32];
    for (int i = 0; i < 50000; ++i) {
        std::string key = "key" + std::to_string(i);
        ASSERT_EQ(para_conf_get_member_safe("netport", key.c_str(), buf, sizeof buf), 0) << key;
        ASSERT_EQ(buf, "over" + std::to_string(i)) << key;
    }
    // Keys from files always load; a request cannot add to such a store.
    test::LogCapture log(3);
    EXPECT_EQ(_para_conf_set_member("netport", "extra", "x"), -1);
    EXPECT_TRUE(log.contains("refuse new key [extra]: 50000 keys already")) << log.dump();
    EXPECT_EQ(_para_conf_set_member("netport", "key7", "seven"), 1);
}

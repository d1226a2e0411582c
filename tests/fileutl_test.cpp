// Files and pathnames.
#include <gtest/gtest.h>
#include <unistd.h>

#include "ks/fileutl.h"
#include "ks_test_util.h"

TEST(FileExists, FollowsLinksUnlessAsked)
{
    ks_test::temp_dir dir;
    ks_test::write_file(dir.file("f"), "x");
    ASSERT_EQ(symlink("missing", dir.file("dangling").c_str()), 0);
    EXPECT_EQ(fileutl_exists(dir.file("f").c_str(), 0), 1);
    EXPECT_EQ(fileutl_exists(dir.path().c_str(), 0), 1);
    EXPECT_EQ(fileutl_exists(dir.file("none").c_str(), 0), 0);
    EXPECT_EQ(fileutl_exists(dir.file("dangling").c_str(), 0), 0);
    EXPECT_EQ(fileutl_exists(dir.file("dangling").c_str(), 1), 1);
    EXPECT_EQ(fileutl_exists(nullptr, 0), 0);
}

// Files and pathnames.
#include <errno.h>
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

TEST(FileStat, FollowsOrNotAndReadsDirectories)
{
    ks_test::temp_dir dir;
    ks_test::write_file(dir.file("f"), "abc");
    ASSERT_EQ(symlink("f", dir.file("l").c_str()), 0);
    struct stat st;
    ASSERT_EQ(fileutl_stat(dir.file("l").c_str(), 1, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 3);
    ASSERT_EQ(fileutl_stat(dir.file("l").c_str(), 0, &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    errno = 0;
    EXPECT_EQ(fileutl_stat(dir.file("none").c_str(), 1, &st), -1);
    EXPECT_EQ(errno, ENOENT);

    DIR *d = fileutl_opendir(dir.path().c_str());
    ASSERT_NE(d, nullptr);
    int names = 0;
    while (struct dirent *e = fileutl_readdir(d))
        names += e->d_name[0] != '.';
    EXPECT_EQ(names, 2);
    EXPECT_EQ(fileutl_closedir(d), 0);
    EXPECT_EQ(fileutl_opendir(dir.file("none").c_str()), nullptr);
}

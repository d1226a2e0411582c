// Strings in and out: files read whole and written, and lists printed
// through the message layer; errors name the operation.

#include <fcntl.h>
#include <unistd.h>

#include "ks/imsg.h"
#include "strutl_test_util.h"

// A regular file by descriptor and a pipe, whose size is not known
// beforehand, by stream.
TEST(StrutlFiles, ReadWriteAndLists)
{
    ks_test::temp_dir dir;
    std::string path = dir.file("f"), big(100000, 'q');
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600), p[2];
    EXPECT_EQ(strutl_write(fd, big.c_str()), 0);
    close(fd);
    size_t len = 0;
    fd = open(path.c_str(), O_RDONLY);
    char *r = strutl_read(fd, &len); // sized from the file
    close(fd);
    EXPECT_TRUE(r && len == big.size() && r == big);
    stg_free(r);
    ASSERT_EQ(pipe(p), 0);
    EXPECT_EQ(strutl_write(p[1], big.c_str() + 40000), 0); // within the pipe's buffer
    close(p[1]);
    FILE *fp = fdopen(p[0], "r");
    r = strutl_read_fp(fp, &len);
    fclose(fp);
    EXPECT_TRUE(r && len == 60000 && r == big.substr(40000));
    stg_free(r);
    // Errors name the operation; lists: normal output always, trace output
    // only for a traced subsystem at or below the verbosity.
    auto res = ks_test::run_in_child([&] {
        const char *list[] = {"first", "second", nullptr}, *traced[] = {"traced one", "traced two", nullptr};
        strutl_list_print(list);
        strutl_list_trace_print("ks/strutl", 1, list); // not traced
        imsg_set_trace_verbosity(2);
        imsg_set_trace_subsys("ks/strutl");
        strutl_list_trace_print("ks/strutl", 2, traced);
        strutl_list_trace_print("ks/strutl", 3, traced); // above the level
        char *x = strutl_read(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY), nullptr);
        int w = strutl_write(open("/dev/null", O_RDONLY), "x");
        FILE *dfp = fopen(dir.path().c_str(), "r");
        return (x == nullptr && w == 1 && dfp && strutl_read_fp(dfp, nullptr) == nullptr) ? 0 : 1;
    });
    EXPECT_EQ(res.exit_code(), 0);
    EXPECT_EQ(res.out, "first\nsecond\n");
    size_t traced = res.err.find("traced one\ntraced two\n"), read = res.err.find("Operation read: Is a directory");
    EXPECT_TRUE(traced != std::string::npos && traced == res.err.rfind("traced one")) << res.err;
    EXPECT_NE(res.err.find("Operation read: Is a directory", read + 1), std::string::npos) << res.err;
    EXPECT_NE(res.err.find("Operation write: Bad file descriptor"), std::string::npos) << res.err;
    EXPECT_EQ(res.err.find("first"), std::string::npos) << res.err;
}

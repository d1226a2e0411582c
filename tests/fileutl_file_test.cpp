// Whole files: checksums, comparison, dump and load, mapping, backward reading.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "ks/fileutl.h"
#include "ks/stg.h"
#include "ks_test_util.h"

using testing::HasSubstr;

namespace {

// The rule as written, one byte at a time, with its own table.
uint32_t byte_rule(const std::vector<unsigned char> &data, uint32_t value = 0,
                   uint32_t *ctr = nullptr)
{
    uint32_t table[256];
    for (uint32_t i = 0; i < 256; i++) {
        uint32_t c = i;
        for (int k = 0; k < 8; k++)
            c = (c & 1) ? 0xEDB88320U ^ (c >> 1) : c >> 1;
        table[i] = c;
    }
    table[0] = 0x7FFFFFFF;
    uint32_t counter = ctr ? *ctr : 0;
    for (unsigned char b : data) {
        uint32_t idx = (value >> 24) ^ b;
        if (idx == 0)
            idx = counter, counter = (counter + 1) % 256;
        value = (value << 8) ^ table[idx];
    }
    if (ctr)
        *ctr = counter;
    return value;
}

uint32_t crc_of(const std::vector<unsigned char> &data)
{
    uint32_t crc = 1;
    fileutl_crc_buffer(data.data(), data.size(), &crc);
    return crc;
}

// Random bytes with runs of zeros, so substitutions happen inside blocks.
std::vector<unsigned char> sample(size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::vector<unsigned char> v(n);
    for (size_t i = 0; i < n; i++)
        v[i] = rng() % 4 == 0 ? 0 : static_cast<unsigned char>(rng());
    return v;
}

void on_signal(int) {}

// SIGALRM every 2 ms, interrupting system calls.
void interrupt_often()
{
    struct sigaction sa = {};
    sa.sa_handler = on_signal;
    sigaction(SIGALRM, &sa, nullptr);
    struct itimerval it = {{0, 2000}, {0, 2000}};
    setitimer(ITIMER_REAL, &it, nullptr);
}

} // namespace

TEST(Crc, DocumentedValues)
{
    EXPECT_EQ(crc_of({}), 0u);
    EXPECT_EQ(crc_of({0}), 0x7FFFFFFFu);
    EXPECT_EQ(crc_of({0, 0}), 0xFFFFFF00u ^ 0xC0BA6CADu); // table entry 0x7F
    EXPECT_EQ(crc_of({1}), 0x77073096u);
    EXPECT_EQ(crc_of({0xFF}), 0x2D02EF8Du);
    EXPECT_EQ(crc_of({'1', '2', '3', '4', '5', '6', '7', '8', '9'}), 0xFC9E4DC1u);
    EXPECT_EQ(crc_of(std::vector<unsigned char>(100000)), 0x6602E7C1u); // the counter wraps
}

TEST(Crc, MatchesTheByteRuleOnRandomData)
{
    for (size_t n : {1, 7, 8, 9, 15, 16, 17, 63, 64, 65, 1000, 4093, 65536 + 5})
        for (unsigned seed = 0; seed < 8; seed++) {
            auto data = sample(n, seed * 977 + static_cast<unsigned>(n));
            ASSERT_EQ(crc_of(data), byte_rule(data)) << n << " " << seed;
        }
    std::vector<unsigned char> zeros(5000, 0);
    zeros[2500] = 7;
    EXPECT_EQ(crc_of(zeros), byte_rule(zeros));
}

TEST(Crc, StepsAtEverySplitCarryTheCounter)
{
    auto data = sample(300, 5);
    uint32_t whole = crc_of(data);
    for (size_t cut = 0; cut <= data.size(); cut++) {
        uint32_t counter = 0, crc = 0;
        fileutl_crc_buffer_step(data.data(), cut, &counter, &crc);
        uint32_t mid_counter = 0;
        ASSERT_EQ(crc, byte_rule({data.begin(), data.begin() + cut}, 0, &mid_counter));
        ASSERT_EQ(counter, mid_counter);
        fileutl_crc_buffer_step(data.data() + cut, data.size() - cut, &counter, &crc);
        ASSERT_EQ(crc, whole) << cut;
    }
}

TEST(Crc, FilesAndDescriptors)
{
    ks_test::temp_dir dir;
    auto data = sample(20000, 9);
    ks_test::write_file(dir.file("f"), std::string(data.begin(), data.end()));
    uint32_t crc = 0;
    int err = 0;
    ASSERT_EQ(fileutl_crc(dir.file("f").c_str(), &crc, &err), 0);
    EXPECT_EQ(crc, byte_rule(data));
    int fd = open(dir.file("f").c_str(), O_RDONLY);
    fileutl_size64_t size = {7, 7};
    ASSERT_EQ(fileutl_crc_fd(fd, &crc, &size, &err), 0);
    close(fd);
    EXPECT_EQ(crc, byte_rule(data));
    EXPECT_EQ(size.high, 0u);
    EXPECT_EQ(size.low, 20000u);
    EXPECT_EQ(fileutl_crc(dir.file("none").c_str(), &crc, &err), -4);
    EXPECT_EQ(err, ENOENT);
    EXPECT_EQ(fileutl_crc(dir.path().c_str(), &crc, &err), -4);
    EXPECT_EQ(err, EISDIR);
}

TEST(Crc, InterruptedOpenIsRetriedFiveTimes)
{
    ks_test::temp_dir dir;
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    auto r = ks_test::run_in_child([&] {
        interrupt_often();
        uint32_t crc;
        int err = 0;
        int rc = fileutl_crc(dir.file("fifo").c_str(), &crc, &err); // no writer: open blocks
        return rc == -4 && err == EINTR ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
}

TEST(Crc, InterruptedReadsAreRetriedFiveInARow)
{
    auto r = ks_test::run_in_child([] {
        int p[2];
        if (pipe(p) != 0)
            return 2;
        pid_t writer = fork();
        if (writer == 0) { // four interrupts before each byte, then the end
            for (int i = 0; i < 3; i++) {
                for (int k = 0; k < 4; k++)
                    usleep(20000), kill(getppid(), SIGUSR1);
                usleep(20000);
                (void)!write(p[1], "x", 1);
            }
            _exit(0);
        }
        close(p[1]);
        struct sigaction sa = {};
        sa.sa_handler = on_signal;
        sigaction(SIGUSR1, &sa, nullptr);
        uint32_t crc;
        fileutl_size64_t size;
        int err = 0;
        if (fileutl_crc_fd(p[0], &crc, &size, &err) != 0 || size.low != 3)
            return 3;
        interrupt_often(); // and never a byte: the sixth interrupt in a row ends it
        int q[2];
        if (pipe(q) != 0)
            return 2;
        int rc = fileutl_crc_fd(q[0], &crc, &size, &err);
        return rc == -4 && err == EINTR ? 0 : 4;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
}

TEST(Cmp, ShortcutsContentsAndMessages)
{
    ks_test::temp_dir dir;
    ks_test::write_file(dir.file("a"), std::string(20000, 'x'));
    ks_test::write_file(dir.file("b"), std::string(20000, 'x'));
    ks_test::write_file(dir.file("c"), std::string(19999, 'x') + "y");
    ks_test::write_file(dir.file("short"), "x");
    // FIFOs would block if opened: the shortcuts decide without reading.
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    ASSERT_EQ(link(dir.file("fifo").c_str(), dir.file("link").c_str()), 0);
    struct {
        const char *a, *b;
        int same;
    } cases[] = {
        {"a", "b", 1}, {"a", "c", 0}, {"a", "short", 0}, {"fifo", "link", 1}, {"fifo", "short", 0}};
    for (auto &c : cases) {
        int same = -1;
        EXPECT_EQ(fileutl_cmp(dir.file(c.a).c_str(), dir.file(c.b).c_str(), 0, &same), 0);
        EXPECT_EQ(same, c.same) << c.a << " " << c.b;
    }
    mkdir(dir.file("d1").c_str(), 0755);
    mkdir(dir.file("d2").c_str(), 0755);
    auto r = ks_test::run_in_child([&] {
        int same;
        int rc1 = fileutl_cmp(dir.file("none").c_str(), dir.file("a").c_str(), 0, &same);
        int rc2 = fileutl_cmp(dir.file("d1").c_str(), dir.file("d2").c_str(), 0, &same);
        int rc3 = fileutl_cmp(dir.file("none").c_str(), dir.file("a").c_str(), 1, &same);
        // /proc files say size 0 and read otherwise, like files changing meanwhile.
        int rc4 = fileutl_cmp("/proc/self/stat", "/proc/self/cmdline", 0, &same);
        return rc1 == -1 && rc2 == -1 && rc3 == -1 && rc4 == -1 ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_THAT(r.err, HasSubstr(dir.file("none") + ": No such file or directory\n"));
    EXPECT_THAT(r.err,
                HasSubstr("Unable to read file \"" + dir.file("d1") + "\": Is a directory.\n"));
    EXPECT_THAT(r.err, HasSubstr("Unexpected error.\n"));
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 3);
}

TEST(DumpLoad, DumpKeepsTheTailAndLoadReadsToTheEnd)
{
    ks_test::temp_dir dir;
    ks_test::write_file(dir.file("f"), "0123456789");
    int err = 0;
    ASSERT_EQ(fileutl_dump("abc", 3, dir.file("f").c_str(), &err), 0);
    EXPECT_EQ(ks_test::read_file(dir.file("f")), "abc3456789");
    umask(022);
    ASSERT_EQ(fileutl_dump("new", 3, dir.file("g").c_str(), &err), 0);
    struct stat st;
    stat(dir.file("g").c_str(), &st);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(fileutl_dump("x", 1, dir.path().c_str(), &err), 1);
    EXPECT_EQ(err, EISDIR);
    auto r = ks_test::run_in_child([&] { // a file size limit makes the write short
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit rl = {5, 5};
        setrlimit(RLIMIT_FSIZE, &rl);
        int e = 0;
        return fileutl_dump("0123456789", 10, dir.file("h").c_str(), &e) == 1 && e == EIO ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);

    size_t len = 0;
    auto *buf = static_cast<char *>(fileutl_load(dir.file("f").c_str(), &len, &err));
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(std::string(buf, len + 1), std::string("abc3456789", 11));
    stg_free(buf);
    // Status says 0 bytes; the reading goes past the first guess to the end.
    buf = static_cast<char *>(fileutl_load("/proc/self/smaps", &len, &err));
    ASSERT_NE(buf, nullptr);
    EXPECT_GT(len, 8192u);
    EXPECT_EQ(strlen(buf), len);
    stg_free(buf);
    EXPECT_EQ(fileutl_load(dir.file("none").c_str(), &len, &err), nullptr);
    EXPECT_EQ(err, ENOENT);
}

TEST(Mapping, MapsListsAndReleases)
{
    ks_test::temp_dir dir;
    ks_test::write_file(dir.file("f"), "mapped text");
    ks_test::write_file(dir.file("empty"), "");
    size_t len = 0;
    int err = 0;
    auto *p = static_cast<char *>(fileutl_locate_pname(dir.file("f").c_str(), 0, &len, &err));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::string(p, len), "mapped text");
    auto *w = static_cast<char *>(fileutl_locate_pname(dir.file("f").c_str(), 1, &len, &err));
    ASSERT_NE(w, nullptr);
    memcpy(w, "MAPPED", 6);
    void *e = fileutl_locate_pname(dir.file("empty").c_str(), 0, &len, &err);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(fileutl_unlocate(w), 0);
    EXPECT_EQ(ks_test::read_file(dir.file("f")), "MAPPED text");
    EXPECT_EQ(fileutl_unlocate(p), 0);
    EXPECT_EQ(fileutl_unlocate(e), 0);
    errno = 0;
    EXPECT_EQ(fileutl_unlocate(p), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fileutl_locate_pname(dir.file("none").c_str(), 0, &len, &err), nullptr);
    EXPECT_EQ(err, ENOENT);
}

namespace {

std::vector<std::string> read_back(FILE *fp, int from_end, int size, size_t max = 100)
{
    std::vector<std::string> lines;
    fileutl_bw_t *bw = fileutl_bw_start(fp, from_end);
    std::vector<char> buf(static_cast<size_t>(size));
    while (lines.size() < max && fileutl_bw_fgets(buf.data(), size, bw) != nullptr)
        lines.emplace_back(buf.data());
    fileutl_bw_stop(bw);
    return lines;
}

} // namespace

TEST(BackwardReader, LinesLastFirstInPiecesAndFromAPosition)
{
    ks_test::temp_dir dir;
    std::string text = "one\ntwo two\n\n" + std::string(70000, 'l') + "\nlast";
    ks_test::write_file(dir.file("f"), text);
    FILE *fp = fopen(dir.file("f").c_str(), "r");
    auto lines = read_back(fp, 1, 100000);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], "last");
    EXPECT_EQ(lines[1], std::string(70000, 'l') + "\n");
    EXPECT_EQ(lines[2], "\n");
    EXPECT_EQ(lines[3], "two two\n");
    EXPECT_EQ(lines[4], "one\n");
    fseeko(fp, 8, SEEK_SET); // inside "two two"
    EXPECT_EQ(read_back(fp, 0, 100), (std::vector<std::string>{"two ", "one\n"}));
    fseeko(fp, 0, SEEK_SET);
    EXPECT_EQ(read_back(fp, 0, 100), std::vector<std::string>{});
    fseeko(fp, 12, SEEK_SET);
    EXPECT_EQ(read_back(fp, 0, 4), (std::vector<std::string>{"wo\n", "o t", "tw", "ne\n", "o"}));
    fclose(fp);
    char buf[8];
    EXPECT_EQ(fileutl_bw_fgets(buf, sizeof buf, nullptr), nullptr);
}

TEST(BackwardReader, SeeksPastFourGigabytesInASparseFile)
{
    ks_test::temp_dir dir;
    int fd = open(dir.file("big").c_str(), O_WRONLY | O_CREAT, 0600);
    const off_t far = (5LL << 30) + 123;
    ASSERT_EQ(pwrite(fd, "start\n", 6, 0), 6);
    ASSERT_EQ(pwrite(fd, "\nalpha\nomega\n", 13, far), 13);
    close(fd);
    FILE *fp = fopen(dir.file("big").c_str(), "r");
    auto lines = read_back(fp, 1, 4096, 3);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "omega\n");
    EXPECT_EQ(lines[1], "alpha\n");
    EXPECT_EQ(lines[2], ""); // the hole before "\n": 4095 bytes, zeros first
    fseeko(fp, far + 7, SEEK_SET);
    EXPECT_EQ(read_back(fp, 0, 4096, 1), std::vector<std::string>{"alpha\n"});
    fclose(fp);
}

// Whole files: checksums, comparison, dump and load, mapping, backward reading.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "ks/fileutl.h"
#include "ks/stg.h"
#include "ks_test_util.h"

using testing::HasSubstr;
using bytes = std::vector<unsigned char>;

namespace {

// The rule as written, one byte at a time, with a table of its own.
uint32_t byte_rule(const bytes &data, uint32_t *ctr = nullptr)
{
    uint32_t table[256], counter = 0, value = 0;
    for (uint32_t i = 0; i < 256; i++) {
        table[i] = i;
        for (int k = 0; k < 8; k++) table[i] = (table[i] & 1) ? 0xEDB88320U ^ (table[i] >> 1) : table[i] >> 1;
    }
    table[0] = 0x7FFFFFFF;
    for (unsigned char b : data) {
        uint32_t idx = (value >> 24) ^ b;
        if (idx == 0) idx = counter, counter = (counter + 1) % 256;
        value = (value << 8) ^ table[idx];
    }
    if (ctr) *ctr = counter;
    return value;
}

uint32_t crc_of(const bytes &data) { uint32_t crc = 1; return fileutl_crc_buffer(data.data(), data.size(), &crc), crc; }

// Random bytes, a quarter of them zero, so substitutions fall inside blocks.
bytes sample(size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    bytes v(n);
    for (auto &b : v) b = rng() % 4 == 0 ? 0 : static_cast<unsigned char>(rng());
    return v;
}

void on_signal(int) {}

// A handler without SA_RESTART, and SIGALRM every 2 ms unless signo differs.
void interrupt_often(int signo = SIGALRM)
{
    struct sigaction sa = {};
    sa.sa_handler = on_signal;
    sigaction(signo, &sa, nullptr);
    struct itimerval it = {{0, 2000}, {0, 2000}};
    if (signo == SIGALRM) setitimer(ITIMER_REAL, &it, nullptr);
}

// Lines read backwards from fp, joined with "|".
std::string read_back(FILE *fp, int from_end, int size, size_t max = 100)
{
    std::string out;
    fileutl_bw_t *bw = fileutl_bw_start(fp, from_end);
    std::vector<char> buf(static_cast<size_t>(size));
    for (size_t n = 0; n < max && fileutl_bw_fgets(buf.data(), size, bw) != nullptr; n++) out += std::string(buf.data()) + "|";
    return fileutl_bw_stop(bw), out;
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
    EXPECT_EQ(crc_of(bytes(100000)), 0x6602E7C1u); // the counter wraps many times
}

TEST(Crc, MatchesTheByteRuleWholeAndInSteps)
{
    for (size_t n : {1, 7, 8, 9, 15, 16, 17, 63, 64, 65, 1000, 4093, 65541})
        for (unsigned seed = 0; seed < 8; seed++) {
            auto data = sample(n, seed * 977 + static_cast<unsigned>(n));
            ASSERT_EQ(crc_of(data), byte_rule(data)) << n << " " << seed;
        }
    bytes zeros(5000, 0);
    zeros[2500] = 7;
    EXPECT_EQ(crc_of(zeros), byte_rule(zeros));
    // In steps, split anywhere: the caller's counter carries the substitutions over.
    auto data = sample(300, 5);
    for (size_t cut = 0; cut <= data.size(); cut++) {
        uint32_t counter = 0, crc = 0, mid_counter = 0;
        fileutl_crc_buffer_step(data.data(), cut, &counter, &crc);
        ASSERT_TRUE(crc == byte_rule({data.begin(), data.begin() + cut}, &mid_counter) && counter == mid_counter);
        fileutl_crc_buffer_step(data.data() + cut, data.size() - cut, &counter, &crc);
        ASSERT_EQ(crc, crc_of(data)) << cut;
    }
}

TEST(Crc, FilesAndDescriptors)
{
    ks_test::temp_dir dir;
    auto data = sample(20000, 9);
    ks_test::write_file(dir.file("f"), std::string(data.begin(), data.end()));
    uint32_t crc = 0;
    int err = 0, fd = open(dir.file("f").c_str(), O_RDONLY);
    fileutl_size64_t size = {7, 7};
    EXPECT_TRUE(fileutl_crc_fd(fd, &crc, &size, &err) == 0 && close(fd) == 0);
    EXPECT_TRUE(crc == byte_rule(data) && size.high == 0 && size.low == 20000);
    EXPECT_TRUE(fileutl_crc(dir.file("f").c_str(), &crc, &err) == 0 && crc == byte_rule(data));
    EXPECT_TRUE(fileutl_crc(dir.file("none").c_str(), &crc, &err) == -4 && err == ENOENT);
    EXPECT_TRUE(fileutl_crc(dir.path().c_str(), &crc, &err) == -4 && err == EISDIR);
}

TEST(Crc, InterruptedOpensAndReadsAreRetriedFiveInARow)
{
    ks_test::temp_dir dir;
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    auto r = ks_test::run_in_child([&] {
        int p[2], q[2], err = 0;
        uint32_t crc;
        fileutl_size64_t size;
        if (pipe(p) != 0 || pipe(q) != 0)
            return 2;
        if (fork() == 0) { // four interrupts before each of three bytes
            for (int i = 0; i < 15 && usleep(20000) == 0; i++)
                if (i % 5 < 4 ? kill(getppid(), SIGUSR1) : write(p[1], "x", 1) < 0)
                    break;
            _exit(0);
        }
        close(p[1]);
        interrupt_often(SIGUSR1);
        if (fileutl_crc_fd(p[0], &crc, &size, &err) != 0 || size.low != 3)
            return 3;
        interrupt_often(); // no byte ever: the sixth interrupt in a row ends it
        if (fileutl_crc_fd(q[0], &crc, &size, &err) != -4 || err != EINTR)
            return 4;
        err = 0; // and a FIFO without a writer blocks its open
        return fileutl_crc(dir.file("fifo").c_str(), &crc, &err) == -4 && err == EINTR ? 0 : 5;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
}

TEST(Cmp, ShortcutsContentsAndMessages)
{
    ks_test::temp_dir dir;
    for (auto *n : {"a", "b"}) ks_test::write_file(dir.file(n), std::string(20000, 'x'));
    ks_test::write_file(dir.file("c"), std::string(19999, 'x') + "y");
    ks_test::write_file(dir.file("short"), "x");
    // FIFOs would block if opened: the shortcuts decide without reading.
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    ASSERT_EQ(link(dir.file("fifo").c_str(), dir.file("link").c_str()), 0);
    for (auto c : {"a b 1", "a c 0", "a short 0", "fifo link 1", "fifo short 0"}) {
        std::string a(c, strchr(c, ' ')), b(strchr(c, ' ') + 1, strrchr(c, ' '));
        int same = -1;
        EXPECT_EQ(fileutl_cmp(dir.file(a).c_str(), dir.file(b).c_str(), 0, &same), 0);
        EXPECT_EQ(same, c[strlen(c) - 1] - '0') << c;
    }
    mkdir(dir.file("d1").c_str(), 0755), mkdir(dir.file("d2").c_str(), 0755);
    auto r = ks_test::run_in_child([&] {
        int same, rc = fileutl_cmp(dir.file("none").c_str(), dir.file("a").c_str(), 0, &same);
        rc += fileutl_cmp(dir.file("d1").c_str(), dir.file("d2").c_str(), 0, &same);
        rc += fileutl_cmp(dir.file("none").c_str(), dir.file("a").c_str(), 1, &same);
        // /proc files say size 0 and then read more, as files that grow meanwhile.
        return rc + fileutl_cmp("/proc/self/stat", "/proc/self/cmdline", 0, &same);
    });
    EXPECT_EQ(r.exit_code(), 252); // four times -1
    EXPECT_THAT(r.err, HasSubstr(dir.file("none") + ": No such file or directory\n"));
    EXPECT_THAT(r.err, HasSubstr("Unable to read file \"" + dir.file("d1") + "\": Is a directory.\n"));
    EXPECT_THAT(r.err, HasSubstr("Unexpected error.\n"));
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 3);
}

TEST(Images, DumpKeepsTheTailLoadReadsToTheEndMappingsAreListed)
{
    ks_test::temp_dir dir;
    ks_test::write_file(dir.file("f"), "0123456789");
    int err = 0;
    ASSERT_EQ(fileutl_dump("abc", 3, dir.file("f").c_str(), &err), 0);
    EXPECT_EQ(ks_test::read_file(dir.file("f")), "abc3456789");
    struct stat st;
    umask(022);
    EXPECT_TRUE(fileutl_dump("new", 3, dir.file("g").c_str(), &err) == 0 && stat(dir.file("g").c_str(), &st) == 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_TRUE(fileutl_dump("x", 1, dir.path().c_str(), &err) == 1 && err == EISDIR);
    auto r = ks_test::run_in_child([&] { // a file size limit makes the write short
        struct rlimit rl = {5, 5};
        int e = (signal(SIGXFSZ, SIG_IGN), setrlimit(RLIMIT_FSIZE, &rl));
        return fileutl_dump("0123456789", 10, dir.file("h").c_str(), &e) == 1 && e == EIO ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);

    size_t len = 0;
    auto *buf = static_cast<char *>(fileutl_load(dir.file("f").c_str(), &len, &err));
    EXPECT_EQ(std::string(buf, len + 1), std::string("abc3456789", 11));
    stg_free(buf);
    // Status says 0 bytes; the reading goes past the first guess to the end.
    buf = static_cast<char *>(fileutl_load("/proc/self/smaps", &len, &err));
    EXPECT_TRUE(len > 8192 && strlen(buf) == len);
    stg_free(buf);
    EXPECT_TRUE(fileutl_load(dir.file("none").c_str(), &len, &err) == nullptr && err == ENOENT);

    // Mapping: read-only, shared and writable, an empty file; the list knows each once.
    ks_test::write_file(dir.file("f"), "mapped text");
    ks_test::write_file(dir.file("empty"), "");
    size_t elen = 1;
    auto *p = static_cast<char *>(fileutl_locate_pname(dir.file("f").c_str(), 0, &len, &err));
    EXPECT_EQ(std::string(p, len), "mapped text");
    auto *w = static_cast<char *>(fileutl_locate_pname(dir.file("f").c_str(), 1, &len, &err));
    memcpy(w, "MAPPED", 6);
    void *e = fileutl_locate_pname(dir.file("empty").c_str(), 0, &elen, &err);
    EXPECT_TRUE(e != nullptr && elen == 0);
    EXPECT_EQ(fileutl_unlocate(w) + fileutl_unlocate(p) + fileutl_unlocate(e), 0);
    EXPECT_EQ(ks_test::read_file(dir.file("f")), "MAPPED text");
    EXPECT_TRUE(fileutl_unlocate(p) == -1 && errno == EINVAL);
    EXPECT_TRUE(fileutl_locate_pname(dir.file("none").c_str(), 0, &len, &err) == nullptr && err == ENOENT);
}

TEST(BackwardReader, LinesLastFirstInPiecesFromAPositionAndPastFourGigabytes)
{
    ks_test::temp_dir dir;
    ks_test::write_file(dir.file("f"), "one\ntwo two\n\n" + std::string(70000, 'l') + "\nlast");
    FILE *fp = fopen(dir.file("f").c_str(), "r");
    EXPECT_EQ(read_back(fp, 1, 100000),
              "last|" + std::string(70000, 'l') + "\n|\n|two two\n|one\n|");
    fseeko(fp, 8, SEEK_SET); // inside "two two"
    EXPECT_EQ(read_back(fp, 0, 100), "two |one\n|");
    EXPECT_EQ((fseeko(fp, 0, SEEK_SET), read_back(fp, 0, 100)), "");
    EXPECT_EQ((fseeko(fp, 12, SEEK_SET), read_back(fp, 0, 4)), "wo\n|o t|tw|ne\n|o|");
    fclose(fp);
    char buf[8];
    EXPECT_EQ(fileutl_bw_fgets(buf, sizeof buf, nullptr), nullptr);

    // A sparse file past 4 GiB.
    int fd = open(dir.file("big").c_str(), O_WRONLY | O_CREAT, 0600);
    const off_t far = (5LL << 30) + 123;
    ASSERT_EQ(pwrite(fd, "start\n", 6, 0) + pwrite(fd, "\nalpha\nomega\n", 13, far), 19);
    close(fd);
    fp = fopen(dir.file("big").c_str(), "r");
    // The third line is the hole before "\n": 4095 bytes, zeros first.
    EXPECT_EQ(read_back(fp, 1, 4096, 3), "omega\n|alpha\n||");
    fseeko(fp, far + 7, SEEK_SET);
    EXPECT_EQ(read_back(fp, 0, 4096, 1), "alpha\n|");
    fclose(fp);
}

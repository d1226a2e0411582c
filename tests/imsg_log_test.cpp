// The command log (header, references, the record lock between processes)
// and the daemon log (time stamps, hourly reopening of a moved file, the
// pipes on descriptors 1 and 2, suspension), in real children and files.
// GCC 12 finds uninitialised members in std::regex's automaton when sanitizing: a false alarm.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>

#include "ks/imsg.h"
#include "ks/sysutl.h"
#include "ks_test_util.h"
#include "ks_testing.h"

namespace {

const std::string kStars = "\n" + std::string(67, '*') + "\n";
// 90000, 93600 and 93601 seconds in the date module's general form (TZ=UTC).
const std::string kStamp0 = "1970-01-02T01:00:00Z ";
const std::string kStamp1 = "1970-01-02T02:00:00Z ";
const std::string kStamp2 = "1970-01-02T02:00:01Z ";

// The header a process writes at 90000 seconds.
std::string header(const std::string &pid)
{
    return kStars + "Fri Jan  2 01:00:00 1970. host \"" + sysutl_myhostname() + "\", pid " + pid + ", user \"" +
           sysutl_myloginname() + "\"\n";
}

std::string refusal(const std::string &path)
{
    return "Unable to open log file \"" + path + "\": pathname must not be a symbolic link.\n";
}

class ImsgLog : public ::testing::Test {
  protected:
    void SetUp() override
    {
        setenv("OTTER_HOSTDATA_DIR", hostdata.path().c_str(), 1); // naming the tool needs one
        imsg_set_app_name("mytool");
        ks::clock_fix_for_testing(90000, 0);
    }
    ks_test::temp_dir hostdata, dir;
    std::string path = dir.file("log");
};

// One end closes after two starts; imsg_sync_log sets the count, closing
// below 1, and imsg_end_log never takes it below 0.
TEST_F(ImsgLog, StartsAppendUnderAHeaderOneEndClosesAndSyncSetsTheCount)
{
    ks_test::write_file(path, "old\n");
    auto r = ks_test::run_in_child([&] {
        imsg_start_log(path.c_str(), 0);
        imsg_print(IMSG_ERROR, "one\n", IMSG_LITERAL);
        imsg_start_log_file(path.c_str());
        imsg_set_log_nextra_nls();
        imsg_print(IMSG_OK, "two\n", IMSG_LITERAL);
        std::string got = std::to_string(imsg_log_ref_count());
        got += std::to_string(imsg_end_log());
        imsg_print(IMSG_OK, "out\n", IMSG_LITERAL);
        imsg_start_log_file(path.c_str());
        imsg_print(IMSG_OK, "three\n", IMSG_LITERAL);
        for (int n : {imsg_end_log_file(), imsg_log_ref_count(), imsg_end_log(), imsg_log_ref_count(), imsg_sync_log(3),
                      imsg_end_log(), imsg_log_ref_count(), imsg_sync_log(0), imsg_sync_log(-2), imsg_log_ref_count(),
                      (imsg_start_log(path.c_str(), 0), 9), imsg_sync_log(0)})
            got += std::to_string(n);
        imsg_print(IMSG_OK, "%d\n", IMSG_LITERAL, imsg_log_ref_count());
        return printf("%s %d", got.c_str(), getpid()) < 0;
    });
    std::string pid = r.out.substr(r.out.rfind(' ') + 1), h = header(pid);
    EXPECT_EQ(r.out, "out\n0\n10000030200090 " + pid); // each call's result, in order
    EXPECT_EQ(ks_test::read_file(path), "old\n" + h + "mytool: Error: one\n" + h + "two\n\n" + h + "three\n" + h);
}

TEST_F(ImsgLog, LinksDirectoriesAndMissingPlacesAreNoLogAndTheProgramGoesOn)
{
    ASSERT_EQ(symlink(dir.file("target").c_str(), dir.file("link").c_str()) | mkdir(dir.file("sub").c_str(), 0755), 0);
    for (std::string name : {"link", "sub", "no/log"}) {
        std::string p = dir.file(name), why = name == "sub" ? "Is a directory" : "No such file or directory";
        auto r = ks_test::run_in_child([&] {
            imsg_start_log(p.c_str(), 0);
            imsg_print(IMSG_OK, "x\n", IMSG_LITERAL);
            return imsg_end_log() != 0 || printf("%d", getpid()) < 0;
        });
        bool link = name == "link";
        std::string said = link ? refusal(p) : "mytool: Error: Unable to open file \"" + p + "\":  " + why + "\n";
        EXPECT_EQ(r.err, said + header(r.out) + "x\n") << name;
        auto d = ks_test::run_in_child([&] {
            int rc = imsg_init_daemon(p.c_str(), 0);
            return imsg_print(IMSG_OK, "x\n", IMSG_LITERAL) < 0 || rc != 0;
        });
        said = link ? refusal(p) + refusal(p)
                    : p + ": " + why + "\n" + kStamp0 + "mytool: Error: " + p + ": " + why + "\n";
        EXPECT_EQ(d.out + "|" + d.err + std::to_string(d.exit_code()), kStamp0 + "mytool: Ok: x\n|" + said + "0")
            << name;
    }
    EXPECT_NE(access(dir.file("target").c_str(), F_OK), 0);
}

// One process holds the log: another falls back to its error stream.  Two
// writing at once: each header is followed by its own writer's lines only.
TEST_F(ImsgLog, ProcessesTakeTheLogInTurnsUnderTheRecordLock)
{
    imsg_start_log(path.c_str(), 0);
    // The child lets go of the log it inherited, then asks for its own.
    auto refused =
        ks_test::run_in_child([&] { return imsg_sync_log(0) != 0 || imsg_start_log(path.c_str(), 0) != stderr; });
    EXPECT_EQ(refused.exit_code() + refused.err.find(kStars), 0U);
    imsg_end_log();
    fflush(nullptr);
    pid_t other = fork();
    ASSERT_NE(freopen("/dev/null", "w", stderr), nullptr);
    // Ten blocks each: a refused start writes to the error stream instead.
    for (int written = 0, tries = 0; written < 10 && tries < 100000; tries++) {
        written += imsg_start_log(path.c_str(), 0) != stderr;
        for (int j = 0; j < 3; j++)
            imsg_print(IMSG_OK, "%d\n", IMSG_LITERAL, getpid());
        imsg_end_log();
    }
    if (other == 0)
        _exit(0);
    waitpid(other, nullptr, 0);
    std::string text = ks_test::read_file(path), head = "\\n\\*{67}\\n[^\\n]*, pid ";
    EXPECT_TRUE(std::regex_match(text, std::regex(head + ".*\\n(" + head + "(\\d+),.*\\n\\2\\n\\2\\n\\2\\n){20}")))
        << text;
}

TEST_F(ImsgLog, DaemonKeepsAMovedLogUntilTheHourThenRecreatesItWithThePipesText)
{
    std::string moved = dir.file("log.1");
    auto r = ks_test::run_in_child([&] {
        umask(077);
        int rc = imsg_init_daemon(path.c_str(), 0);
        imsg_print(IMSG_OK, "first\n", IMSG_LITERAL);
        rename(path.c_str(), moved.c_str());
        ks::clock_fix_for_testing(93600, 0);
        imsg_print(IMSG_WARNING, "second\n", IMSG_LITERAL);
        ks::clock_fix_for_testing(93601, 0);
        bool wrote = write(1, "raw out\npar", 11) == 11 && write(2, "raw err\n", 8) == 8;
        imsg_print(IMSG_OK, "third\n", IMSG_LITERAL);
        wrote = wrote && write(1, "tial\n", 5) == 5;
        imsg_print(IMSG_ERROR_CONT, "fourth\n", IMSG_LITERAL);
        return rc != 0 || !wrote;
    });
    EXPECT_EQ(r.out + r.err + std::to_string(r.exit_code()), "0");
    // What waited in the pipes at the reopen belongs to the old file.
    EXPECT_EQ(ks_test::read_file(moved), kStamp0 + "mytool: Ok: first\n" + kStamp1 + "mytool: Warning: second\n" +
                                             kStamp2 + "mytool: raw out\n" + kStamp2 + "mytool: Error: raw err\n");
    EXPECT_EQ(ks_test::read_file(path), kStamp2 + "mytool: Ok: third\n" + kStamp2 + "mytool: partial\nfourth\n");
    struct stat st;
    EXPECT_TRUE(stat(path.c_str(), &st) == 0 && (st.st_mode & 0777) == 0666);
}

TEST_F(ImsgLog, SuspendPrintsToTheRealStreamsAndResumeTurnsOkOn)
{
    auto r = ks_test::run_in_child([&] {
        errno = 0;
        imsg_suspend_daemon_logging();
        errno = 0;
        imsg_resume_daemon_logging();
        imsg_drain_pipes();
        close(0);
        imsg_init_daemon(path.c_str(), 1);
        struct stat in, null;
        bool dev_null = fstat(0, &in) == 0 && stat("/dev/null", &null) == 0 && in.st_rdev == null.st_rdev;
        imsg_suspend_daemon_logging();
        imsg_print(IMSG_OK, "plain\n", IMSG_LITERAL);
        imsg_print(IMSG_ERROR, "bad\n", IMSG_LITERAL);
        bool wrote = write(1, "caught\n", 7) == 7;
        imsg_resume_daemon_logging();
        imsg_print(IMSG_OK, "back\n", IMSG_LITERAL);
        imsg_print(IMSG_ERROR, "err\n", IMSG_LITERAL);
        return !dev_null || !wrote;
    });
    EXPECT_EQ(r.out + std::to_string(r.exit_code()), "plain\ncaught\n0");
    EXPECT_EQ(r.err, "Can't suspend daemon logging, process not a daemon: Success\n"
                     "Can't resume daemon logging, process not a daemon: Success\n"
                     "mytool: Error: Process not an imsg daemon, cannot drain pipes to daemon log file.\n"
                     "mytool: Error: bad\n");
    EXPECT_EQ(ks_test::read_file(path), kStamp0 + "mytool: Ok: back\n" + kStamp0 + "mytool: Error: err\n");
}

TEST_F(ImsgLog, FailedPipeSetUpGivesTheDescriptorsBackAndKeepsTheLog)
{
    auto r = ks_test::run_in_child([&] {
        // The log takes the lowest free descriptor, the saved copies the next two.
        int lowest = open("/dev/null", O_RDONLY);
        close(lowest);
        struct rlimit rl = {static_cast<rlim_t>(lowest + 3), static_cast<rlim_t>(lowest + 3)};
        setrlimit(RLIMIT_NOFILE, &rl);
        int rc = imsg_init_daemon(path.c_str(), 0);
        bool wrote = write(1, "after\n", 6) == 6;
        imsg_print(IMSG_OK, "logged\n", IMSG_LITERAL);
        return rc != -1 || !wrote;
    });
    EXPECT_EQ(r.out + "|" + r.err + std::to_string(r.exit_code()), "after\n|Can't create pipe: Too many open files\n0");
    EXPECT_EQ(ks_test::read_file(path), kStamp0 + "mytool: Ok: logged\n");
}

} // namespace

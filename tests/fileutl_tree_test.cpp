// Trees: the walker's passes, flags and results, copying, removal, disk usage.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "ks/fileutl.h"
#include "ks_test_util.h"

using testing::HasSubstr;

namespace {

// A callback that logs "TAG PASS DEPTH [DIR] NAME|" and answers from results
// (keyed "PASS NAME").
struct recorder { std::string *log, tag; std::map<std::string, int> results; };

int record(void *data, const char *, const char *, const char *dir, const char *name,
           const struct stat *, int pass, int depth)
{
    auto *r = static_cast<recorder *>(data);
    *r->log += r->tag + std::to_string(pass) + " " + std::to_string(depth) + " [" + dir + "] " + name + "|";
    auto it = r->results.find(std::to_string(pass) + " " + name);
    return it == r->results.end() ? 0 : it->second;
}

long lines(const std::string &s) { return std::count(s.begin(), s.end(), '\n'); }

// root/{a, b/{c, d/}, e}
struct small_tree : ks_test::temp_dir {
    small_tree() { mkdir(file("b").c_str(), 0755), mkdir(file("b/d").c_str(), 0755);
                   for (auto *n : {"a", "b/c", "e"}) ks_test::write_file(file(n), n); }
};

// Every entry of a tree as "name mode size mtime links contents-or-target", sorted.
std::vector<std::string> *described;
size_t root_len;
int describe_one(const char *path, const struct stat *st, int, struct FTW *)
{
    char target[256] = {};
    std::string extra = S_ISREG(st->st_mode) ? ks_test::read_file(path)
                        : readlink(path, target, sizeof target) > 0 ? target : std::to_string(st->st_rdev);
    described->push_back(std::string(path + root_len) + " " + std::to_string(st->st_mode) + " " +
                         std::to_string(S_ISDIR(st->st_mode) ? 0 : st->st_size) + " " + std::to_string(st->st_mtime) +
                         " " + std::to_string(st->st_nlink) + " " + extra);
    return 0;
}

std::vector<std::string> describe(const std::string &root)
{
    std::vector<std::string> out;
    described = &out, root_len = root.size(), nftw(root.c_str(), describe_one, 16, FTW_PHYS);
    return std::sort(out.begin(), out.end()), out;
}

} // namespace

TEST(Walk, PassesSkipStopErrorsAndResultBits)
{
    small_tree t;
    const int D = FILEUTL_WALK_DESCEND, S = FILEUTL_WALK_SKIP, E = FILEUTL_WALK_STOP_ON_ERROR;
    const std::string full = "A1 0 [] |A1 1 [] a|B1 1 [] a|A1 1 [] b|A1 2 [b] c|B1 2 [b] c|A1 2 [b] d|"
        "A2 2 [b] d|B2 2 [b] d|A2 1 [] b|B2 1 [] b|A1 1 [] e|B1 1 [] e|A2 0 [] |B2 0 [] |";
    struct {
        const char *root;
        int flags;
        std::map<std::string, int> results;
        std::string log;
        int rc;
    } rows[] = {
        {"a", D, {}, "A1 0 [] |B1 0 [] |", 0}, // a file: once, before, to every record
        {"", D, {}, full, 0},
        {"", 0, {}, "A1 0 [] |A2 0 [] |B2 0 [] |", 0}, // the root's after pass all the same
        {"", D, {{"1 b", S | 0x40}, {"1 a", 0x10}, {"1 e", FILEUTL_WALK_STOP}},
         "A1 0 [] |A1 1 [] a|B1 1 [] a|A1 1 [] b|A1 1 [] e|", 0x50},
        {"", D, {{"1 ", S}}, "A1 0 [] |", 0},
        {"", D, {{"1 ", FILEUTL_WALK_STOP}}, "A1 0 [] |", 0},
        {"", D, {{"1 c", -4}}, full, -4},
        {"", D | E, {{"1 c", -4}}, "A1 0 [] |A1 1 [] a|B1 1 [] a|A1 1 [] b|A1 2 [b] c|", -4},
    };
    for (auto &row : rows) {
        std::string log;
        recorder b{&log, "B", {}}, a{&log, "A", row.results};
        fileutl_walk_cb_t second = {nullptr, FILEUTL_WALK_AFTER, record, &b};
        fileutl_walk_cb_t first = {&second, 3, record, &a};
        EXPECT_EQ(fileutl_scan_tree(t.file(row.root).c_str(), &first, row.flags, nullptr), row.rc);
        EXPECT_EQ(log, row.log) << row.root << " " << row.flags;
    }
    // A caller's order.
    std::string log;
    recorder r{&log, "", {}};
    fileutl_walk_cb_t cb = {nullptr, 3, record, &r};
    auto reverse = [](const char *x, const char *y) { return strcmp(y, x); };
    EXPECT_EQ(fileutl_scan_tree((t.path() + "/").c_str(), &cb, D, reverse), 0);
    EXPECT_EQ(log.substr(0, 18), "1 0 [] |1 1 [] e|1");
}

// A file system that exists only here, top/{x, sub/{y}}, read through the caller's operations.
TEST(Walk, CallerOperations)
{
    static std::map<std::string, std::vector<std::string>> fake = {{"top", {"x", "sub"}}, {"top/sub", {"y"}}};
    struct fake_dir { std::vector<std::string> *names; size_t next; struct dirent ent; };
    fileutl_fs_ops_t ops = {
        [](const char *p, int, struct stat *st) { *st = {}; st->st_mode = fake.count(p) ? S_IFDIR : S_IFREG; return 0; },
        [](const char *p) -> void * { return new fake_dir{&fake[p], 0, {}}; },
        [](void *d) -> struct dirent * {
            auto *f = static_cast<fake_dir *>(d);
            if (f->next == f->names->size())
                return nullptr;
            snprintf(f->ent.d_name, sizeof f->ent.d_name, "%s", (*f->names)[f->next++].c_str());
            return &f->ent;
        },
        [](void *d) { delete static_cast<fake_dir *>(d); return 0; }};
    std::string log;
    recorder r{&log, "", {}};
    fileutl_walk_cb_t cb = {nullptr, 3, record, &r};
    EXPECT_EQ(fileutl_walk_tree_any("top", &cb, &ops, FILEUTL_WALK_DESCEND), 0);
    EXPECT_EQ(log, "1 0 [] |1 1 [] x|1 1 [] sub|1 2 [sub] y|2 1 [] sub|2 0 [] |");
}

TEST(Walk, LongNamesLoopsVanishedEntriesAndDeniedDirectories)
{
    ks_test::temp_dir t;
    // Names of exactly 1023 and 1024 characters below a chain of directories.
    std::string base = t.path();
    while (1023 - base.size() > 255)
        base += "/" + std::string(200, 'd'), mkdir(base.c_str(), 0755);
    std::string fits(1023 - base.size() - 1, 'f');
    ks_test::write_file(base + "/" + fits, ""), ks_test::write_file(base + "/" + fits + "g", "");
    symlink("loop2", t.file("loop1").c_str()), symlink("loop1", t.file("loop2").c_str());
    symlink(".", t.file("up").c_str());
    mkdir(t.file("v").c_str(), 0755), mkdir(t.file("v/locked").c_str(), 0);
    for (auto *n : {"v/a", "v/b", "v/c"}) ks_test::write_file(t.file(n), n);
    chmod(t.path().c_str(), 0755), chown(t.file("v").c_str(), 65534, 65534);
    auto r = ks_test::run_in_child([&] {
        std::string log;
        recorder rec{&log, "", {}};
        fileutl_walk_cb_t cb = {nullptr, 3, record, &rec};
        int rc = fileutl_walk_tree(t.file("none").c_str(), &cb, FILEUTL_WALK_QUIET);
        rc += fileutl_walk_tree(t.path().c_str(), &cb, FILEUTL_WALK_DESCEND | FILEUTL_WALK_FOLLOW);
        bool saw_fits = log.find("] " + fits + "|") != std::string::npos;
        // Another user, and an entry removed while its directory is walked.
        auto remove_b = [](void *, const char *path, const char *, const char *, const char *name, const struct stat *,
                           int, int) {
            if (strcmp(name, "a") == 0)
                unlink((std::string(path, strlen(path) - 1) + "b").c_str());
            return 0;
        };
        fileutl_walk_cb_t rm = {&cb, 1, remove_b, nullptr};
        log.clear();
        if (setuid(65534) != 0)
            return 1;
        rc += fileutl_scan_tree(t.file("v").c_str(), &rm, FILEUTL_WALK_DESCEND, nullptr);
        return saw_fits && rc == -12 && log.find("] c|") != std::string::npos ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    std::string loop = ": Too many levels of symbolic links";
    for (auto &m : {base + "/" + fits + "g: File name too long", t.file("loop1") + loop, t.file("loop2") + loop,
                    t.file("up") + loop, t.file("v/b") + ": No such file or directory", t.file("v/locked") + ": Permission denied"})
        EXPECT_THAT(r.err, HasSubstr(m + "\n"));
    EXPECT_EQ(lines(r.err), 6);
}

TEST(Copy, WholeTreeWithEveryKindOfEntry)
{
    ks_test::temp_dir t;
    for (auto *n : {"src", "src/sub", "src/ro"}) mkdir(t.file(n).c_str(), 0755);
    for (auto *n : {"src/a file", "src/ünï cödé", "src/sub/deep", "src/ro/x"}) ks_test::write_file(t.file(n), n);
    ASSERT_EQ(link(t.file("src/a file").c_str(), t.file("src/hard").c_str()) + symlink("a file", t.file("src/sym").c_str()) +
                  mkfifo(t.file("src/fifo").c_str(), 0620) + mknod(t.file("src/null").c_str(), S_IFCHR | 0666, makedev(1, 3)),
              0);
    chmod(t.file("src/a file").c_str(), 0640), chmod(t.file("src/ro").c_str(), 0555);
    for (auto *n : {"src", "src/sub", "src/ro", "src/a file", "src/sub/deep", "src/fifo"}) {
        const struct timespec times[2] = {{1000000000, 0}, {1100000000, 0}};
        utimensat(AT_FDCWD, t.file(n).c_str(), times, 0);
    }
    ASSERT_EQ(fileutl_cp(t.file("src").c_str(), t.file("dst").c_str(), FILEUTL_WALK_DESCEND), 0);
    auto copy = describe(t.file("dst"));
    EXPECT_EQ(copy, describe(t.file("src")));
    EXPECT_EQ(copy.size(), 11u);
    EXPECT_THAT(copy[0], HasSubstr(" 1100000000 "));
    // Disk usage counts the two names of "a file" once.
    fileutl_du_t du, du2;
    EXPECT_EQ(fileutl_du(t.file("src").c_str(), 0, &du) + fileutl_du(t.file("dst").c_str(), 0, &du2), 0);
    EXPECT_TRUE(du.files == 7 && du.dirs == 3 && du.seen == nullptr && du.bytes == du2.bytes && du.blocks > 0);
}

TEST(Copy, TraceTexts)
{
    ks_test::temp_dir t;
    mkdir(t.file("s").c_str(), 0700);
    ks_test::write_file(t.file("s/f"), "f");
    chmod(t.file("s/f").c_str(), 0644), mkfifo(t.file("p").c_str(), 0604);
    symlink("s/f", t.file("l").c_str());
    auto r = ks_test::run_in_child([&] {
        int rc = fileutl_cp("/dev/null", t.file("n2").c_str(), FILEUTL_WALK_TRACE);
        for (auto *n : {"s", "p", "l"})
            rc |= fileutl_cp(t.file(n).c_str(), t.file(std::string(n) + "2").c_str(), FILEUTL_WALK_DESCEND | FILEUTL_WALK_TRACE);
        return rc;
    });
    EXPECT_EQ(r.exit_code(), 0);
    std::string d = t.path();
    EXPECT_EQ(r.out, "mknod( " + d + "/n2, 20666, 0x103 ) from /dev/null\nmkdir( " + d + "/s2, 700 ) from " + d +
                         "/s\ncp_file( " + d + "/s/f, " + d + "/s2/f, 644 )\nmkfifo( " + d + "/p2, 604 ) from " + d +
                         "/p\nsymlink( s/f, " + d + "/l2 ) from " + d + "/l\n");
}

TEST(Copy, OntoItselfOrIntoAFullDiskKeepsTheSource)
{
    ks_test::temp_dir t;
    mkdir(t.file("d").c_str(), 0755), mkdir(t.file("mnt").c_str(), 0755);
    ks_test::write_file(t.file("d/f"), "d/f");
    ks_test::write_file(t.file("d/big"), std::string(1 << 20, 'b'));
    auto before = describe(t.file("d"));
    auto r = ks_test::run_in_child([&] {
        errno = 0;
        int rc = fileutl_cp(t.file("d/f").c_str(), t.file("d/f").c_str(), 0);
        bool eexist = errno == EEXIST;
        rc += fileutl_cp(t.file("d/./f").c_str(), t.file("d/f").c_str(), 0);
        if (unshare(CLONE_NEWNS) != 0 || mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", t.file("mnt").c_str(), "tmpfs", 0, "size=256k") != 0)
            return 2;
        rc += fileutl_cp(t.file("d").c_str(), t.file("mnt/dst").c_str(), FILEUTL_WALK_DESCEND);
        bool partial = fileutl_exists(t.file("mnt/dst/big").c_str(), 1);
        return rc == -12 && eexist && !partial ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_THAT(r.err, HasSubstr(t.file("d/f") + ": File exists\n"));
    EXPECT_THAT(r.err, HasSubstr(t.file("mnt/dst/big") + ": No space left on device\n"));
    EXPECT_EQ(lines(r.err), 3);
    EXPECT_EQ(describe(t.file("d")), before);
    // Into itself: the copy made inside the source is not copied again.
    EXPECT_EQ(fileutl_cp(t.file("d").c_str(), t.file("d/in").c_str(), FILEUTL_WALK_DESCEND), -4);
    EXPECT_EQ(ks_test::read_file(t.file("d/in/f")), "d/f");
    EXPECT_FALSE(fileutl_exists(t.file("d/in/in").c_str(), 1));
}

TEST(Remove, FilesBeforeTheirDirectories)
{
    small_tree t;
    auto r = ks_test::run_in_child([&] {
        int rc = fileutl_rm(t.path().c_str(), FILEUTL_WALK_DESCEND | FILEUTL_WALK_TRACE);
        return rc + fileutl_rm(t.path().c_str(), 0) + fileutl_rm(t.path().c_str(), FILEUTL_WALK_QUIET);
    });
    EXPECT_EQ(r.exit_code(), 248); // twice -4
    auto at = [&](const std::string &n) { return r.out.find("unlink( " + t.path() + n + " )\n"); };
    EXPECT_TRUE(at("/b/c") < at("/b") && at("/b/d") < at("/b") && at("/b") < at("") && at("/e") < at(""));
    EXPECT_EQ(lines(r.out), 6);
    EXPECT_THAT(r.err, HasSubstr(t.path() + ": No such file or directory\n"));
    EXPECT_EQ(lines(r.err), 1);
    mkdir(t.path().c_str(), 0700); // for the temp_dir's own clean-up
}

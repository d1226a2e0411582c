// Trees: the walker's passes, flags and results, copying, removal, disk usage.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "ks/fileutl.h"
#include "ks_test_util.h"

using testing::HasSubstr;
using testing::Not;

namespace {

// A callback that logs "TAG PASS DEPTH [DIR] NAME" and answers from results
// (keyed "PASS NAME").
struct recorder {
    std::vector<std::string> *log;
    std::string tag;
    std::map<std::string, int> results;
};

int record(void *data, const char *, const char *, const char *dir, const char *name,
           const struct stat *, int pass, int depth)
{
    auto *r = static_cast<recorder *>(data);
    r->log->push_back(r->tag + std::to_string(pass) + " " + std::to_string(depth) + " [" + dir +
                      "] " + name);
    auto it = r->results.find(std::to_string(pass) + " " + name);
    return it == r->results.end() ? 0 : it->second;
}

void mkdirs(const ks_test::temp_dir &d, std::initializer_list<const char *> dirs,
            std::initializer_list<const char *> files)
{
    for (auto *n : dirs)
        ASSERT_EQ(mkdir(d.file(n).c_str(), 0755), 0) << n;
    for (auto *n : files)
        ks_test::write_file(d.file(n), n);
}

// root/{a, b/{c, d/}, e}
struct small_tree : ks_test::temp_dir {
    small_tree() { mkdirs(*this, {"b", "b/d"}, {"a", "b/c", "e"}); }
};

std::vector<std::string> scan(const std::string &root, recorder &r, int flags, int *rc = nullptr)
{
    std::vector<std::string> log;
    r.log = &log;
    fileutl_walk_cb_t cb = {nullptr, 3, record, &r};
    int res = fileutl_scan_tree(root.c_str(), &cb, flags, nullptr);
    if (rc)
        *rc = res;
    return log;
}

// Every entry below root as "name mode size mtime nlink extra", sorted.
void describe(const std::string &root, const std::string &rel, std::vector<std::string> &out)
{
    DIR *d = opendir((root + rel).c_str());
    while (struct dirent *e = readdir(d)) {
        std::string name = e->d_name, path = root + rel + "/" + name;
        if (name == "." || name == "..")
            continue;
        struct stat st;
        lstat(path.c_str(), &st);
        std::string extra;
        if (S_ISREG(st.st_mode))
            extra = ks_test::read_file(path);
        else if (S_ISLNK(st.st_mode)) {
            char buf[256] = {};
            extra = std::string(buf, static_cast<size_t>(readlink(path.c_str(), buf, sizeof buf)));
        } else if (S_ISCHR(st.st_mode))
            extra = std::to_string(st.st_rdev);
        out.push_back(rel + "/" + name + " " + std::to_string(st.st_mode) + " " +
                      std::to_string(st.st_size * !S_ISDIR(st.st_mode)) + " " +
                      std::to_string(st.st_mtime) + " " + std::to_string(st.st_nlink) + " " +
                      extra);
        if (S_ISDIR(st.st_mode))
            describe(root, rel + "/" + name, out);
    }
    closedir(d);
    std::sort(out.begin(), out.end());
}

long lines(const std::string &s)
{
    return std::count(s.begin(), s.end(), '\n');
}

std::vector<std::string> describe(const std::string &root)
{
    std::vector<std::string> out;
    describe(root, "", out);
    return out;
}

} // namespace

TEST(Walk, PlainFileOnceBeforeToEveryRecord)
{
    ks_test::temp_dir d;
    ks_test::write_file(d.file("f"), "x");
    std::vector<std::string> log;
    recorder after{&log, "A", {}}, before{&log, "B", {}};
    fileutl_walk_cb_t c2 = {nullptr, FILEUTL_WALK_AFTER, record, &after};
    fileutl_walk_cb_t c1 = {&c2, FILEUTL_WALK_BEFORE, record, &before};
    EXPECT_EQ(fileutl_walk_tree(d.file("f").c_str(), &c1, FILEUTL_WALK_DESCEND), 0);
    EXPECT_EQ(log, (std::vector<std::string>{"B1 0 [] ", "A1 0 [] "}));
}

TEST(Walk, PassesDepthsAndOrder)
{
    small_tree t;
    recorder r{nullptr, "", {}};
    EXPECT_EQ(scan(t.path(), r, FILEUTL_WALK_DESCEND),
              (std::vector<std::string>{"1 0 [] ", "1 1 [] a", "1 1 [] b", "1 2 [b] c", "1 2 [b] d",
                                        "2 2 [b] d", "2 1 [] b", "1 1 [] e", "2 0 [] "}));
    // The root directory has its after pass even without descending.
    EXPECT_EQ(scan(t.path() + "/", r, 0), (std::vector<std::string>{"1 0 [] ", "2 0 [] "}));
    // Directory order visits the same entries.
    std::vector<std::string> log;
    r.log = &log;
    fileutl_walk_cb_t cb = {nullptr, 3, record, &r};
    EXPECT_EQ(fileutl_walk_tree(t.path().c_str(), &cb, FILEUTL_WALK_DESCEND), 0);
    std::sort(log.begin(), log.end());
    EXPECT_EQ(log.size(), 9u);
    EXPECT_EQ(log[4], "1 2 [b] c");
    auto reverse = [](const char *a, const char *b) { return strcmp(b, a); };
    log.clear();
    EXPECT_EQ(fileutl_scan_tree(t.path().c_str(), &cb, FILEUTL_WALK_DESCEND, reverse), 0);
    EXPECT_EQ(log[1], "1 1 [] e");
}

TEST(Walk, SkipStopAndResultBits)
{
    small_tree t;
    int rc;
    std::vector<std::string> log;
    recorder second{&log, "2:", {}};
    recorder first{
        &log, "", {{"1 b", FILEUTL_WALK_SKIP | 0x40}, {"1 a", 0x10}, {"1 e", FILEUTL_WALK_STOP}}};
    fileutl_walk_cb_t c2 = {nullptr, 3, record, &second};
    fileutl_walk_cb_t c1 = {&c2, 3, record, &first};
    first.log = &log;
    rc = fileutl_scan_tree(t.path().c_str(), &c1, FILEUTL_WALK_DESCEND, nullptr);
    EXPECT_EQ(rc, 0x50);
    EXPECT_EQ(log, (std::vector<std::string>{"1 0 [] ", "2:1 0 [] ", "1 1 [] a", "2:1 1 [] a",
                                             "1 1 [] b", "1 1 [] e"}));
    for (int root_rc : {FILEUTL_WALK_SKIP, FILEUTL_WALK_STOP}) {
        recorder r{nullptr, "", {{"1 ", root_rc}}};
        EXPECT_EQ(scan(t.path(), r, FILEUTL_WALK_DESCEND).size(), 1u);
    }
    // -4 goes on, or ends the walk with the stop-on-error flag.
    recorder r{nullptr, "", {{"1 c", -4}}};
    EXPECT_EQ(scan(t.path(), r, FILEUTL_WALK_DESCEND, &rc).size(), 9u);
    EXPECT_EQ(rc, -4);
    EXPECT_EQ(scan(t.path(), r, FILEUTL_WALK_DESCEND | FILEUTL_WALK_STOP_ON_ERROR, &rc).back(),
              "1 2 [b] c");
    EXPECT_EQ(rc, -4);
}

TEST(Walk, CallerOperations)
{
    // A file system of three names that exists only here.
    static std::map<std::string, std::vector<std::string>> fs = {{"top", {"x", "sub"}},
                                                                 {"top/sub", {"y"}}};
    static struct dirent ent;
    struct pos {
        std::vector<std::string> *names;
        size_t i;
    };
    fileutl_fs_ops_t ops = {[](const char *p, int, struct stat *st) {
                                *st = {};
                                st->st_mode = fs.count(p) ? S_IFDIR : S_IFREG;
                                return 0;
                            },
                            [](const char *p) -> void * {
                                return new pos{&fs[p], 0};
                            },
                            [](void *d) -> struct dirent *{auto *s = static_cast<pos *>(d);
    if (s->i == s->names->size())
        return nullptr;
    snprintf(ent.d_name, sizeof ent.d_name, "%s", (*s->names)[s->i++].c_str());
    return &ent;
}
, [](void *d) { return delete static_cast<pos *>(d), 0; }
}
;
std::vector<std::string> log;
recorder r{&log, "", {}};
fileutl_walk_cb_t cb = {nullptr, 3, record, &r};
EXPECT_EQ(fileutl_walk_tree_any("top", &cb, &ops, FILEUTL_WALK_DESCEND), 0);
EXPECT_EQ(log, (std::vector<std::string>{"1 0 [] ", "1 1 [] x", "1 1 [] sub", "1 2 [sub] y",
                                         "2 1 [] sub", "2 0 [] "}));
}

TEST(Walk, BadNamesLoopsAndVanishingEntriesAreReported)
{
    ks_test::temp_dir t;
    // Names of exactly 1023 and 1024 characters below a chain of directories.
    std::string base = t.path(), rel;
    while (1023 - base.size() > 255) {
        std::string part(std::min<size_t>(200, 1023 - base.size() - 100), 'd');
        base += "/" + part, rel += (rel.empty() ? "" : "/") + part;
        ASSERT_EQ(mkdir(base.c_str(), 0755), 0);
    }
    std::string fits(1023 - base.size() - 1, 'f'), over = fits + "g";
    ks_test::write_file(base + "/" + fits, "");
    ks_test::write_file(base + "/" + over, "");
    symlink("loop2", t.file("loop1").c_str());
    symlink("loop1", t.file("loop2").c_str());
    symlink(".", t.file("up").c_str());
    mkdirs(t, {"v"}, {"v/a", "v/b", "v/c"});
    auto r = ks_test::run_in_child([&] {
        std::vector<std::string> log;
        recorder rec{&log, "", {}};
        fileutl_walk_cb_t cb = {nullptr, 3, record, &rec};
        int rc1 =
            fileutl_walk_tree(t.path().c_str(), &cb, FILEUTL_WALK_DESCEND | FILEUTL_WALK_FOLLOW);
        bool saw_fits = false;
        for (auto &l : log)
            saw_fits |= l.find("] " + fits) != std::string::npos;
        // An entry removed while its directory is being walked.
        struct remover {
            static int cb(void *seen_c, const char *path, const char *, const char *,
                          const char *name, const struct stat *, int, int)
            {
                if (strcmp(name, "a") == 0)
                    unlink((std::string(path, strlen(path) - 1) + "b").c_str());
                *static_cast<bool *>(seen_c) |= strcmp(name, "c") == 0;
                return 0;
            }
        };
        bool seen_c = false;
        fileutl_walk_cb_t rm = {nullptr, 3, remover::cb, &seen_c};
        int rc2 = fileutl_scan_tree(t.file("v").c_str(), &rm, FILEUTL_WALK_DESCEND, nullptr);
        int rc3 = fileutl_walk_tree(t.file("none").c_str(), &cb, FILEUTL_WALK_QUIET);
        return saw_fits && seen_c && rc1 == -4 && rc2 == -4 && rc3 == -4 ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_THAT(r.err, HasSubstr(base + "/" + over + ": File name too long\n"));
    EXPECT_THAT(r.err, HasSubstr(t.file("loop1") + ": Too many levels of symbolic links\n"));
    EXPECT_THAT(r.err, HasSubstr(t.file("up") + ": Too many levels of symbolic links\n"));
    EXPECT_THAT(r.err, HasSubstr(t.file("v/b") + ": No such file or directory\n"));
    EXPECT_THAT(r.err, Not(HasSubstr("none")));
    EXPECT_EQ(lines(r.err), 5);
}

TEST(Walk, PermissionDeniedForAnotherUser)
{
    ks_test::temp_dir t;
    mkdirs(t, {"locked", "open"}, {"locked/f", "open/f"});
    chmod(t.path().c_str(), 0755);
    chmod(t.file("locked").c_str(), 0);
    auto r = ks_test::run_in_child([&] {
        if (setuid(65534) != 0)
            return 2;
        std::vector<std::string> log;
        recorder rec{&log, "", {}};
        fileutl_walk_cb_t cb = {nullptr, 3, record, &rec};
        int rc = fileutl_scan_tree(t.path().c_str(), &cb, FILEUTL_WALK_DESCEND, nullptr);
        return rc == -4 && log.size() == 7 && log[4] == "1 2 [open] f" ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_THAT(r.err, HasSubstr(t.file("locked") + ": Permission denied\n"));
    EXPECT_EQ(lines(r.err), 1);
}

TEST(Copy, WholeTreeWithEveryKindOfEntry)
{
    ks_test::temp_dir t;
    mkdirs(t, {"src", "src/sub", "src/ro"},
           {"src/a file", "src/ünï cödé", "src/sub/deep", "src/ro/x"});
    ASSERT_EQ(link(t.file("src/a file").c_str(), t.file("src/hard").c_str()), 0);
    ASSERT_EQ(symlink("a file", t.file("src/sym").c_str()), 0);
    ASSERT_EQ(mkfifo(t.file("src/fifo").c_str(), 0620), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(mknod(t.file("src/null").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    }
    chmod(t.file("src/a file").c_str(), 0640);
    chmod(t.file("src/ro").c_str(), 0555);
    chmod(t.file("src/sub").c_str(), 0750);
    for (auto *n : {"src/sub", "src/ro", "src/a file", "src/sub/deep", "src/fifo"}) {
        const struct timespec times[2] = {{1000000000, 0}, {1100000000, 0}};
        utimensat(AT_FDCWD, t.file(n).c_str(), times, 0);
    }
    ASSERT_EQ(fileutl_cp(t.file("src").c_str(), t.file("dst").c_str(), FILEUTL_WALK_DESCEND), 0);
    EXPECT_EQ(describe(t.file("dst")), describe(t.file("src")));
    EXPECT_EQ(describe(t.file("dst")).size(), geteuid() == 0 ? 10u : 9u);
    int same = 0;
    EXPECT_EQ(fileutl_cmp(t.file("dst/a file").c_str(), t.file("dst/hard").c_str(), 0, &same), 0);
    EXPECT_EQ(same, 1);
    struct stat s1, s2;
    stat(t.file("dst/a file").c_str(), &s1);
    stat(t.file("dst/hard").c_str(), &s2);
    EXPECT_EQ(s1.st_ino, s2.st_ino);
}

TEST(Copy, TraceTexts)
{
    ks_test::temp_dir t;
    mkdirs(t, {"s"}, {"s/f"});
    chmod(t.file("s").c_str(), 0700);
    mkfifo(t.file("p").c_str(), 0604);
    symlink("s/f", t.file("l").c_str());
    auto r = ks_test::run_in_child([&] {
        int rc = 0;
        for (auto *n : {"s", "p", "l"})
            rc |= fileutl_cp(t.file(n).c_str(), t.file(std::string(n) + "2").c_str(),
                             FILEUTL_WALK_DESCEND | FILEUTL_WALK_TRACE);
        if (geteuid() == 0)
            rc |= fileutl_cp("/dev/null", t.file("n2").c_str(), FILEUTL_WALK_TRACE);
        return rc;
    });
    EXPECT_EQ(r.exit_code(), 0);
    std::string d = t.path();
    EXPECT_EQ(r.out,
              "mkdir( " + d + "/s2, 700 ) from " + d + "/s\ncp_file( " + d + "/s/f, " + d +
                  "/s2/f, 644 )\n" + "mkfifo( " + d + "/p2, 604 ) from " + d +
                  "/p\nsymlink( s/f, " + d + "/l2 ) from " + d + "/l\n" +
                  (geteuid() == 0 ? "mknod( " + d + "/n2, 20666, 0x103 ) from /dev/null\n" : ""));
}

TEST(Copy, OntoItselfIsRefusedAndTheSourceStays)
{
    ks_test::temp_dir t;
    mkdirs(t, {"d"}, {"d/f"});
    auto r = ks_test::run_in_child([&] {
        errno = 0;
        int rc1 = fileutl_cp(t.file("d/f").c_str(), t.file("d/f").c_str(), 0);
        bool eexist = errno == EEXIST;
        int rc2 = fileutl_cp(t.file("d/./f").c_str(), t.file("d/f").c_str(), 0);
        int rc3 = fileutl_cp(t.file("d").c_str(), t.file("d/in").c_str(), FILEUTL_WALK_DESCEND);
        return rc1 == -4 && eexist && rc2 == -4 && rc3 == -4 ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_THAT(r.err, HasSubstr(t.file("d/f") + ": File exists\n"));
    EXPECT_THAT(r.err, HasSubstr(t.file("d/in") + ": Invalid argument\n"));
    EXPECT_EQ(ks_test::read_file(t.file("d/f")), "d/f");
    EXPECT_EQ(ks_test::read_file(t.file("d/in/f")), "d/f");
    EXPECT_FALSE(fileutl_exists(t.file("d/in/in").c_str(), 1));
}

TEST(Copy, FullDestinationFailsAndKeepsTheSource)
{
    ks_test::temp_dir t;
    mkdirs(t, {"src", "mnt"}, {"src/small"});
    ks_test::write_file(t.file("src/big"), std::string(1 << 20, 'b'));
    auto before = describe(t.file("src"));
    auto r = ks_test::run_in_child([&] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", t.file("mnt").c_str(), "tmpfs", 0, "size=256k") != 0)
            return 2;
        int rc = fileutl_cp(t.file("src").c_str(), t.file("mnt/dst").c_str(), FILEUTL_WALK_DESCEND);
        return rc == -4 && !fileutl_exists(t.file("mnt/dst/big").c_str(), 1) ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_THAT(r.err, HasSubstr(t.file("mnt/dst/big") + ": No space left on device\n"));
    EXPECT_EQ(lines(r.err), 1) << r.err;
    EXPECT_EQ(describe(t.file("src")), before);
}

TEST(Remove, FilesBeforeTheirDirectories)
{
    small_tree t;
    auto r = ks_test::run_in_child([&] {
        int rc1 = fileutl_rm(t.path().c_str(), FILEUTL_WALK_DESCEND | FILEUTL_WALK_TRACE);
        int rc2 = fileutl_rm(t.path().c_str(), 0);
        int rc3 = fileutl_rm(t.path().c_str(), FILEUTL_WALK_QUIET);
        return rc1 == 0 && rc2 == -4 && rc3 == -4 ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    auto at = [&](const std::string &n) { return r.out.find("unlink( " + t.path() + n + " )\n"); };
    EXPECT_LT(at("/b/c"), at("/b"));
    EXPECT_LT(at("/b/d"), at("/b"));
    EXPECT_LT(at("/b"), at(""));
    EXPECT_NE(at("/e"), std::string::npos);
    EXPECT_EQ(lines(r.out), 6);
    EXPECT_THAT(r.err, HasSubstr(t.path() + ": No such file or directory\n"));
    EXPECT_EQ(lines(r.err), 1);
    mkdir(t.path().c_str(), 0700); // for the temp_dir's own clean-up
}

TEST(DiskUsage, SumsEachFileOnce)
{
    small_tree t;
    ks_test::write_file(t.file("a"), std::string(1000, 'a'));
    link(t.file("a").c_str(), t.file("b/hard").c_str());
    fileutl_du_t du;
    ASSERT_EQ(fileutl_du(t.path().c_str(), 0, &du), 0);
    struct stat s0, s1, s2;
    stat(t.path().c_str(), &s0), stat(t.file("b").c_str(), &s1), stat(t.file("b/d").c_str(), &s2);
    EXPECT_EQ(du.bytes, static_cast<uint64_t>(s0.st_size + s1.st_size + s2.st_size + 1000 + 3 + 1));
    EXPECT_EQ(du.files, 3u);
    EXPECT_EQ(du.dirs, 3u);
    EXPECT_EQ(du.seen, nullptr);
}

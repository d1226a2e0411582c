// Host-qualified names: local names to host:path through the mount table and
// back, over tables written here, the machine's own table, a private mount
// namespace with a real bind mount, and a changed root with automounter links.
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>

#include "fileutl_testing.h"
#include "ks/fileutl.h"
#include "ks_test_util.h"

namespace {

using ks_test::run_in_child;
using ks_test::temp_dir;

std::string host()
{
    char h[256] = "";
    gethostname(h, sizeof h);
    return h;
}

// The result of one of the mapping routines, or "fail:errno".
std::string call(int (*fn)(const char *, char *, size_t), const std::string &name, size_t size = KS_PATH_BUF)
{
    std::string out(size, '\0');
    return fn(name.c_str(), &out[0], size) == 0 ? out.c_str() : "fail:" + std::to_string(errno);
}

std::string real(const std::string &path)
{
    char buf[PATH_MAX];
    return realpath(path.c_str(), buf) != nullptr ? buf : "";
}

// A table of the test's own, in the format of /proc/self/mounts.
void use_table(const temp_dir &t, const std::string &lines)
{
    ks_test::write_file(t.file("mnttab"), lines);
    ks::fileutl_set_mnttab_for_testing(t.file("mnttab").c_str());
}

const char *kTable = "/dev/vda / ext4 rw 0 0\n"
                     "srv:/export /mnt/e nfs rw,soft,vers=3 0 0\n"
                     "srv:/ /r nfs4 rw 0 0\n"
                     "/data /alias lofs rw 0 0\n"
                     "/data2 /al\\0402 ext4 rw,bind 0 0\n"
                     "auto.net /net autofs rw 0 0\n"
                     "srv2:/home /tmp_mnt/home/u nfs rw 0 0\n";

const std::string kNoEnt = "fail:" + std::to_string(ENOENT);
// Where the host configuration directory is, unless a case names another.
const int kHostData = setenv("OTTER_HOSTDATA_DIR", KS_TEST_HOSTDATA, 0);

} // namespace

TEST(Where, NfsLoopbackAndLocalMountsOfAWrittenTable)
{
    temp_dir t;
    use_table(t, kTable);
    const std::string h = host();
    const char *cases[][2] = {{"/mnt/e/x", "srv:/export/x"}, {"/mnt/e", "srv:/export"}, {"/r/x", "srv:/x"},
                              {"/r", "srv:/"}, {"/alias/x", ":/data/x"}, {"/al 2/y", ":/data2/y"},
                              {"/home/u/f", ":/home/u/f"}, {"/net/foo", ":/net/foo"}, {"/mnt/ex", ":/mnt/ex"},
                              {"/mnt/e/../e/./x", "srv:/export/x"}};
    for (auto &c : cases)
        EXPECT_EQ(call(fileutl_where, c[0]), (c[1][0] == ':' ? h : "") + c[1]) << c[0];
    EXPECT_EQ(call(fileutl_path_host, "/mnt/e/x") + " " + call(fileutl_path_host, "/home"), "srv " + h);
    EXPECT_EQ(call(fileutl_mount_pname, "/mnt/e/x/y") + " " + call(fileutl_mount_pname, "/al 2"), "/mnt/e /al 2");
    EXPECT_EQ(fileutl_is_softmnt("/mnt/e/x") * 10 + fileutl_is_softmnt("/r/x"), 10);
    EXPECT_EQ(fileutl_path_host_cmp("/mnt/e/x", "/r/y") * 10 + fileutl_path_host_cmp("/mnt/e/x", "/home"), 1);
    EXPECT_EQ(call(fileutl_where, "/mnt/e/x", 14), "srv:/export/x");
    EXPECT_EQ(call(fileutl_where, "/mnt/e/x", 13), "fail:" + std::to_string(ENAMETOOLONG));
    EXPECT_EQ(call(fileutl_where, "/mnt/e/x", 0), "fail:" + std::to_string(EINVAL));
    EXPECT_EQ(call(fileutl_where, "/" + std::string(1023, 'x')), "fail:" + std::to_string(ENAMETOOLONG));
    EXPECT_EQ(call(fileutl_path_host, "/mnt/e", 3), "fail:" + std::to_string(ENAMETOOLONG));
}

TEST(Where, UnwhereByTheTableSkipsAutomounterEntries)
{
    temp_dir t;
    use_table(t, kTable);
    const std::string h = host();
    const std::string cases[][2] = {{"srv:/export/x/y", "/mnt/e/x/y"}, {"srv:/other/z", "/r/other/z"},
                                    {"SRV:/export", "/mnt/e"}, {h + ":/some/path", "/some/path"},
                                    {"srv2:/home/x", kNoEnt}, {"/nohost", "fail:" + std::to_string(EINVAL)},
                                    {"srv:/" + std::string(1022, 'x'), "fail:" + std::to_string(ENAMETOOLONG)}};
    for (auto &c : cases)
        EXPECT_EQ(call(fileutl_unwhere, c[0]), c[1]) << c[0];
    setenv("OTTER_GPATH_HINTS", "srv:/export/x=/hint/x; bad  other:/=/o", 1);
    EXPECT_EQ(call(fileutl_get_local_path, "srv:/export/x/y") + " " + call(fileutl_get_local_path, "srv:/export/z"),
              "/hint/x/y /mnt/e/z");
    EXPECT_EQ(call(fileutl_get_location, "/o/p") + " " + call(fileutl_get_location, "/alias/q"), "other:/p " + h + ":/data/q");
    const char *names[] = {"srv:/export/none", "/proc/self/../self", "/"};
    char out[KS_PATH_BUF];
    EXPECT_EQ(fileutl_pick_path(names, 3, out, sizeof out), 1);
    EXPECT_EQ(out, "/proc/" + std::to_string(getpid()));
    EXPECT_EQ(call(fileutl_path_locate, "srv:/export/none"), kNoEnt);
}

TEST(Where, CacheFollowsTheTableAndReportsAnUnreadableOne)
{
    temp_dir t;
    use_table(t, "a /a t o1,o2=v 0 0\n# comment\n\nb /b t\n");
    auto walk = [] {
        std::string all;
        fileutl_mnt_walk_t *w = fileutl_setmntent();
        while (const fileutl_mntent_t *e = fileutl_getmntent(w))
            all += std::string(e->mnt_special) + " " + e->mnt_mountp + " " + e->mnt_fstype + " [" + e->mnt_mntopts +
                   "] " + (fileutl_hasmntopt(e, "o2") ? "o2" : "") + (fileutl_hasmntopt(e, "o") ? "o" : "") + ";";
        fileutl_endmntent(w);
        return all;
    };
    EXPECT_EQ(walk(), "a /a t [o1,o2=v] o2;b /b t [] ;");
    fileutl_mnt_walk_t *open_walk = fileutl_setmntent();
    ks_test::write_file(t.file("mnttab"), "c /c t rw 0 0\n"); // a newer table is read again
    EXPECT_EQ(walk(), "c /c t [rw] ;");
    EXPECT_EQ(fileutl_getmntent(open_walk), nullptr); // a walk of the old table ends
    fileutl_endmntent(open_walk);
    fileutl_flushmntent();
    EXPECT_EQ(walk(), "c /c t [rw] ;");
    ks::fileutl_set_mnttab_for_testing(t.file("none").c_str());
    auto r = run_in_child([] {
        char out[KS_PATH_BUF];
        return fileutl_where("/x", out, sizeof out) == -1 && fileutl_setmntent() == nullptr;
    });
    EXPECT_EQ(r.exit_code(), 1);
    EXPECT_EQ(r.err, "noname: Error: Unable to open mount table: No such file or directory\n"
                     "noname: Error: Unable to open mount table: No such file or directory\n");
}

TEST(Where, HostConfigurationReadOnce)
{
    temp_dir t;
    const std::string d = real(t.path());
    fileutl_mkpath((d + "/none").c_str(), -1);
    auto r = run_in_child([&] { // a file that could not be opened is never tried again
        setenv("OTTER_HOSTDATA_DIR", (d + "/none").c_str(), 1);
        int before = fileutl_is_localhost("alias1");
        fileutl_mkpath((d + "/none/config").c_str(), -1);
        ks_test::write_file(d + "/none/config/alternate_hostnames", "alias1\n");
        return before * 10 + fileutl_is_localhost("alias1") + 5;
    });
    EXPECT_EQ(r.exit_code(), 5);
    fileutl_mkpath((d + "/hd/config").c_str(), -1);
    fileutl_mkpath((d + "/amnt/sub").c_str(), -1);
    ks_test::write_file(d + "/hd/config/alternate_hostnames", "alias1\n# not a name\n\n  alias2 \n");
    ks_test::write_file(d + "/hd/config/automount_prefix", d + "/amnt/\n");
    setenv("OTTER_HOSTDATA_DIR", (d + "/hd").c_str(), 1);
    use_table(t, "/dev/vda / ext4 rw 0 0\nsrv3:/vol " + d + "/amnt/vol nfs rw 0 0\n");
    EXPECT_EQ(fileutl_is_localhost("ALIAS2") + fileutl_is_localhost("alias3"), 1);
    EXPECT_EQ(call(fileutl_unwhere, "alias1:/p/q"), "/p/q");
    EXPECT_EQ(call(fileutl_unwhere, "srv3:/vol/x"), kNoEnt);
    ks_test::write_file(d + "/hd/config/automount_prefix", "/elsewhere\n"); // read once
    ASSERT_EQ(chdir((d + "/amnt/sub").c_str()), 0);
    char out[KS_PATH_BUF], cwd[KS_PATH_BUF];
    EXPECT_EQ(std::string(fileutl_getcwd_noauto(out, sizeof out)) + " " + fileutl_getcwd(cwd, sizeof cwd), "/sub " + d + "/amnt/sub");
    EXPECT_EQ(fileutl_getcwd(out, 3), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(Where, HostNamesCompareByCaseQualificationAndAddress)
{
    const std::string h = host();
    std::string upper = h, addr;
    for (char &c : upper)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    struct addrinfo hints = {}, *res = nullptr;
    hints.ai_family = AF_INET;
    ASSERT_EQ(getaddrinfo(h.c_str(), nullptr, &hints, &res), 0);
    addr = inet_ntoa(reinterpret_cast<struct sockaddr_in *>(res->ai_addr)->sin_addr);
    freeaddrinfo(res);
    const std::string equal[][2] = {{h, upper}, {"localhost", "127.0.0.1"}, {h, addr}, {"alpha", "ALPHA.dept:/x"},
                                    {"alpha.dept.com", "alpha.dept"}, {"", ""}};
    for (auto &c : equal)
        EXPECT_EQ(fileutl_hostnames_equal(c[0].c_str(), c[1].c_str()), 1) << c[0] << " " << c[1];
    const char *differ[][2] = {{"alpha", "alphabet"}, {"alpha.x", "alpha.y"}, {"", "a"}};
    for (auto &c : differ)
        EXPECT_EQ(fileutl_hostnames_equal(c[0], c[1]), 0) << c[0] << " " << c[1];
    EXPECT_EQ(fileutl_is_localhost(h.c_str()) + fileutl_is_localhost("localhost") + fileutl_is_localhost(addr.c_str()), 3);
    EXPECT_EQ(fileutl_is_localhost("alphabet.invalid"), 0);
    EXPECT_EQ(fileutl_hosts_equal("localhost", h.c_str()), 1);
}

TEST(Where, TheMachinesOwnTable)
{
    const std::string h = host(), self = "/proc/" + std::to_string(getpid());
    EXPECT_EQ(call(fileutl_mount_pname, "/proc/self/status"), "/proc");
    EXPECT_EQ(call(fileutl_where, "/proc/self"), h + ":" + self);
    EXPECT_EQ(call(fileutl_unwhere, h + ":" + self), self);
    EXPECT_EQ(call(fileutl_mount_pname, "/"), "/");
    EXPECT_EQ(call(fileutl_abspn, "/proc/self/../self/./none/x/.."), self + "/none");
}

TEST(Where, BindMountInAPrivateNamespaceIsSeenAsLoopback)
{
    temp_dir t;
    const std::string d = real(t.path()), h = host();
    auto r = run_in_child([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", d.c_str(), "tmpfs", 0, "size=1m") != 0)
            return 2;
        fileutl_mkpath((d + "/data").c_str(), -1);
        fileutl_mkpath((d + "/alias").c_str(), -1);
        std::string before = call(fileutl_where, d + "/alias/f");
        if (mount((d + "/data").c_str(), (d + "/alias").c_str(), nullptr, MS_BIND, nullptr) != 0)
            return 2;
        printf("%s|%s|%s", before.c_str(), call(fileutl_where, d + "/alias/f").c_str(),
               call(fileutl_mount_pname, d + "/alias/f").c_str());
        return 0;
    });
    ASSERT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(r.out, h + ":" + d + "/alias/f|" + h + ":" + d + "/data/f|" + d + "/alias");
}

TEST(Where, HeuristicThroughAutomounterLinksAndTheHomeDirectory)
{
    temp_dir t;
    for (auto dir : {"net", "tmp_mnt/net/srv/export", "tmp_mnt/home/u", "home", "hostdata"})
        fileutl_mkpath(t.file(dir).c_str(), -1);
    ASSERT_EQ(symlink("/tmp_mnt/net/srv", t.file("net/srv").c_str()) + symlink("/tmp_mnt/home/u", t.file("home/u").c_str()), 0);
    ks_test::write_file(t.file("mnttab"), "/dev/vda / ext4 rw 0 0\nsrv:/export /tmp_mnt/net/srv/export nfs rw 0 0\n"
                                          "srv:/users/u /tmp_mnt/home/u nfs rw 0 0\n");
    auto r = run_in_child([&] {
        if (chroot(t.path().c_str()) != 0 || chdir("/") != 0)
            return 2;
        setenv("OTTER_HOSTDATA_DIR", "/hostdata", 1);
        setenv("HOME", "/home/u", 1);
        ks::fileutl_set_mnttab_for_testing("/mnttab");
        printf("%s|%s|%s", call(fileutl_unwhere, "srv:/export/x").c_str(), call(fileutl_unwhere, "srv:/users/u/doc").c_str(),
               call(fileutl_unwhere, "srv:/nowhere").c_str());
        return 0;
    });
    ASSERT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(r.out, "/net/srv/export/x|/home/u/doc|" + kNoEnt);
}

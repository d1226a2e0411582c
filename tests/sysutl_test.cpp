// Host, user and descriptor information; the host's domain in a private UTS namespace.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include "ks/sysutl.h"
#include "ks_test_util.h"

namespace {

// Runs fn in a child with its own host and domain names; 77 when not permitted.
ks_test::child_result with_names(const char *host, const char *domain, const std::function<int()> &fn)
{
    return ks_test::run_in_child([=] {
        if (unshare(CLONE_NEWUTS) != 0 || sethostname(host, strlen(host)) != 0 ||
            setdomainname(domain, strlen(domain)) != 0)
            return 77;
        return fn();
    });
}

std::string domain_of(const char *host, const char *domain)
{
    auto r = with_names(host, domain, [] {
        char buf[256];
        int rc = sysutl_get_host_domain_name(buf, sizeof buf);
        printf("%d:%s", rc, buf);
        return 0;
    });
    if (r.exit_code() == 77)
        return "skip";
    return r.out;
}

} // namespace

TEST(HostDomain, QualifiedHostNameWins)
{
    std::string d = domain_of("alpha.corp.example", "nisdomain");
    if (d == "skip")
        GTEST_SKIP() << "no private UTS namespace here";
    EXPECT_EQ(d, "0:corp.example");
}

TEST(HostDomain, SystemDomainNameOtherwise)
{
    std::string d = domain_of("alpha", "corp.example");
    if (d == "skip")
        GTEST_SKIP() << "no private UTS namespace here";
    EXPECT_EQ(d, "0:corp.example");
    EXPECT_EQ(domain_of("alpha", "(none)"), "1:");
    EXPECT_EQ(domain_of("alpha", ""), "1:");
    EXPECT_EQ(domain_of("alpha.", ""), "1:");
}

TEST(HostDomain, SmallBufferRefused)
{
    auto r = with_names("alpha.a-rather-long-domain.example", "", [] {
        char buf[8];
        memset(buf, 'x', sizeof buf);
        return sysutl_get_host_domain_name(buf, sizeof buf) * 10 + (buf[0] == '\0');
    });
    if (r.exit_code() == 77)
        GTEST_SKIP() << "no private UTS namespace here";
    EXPECT_EQ(r.exit_code(), 11);
}

TEST(HostName, FollowsTheSystem)
{
    auto r = with_names("beta.example", "", [] {
        printf("%s", sysutl_myhostname());
        return 0;
    });
    if (r.exit_code() == 77)
        GTEST_SKIP() << "no private UTS namespace here";
    EXPECT_EQ(r.out, "beta.example");
}

TEST(LoginName, FromThePasswdEntry)
{
    struct passwd *pw = getpwuid(getuid());
    ASSERT_NE(pw, nullptr);
    EXPECT_STREQ(sysutl_myloginname(), pw->pw_name);
}

TEST(MaxFds, SoftLimitCappedAtTheSetSize)
{
    auto r = ks_test::run_in_child([] {
        struct rlimit rl;
        getrlimit(RLIMIT_NOFILE, &rl);
        rl.rlim_cur = 300;
        if (setrlimit(RLIMIT_NOFILE, &rl) != 0)
            return 77;
        return sysutl_get_max_fds() == 300 ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    r = ks_test::run_in_child([] {
        struct rlimit rl = {65536, 65536};
        if (setrlimit(RLIMIT_NOFILE, &rl) != 0)
            return 77;
        return sysutl_get_max_fds() == KS_FD_SETSIZE ? 0 : 1;
    });
    if (r.exit_code() != 77) {
        EXPECT_EQ(r.exit_code(), 0);
    }
}

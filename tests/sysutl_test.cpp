// Host, user and descriptor information; host and domain names in a private
// UTS namespace.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include "ks/sysutl.h"
#include "ks_test_util.h"

// The host's domain: the part of a qualified host name after its first dot,
// else the system's domain name unless empty or "(none)"; a buffer too small
// is refused.  Each case with its own names; 77 when not permitted.
TEST(Sysutl, HostNameAndDomainFollowTheSystem)
{
    struct { const char *host, *domain, *want; } cases[] = {
        {"alpha.corp.example", "nisdomain", "alpha.corp.example 0:corp.example"},
        {"alpha", "corp.example", "alpha 0:corp.example"}, {"alpha", "(none)", "alpha 1:"}, {"alpha", "", "alpha 1:"},
        {"alpha.", "", "alpha. 1:"}, {"alpha.a-rather-long-domain.example", "", "alpha.a-rather-long-domain.example 1:"}};
    for (auto &c : cases) {
        auto r = ks_test::run_in_child([&] {
            if (unshare(CLONE_NEWUTS) != 0 || sethostname(c.host, strlen(c.host)) != 0 ||
                setdomainname(c.domain, strlen(c.domain)) != 0)
                return 77;
            char buf[20];
            int rc = sysutl_get_host_domain_name(buf, sizeof buf);
            return printf("%s %d:%s", sysutl_myhostname(), rc, buf) < 0 ? 1 : 0;
        });
        if (r.exit_code() == 77)
            GTEST_SKIP() << "no private UTS namespace here";
        EXPECT_EQ(r.out, c.want);
    }
}

TEST(Sysutl, LoginNameAndTheDescriptorLimitCappedAtTheSetSize)
{
    EXPECT_STREQ(sysutl_myloginname(), getpwuid(getuid())->pw_name);
    for (rlim_t limit : {300, 65536})
        EXPECT_EQ(ks_test::run_in_child([=] {
                      struct rlimit rl = {limit, limit};
                      return setrlimit(RLIMIT_NOFILE, &rl) != 0 ? 77 : sysutl_get_max_fds() == (limit == 300 ? 300 : KS_FD_SETSIZE) ? 0 : 1;
                  }).exit_code() % 77, 0) << limit;
}

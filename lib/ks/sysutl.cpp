// Host, user and descriptor information.
#include "ks/sysutl.h"

#include <errno.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include "ks/imsg.h"
#include "sysutl_msg.h"

namespace {

int max_fds;
char hostname_buf[256];
char loginname_buf[256];

// Copies src into buf of size bytes; 1 when it does not fit (buf then "").
int copy_out(char *buf, size_t size, const char *src)
{
    size_t n = strlen(src);
    if (n >= size) {
        if (size > 0)
            buf[0] = '\0';
        return 1;
    }
    memcpy(buf, src, n + 1);
    return 0;
}

} // namespace

int sysutl_get_max_fds(void)
{
    if (max_fds > 0)
        return max_fds;
    struct rlimit rl;
    long n;
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0) {
        n = rl.rlim_cur == RLIM_INFINITY ? KS_FD_SETSIZE : static_cast<long>(rl.rlim_cur);
    } else {
        imsg_print(IMSG_ERROR, &_sysutl_ks_msg_table, SYSUTL_MSG_GET_FD_LIMIT,
                   imsg_strerror(errno));
        n = sysconf(_SC_OPEN_MAX);
        if (n <= 0)
            n = 1024;
    }
    // Descriptor sets end at 16384: a larger limit would be unusable with select.
    max_fds = static_cast<int>(n > KS_FD_SETSIZE ? KS_FD_SETSIZE : n);
    return max_fds;
}

const char *sysutl_myhostname(void)
{
    // Asked every time: a test (or a container) may rename the host.
    if (gethostname(hostname_buf, sizeof hostname_buf - 1) != 0) {
        imsg_print(IMSG_ERROR, &_sysutl_ks_msg_table, SYSUTL_MSG_GET_HOSTNAME,
                   imsg_strerror(errno));
        hostname_buf[0] = '\0';
    }
    hostname_buf[sizeof hostname_buf - 1] = '\0';
    return hostname_buf;
}

const char *sysutl_myloginname(void)
{
    struct passwd *pw = getpwuid(getuid());
    const char *name = pw != nullptr ? pw->pw_name : nullptr;
    if (name == nullptr || *name == '\0')
        name = getenv("LOGNAME");
    if (name == nullptr || *name == '\0')
        name = getenv("USER");
    if (name != nullptr && *name != '\0' &&
        copy_out(loginname_buf, sizeof loginname_buf, name) == 0)
        return loginname_buf;
    snprintf(loginname_buf, sizeof loginname_buf, "%u", static_cast<unsigned>(getuid()));
    return loginname_buf;
}

int sysutl_get_host_domain_name(char *buf, size_t size)
{
    if (buf == nullptr || size == 0)
        return 1;
    buf[0] = '\0';
    // The host's own name, when qualified, says its domain; no name service is
    // asked, so the answer never waits on the network.
    const char *host = sysutl_myhostname();
    const char *dot = strchr(host, '.');
    if (dot != nullptr && dot[1] != '\0')
        return copy_out(buf, size, dot + 1);
    char domain[256];
    if (getdomainname(domain, sizeof domain - 1) != 0)
        return 1;
    domain[sizeof domain - 1] = '\0';
    if (domain[0] == '\0' || strcmp(domain, "(none)") == 0)
        return 1;
    return copy_out(buf, size, domain);
}

// Temporary directories and files, and names not yet in use.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "fileutl_internal.h"
#include "ks/date.h"
#include "ks/fileutl.h"
#include "ks/imsg.h"
#include "ks_internal.h"
#include "ks_msg.h"

using ks::fileutl::cut_at_char;
using ks::fileutl::kSep;
using ks::fileutl::multibyte_locale;

namespace {

// Room kept after the directory for the name made in it.
constexpr size_t kNameRoom = 15;
// Names are numbered 00000 to 99999.
constexpr int kCounterSpan = 100000;
constexpr size_t kDigits = 5;

// The process's temporary directory, chosen on first use.
char chosen_dir[KS_PATH_BUF];
size_t chosen_len;
bool chosen;

// The number of the next temporary name, started once per process.
int counter = -1;

// Whether dir (without trailing separators) fits in limit bytes with the
// name room and is writable; copies it to out (KS_PATH_BUF bytes) when so.
bool usable_dir(const char *dir, size_t limit, char *out, size_t *len)
{
    size_t n = strlen(dir);
    if (n >= KS_PATH_BUF)
        return false;
    memcpy(out, dir, n + 1);
    fileutl_strip_pname_sep(out);
    n = strlen(out);
    if (n + kNameRoom >= limit || access(out, W_OK) != 0)
        return false;
    *len = n;
    return true;
}

void choose_dir()
{
    const char *env = getenv("TMPDIR");
    chosen = true;
    if ((env != nullptr && usable_dir(env, KS_PATH_BUF - 1, chosen_dir, &chosen_len)) ||
        usable_dir("/var/tmp/", KS_PATH_BUF - 1, chosen_dir, &chosen_len) ||
        usable_dir("/tmp", KS_PATH_BUF - 1, chosen_dir, &chosen_len))
        return;
    memcpy(chosen_dir, ".", 2);
    chosen_len = 1;
}

int next_number()
{
    if (counter < 0) {
        srand(static_cast<unsigned>(getpid()));
        counter = rand() % kCounterSpan;
    }
    return counter;
}

// Makes DIR/PREFIXnnnnnEXT in out and calls make(out) with each number from
// the counter on while make fails with EEXIST, until the counter comes back
// to where it started.  make returns 0, or -1 with errno (EINTR: tried again).
template <typename Make>
int numbered(const char *preferred, const char *prefix, const char *ext, char *out, size_t size,
             Make make)
{
    size_t dlen;
    if (preferred != nullptr && *preferred == '\0')
        preferred = nullptr;
    if (fileutl_get_tmpdir(preferred, out, size, &dlen) != 0)
        return 1;
    if (prefix == nullptr)
        prefix = "tmp";
    bool add_sep = out[dlen - 1] != kSep;
    size_t elen = ext == nullptr ? 0 : strlen(ext);
    bool add_dot = elen > 0 && ext[0] != '.';
    size_t fixed = dlen + add_sep + kDigits + add_dot + elen + 1;
    size_t limit = std::min(size, static_cast<size_t>(KS_PATH_BUF));
    if (fixed > limit) {
        errno = ENAMETOOLONG;
        return 1;
    }
    size_t plen = cut_at_char(prefix, limit - fixed, multibyte_locale());
    const int start = next_number();
    do {
        snprintf(out + dlen, size - dlen, "%s%.*s%5.5d%s%s", add_sep ? "/" : "",
                 static_cast<int>(plen), prefix, counter, add_dot ? "." : "", elen > 0 ? ext : "");
        int rc;
        do
            rc = make(out);
        while (rc != 0 && errno == EINTR);
        counter = (counter + 1) % kCounterSpan;
        if (rc == 0)
            return 0;
        if (errno != EEXIST)
            return 1;
    } while (counter != start);
    return 1;
}

// base + suffix into name (KS_PATH_BUF bytes); false with ENAMETOOLONG.
bool join_name(char *name, const char *base, const char *suffix)
{
    if (snprintf(name, KS_PATH_BUF, "%s%s", base, suffix == nullptr ? "" : suffix) >= KS_PATH_BUF) {
        errno = ENAMETOOLONG;
        return false;
    }
    return true;
}

// name with ".n" added into out (KS_PATH_BUF bytes); false with ENAMETOOLONG.
bool numbered_name(char *out, const char *name, int n)
{
    if (snprintf(out, KS_PATH_BUF, "%s.%d", name, n) >= KS_PATH_BUF) {
        errno = ENAMETOOLONG;
        return false;
    }
    return true;
}

char *copy_out(char *out, size_t size, const char *name)
{
    size_t n = strlen(name);
    if (n >= size) {
        if (size > 0)
            out[0] = '\0';
        errno = ENAMETOOLONG;
        return nullptr;
    }
    memcpy(out, name, n + 1);
    return out;
}

} // namespace

int fileutl_get_tmpdir(const char *preferred, char *out, size_t size, size_t *len)
{
    size_t n = 0;
    if (!chosen)
        choose_dir();
    char dir[KS_PATH_BUF];
    if (preferred != nullptr && usable_dir(preferred, size, dir, &n)) {
        memcpy(out, dir, n + 1);
    } else if (chosen_len + kNameRoom < size) {
        n = chosen_len;
        memcpy(out, chosen_dir, n + 1);
    } else {
        if (size > 0)
            out[0] = '\0';
        errno = ENAMETOOLONG;
        return 2;
    }
    if (len != nullptr)
        *len = n;
    return 0;
}

int fileutl_tmpdir(const char *preferred, const char *prefix, char *out, size_t size, int mode)
{
    const mode_t m = mode == -1 ? 0777 : static_cast<mode_t>(mode);
    return numbered(preferred, prefix, nullptr, out, size,
                    [m](const char *name) { return mkdir(name, m); });
}

FILE *fileutl_tmpfile_ext_opt(const char *preferred, const char *prefix, const char *ext, char *out,
                              size_t size, int flags)
{
    int fd = -1;
    const int oflags =
        O_RDWR | O_CREAT | O_EXCL | O_TRUNC | ((flags & FILEUTL_TMP_CLOEXEC) != 0 ? O_CLOEXEC : 0);
    if (numbered(preferred, prefix, ext, out, size, [&fd, oflags](const char *name) {
            fd = open(name, oflags, 0666);
            return fd < 0 ? -1 : 0;
        }) != 0)
        return nullptr;
    FILE *fp = fdopen(fd, (flags & FILEUTL_TMP_BINARY) != 0 ? "w+b" : "w+");
    if (fp == nullptr) {
        int err = errno;
        close(fd);
        unlink(out);
        errno = err;
    }
    return fp;
}

FILE *fileutl_tmpfile_ext(const char *preferred, const char *prefix, const char *ext, char *out,
                          size_t size)
{
    return fileutl_tmpfile_ext_opt(preferred, prefix, ext, out, size, 0);
}

FILE *fileutl_tmpfile_ext_binary(const char *preferred, const char *prefix, const char *ext,
                                 char *out, size_t size)
{
    return fileutl_tmpfile_ext_opt(preferred, prefix, ext, out, size, FILEUTL_TMP_BINARY);
}

char *fileutl_make_unique_pn(const char *base, const char *suffix, int control, size_t size,
                             char *out)
{
    char name[KS_PATH_BUF], tried[KS_PATH_BUF];
    if (control != 0 && control != 1) {
        imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_BAD_UNIQUE_SUFFIX, control);
        errno = EINVAL;
        return nullptr;
    }
    if (!join_name(name, base, suffix))
        return nullptr;
    if (control == 0) {
        const char *stamp = date_fmt_token_date_time_pname(ks::clock_time());
        return join_name(tried, name, ".") && join_name(name, tried, stamp == nullptr ? "" : stamp)
                   ? copy_out(out, size, name)
                   : nullptr;
    }
    if (access(name, F_OK) != 0)
        return copy_out(out, size, name);
    for (int n = 1; n <= 999; n++) {
        if (!numbered_name(tried, name, n))
            return nullptr;
        if (access(tried, F_OK) != 0)
            return copy_out(out, size, tried);
    }
    errno = EEXIST;
    return nullptr;
}

char *fileutl_rename_unique(const char *old, const char *suffix, size_t size, char *out)
{
    char name[KS_PATH_BUF], tried[KS_PATH_BUF];
    if (!join_name(name, old, suffix))
        return nullptr;
    memcpy(tried, name, strlen(name) + 1);
    for (int n = 1; fileutl_exists(tried, 1); n++)
        if (!numbered_name(tried, name, n))
            return nullptr;
    if (strlen(tried) >= size) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    if (rename(old, tried) != 0)
        return nullptr;
    memcpy(out, tried, strlen(tried) + 1);
    errno = 0;
    return out;
}

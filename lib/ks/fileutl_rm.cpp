// Removing a file or a tree: one record that sees directories after their
// contents, so files go before the directories that hold them.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fileutl_walk_internal.h"
#include "ks/fileutl.h"
#include "ks/imsg.h"

namespace {

// Removal needs no more of an entry's status than its type, which the
// directory itself gives (d_type): the walk reads it from the entry just
// read instead of asking the file system again.  The root, entries of
// unknown type and followed links take the real status.
const struct dirent *last_entry;

// The directories open in the walk, innermost last, so an entry goes with
// unlinkat relative to its own directory instead of by its whole name.
constexpr int kMaxOpen = 256;
int open_fds[kMaxOpen];
int open_count;

void *open_dir(const char *path)
{
    last_entry = nullptr;
    DIR *dir = fileutl_opendir(path);
    if (dir != nullptr && open_count++ < kMaxOpen)
        open_fds[open_count - 1] = dirfd(dir);
    return dir;
}

struct dirent *read_dir(void *dir)
{
    struct dirent *e = fileutl_readdir(static_cast<DIR *>(dir));
    last_entry = e;
    return e;
}

int close_dir(void *dir)
{
    last_entry = nullptr;
    open_count--;
    return fileutl_closedir(static_cast<DIR *>(dir));
}

mode_t type_of(unsigned char d_type)
{
    switch (d_type) {
    case DT_DIR: return S_IFDIR;
    case DT_REG: return S_IFREG;
    case DT_LNK: return S_IFLNK;
    case DT_FIFO: return S_IFIFO;
    case DT_CHR: return S_IFCHR;
    case DT_BLK: return S_IFBLK;
    case DT_SOCK: return S_IFSOCK;
    default: return 0;
    }
}

bool names_last_entry(const char *path)
{
    if (last_entry == nullptr)
        return false;
    size_t len = strlen(path);
    size_t name_len = strlen(last_entry->d_name);
    return len > name_len && path[len - name_len - 1] == '/' &&
           memcmp(path + len - name_len, last_entry->d_name, name_len) == 0;
}

int entry_stat(const char *path, int follow, struct stat *st)
{
    mode_t type = last_entry != nullptr ? type_of(last_entry->d_type) : 0;
    if (type == 0 || (follow && type == S_IFLNK) || !names_last_entry(path))
        return fileutl_stat(path, follow, st);
    *st = {};
    st->st_mode = type;
    return 0;
}

constexpr fileutl_fs_ops_t kRemovalOps = {entry_stat, open_dir, read_dir, close_dir};

int remove_entry(void *data, const char *path, const char *root, const char *dir, const char *name,
                 const struct stat *st, int pass, int depth)
{
    (void)root, (void)dir, (void)pass;
    int flags = *static_cast<const int *>(data);
    if ((flags & FILEUTL_WALK_TRACE) != 0)
        imsg_print(IMSG_OK, "unlink( %s )\n", IMSG_LITERAL, path);
    int at = depth > 0 && open_count > 0 && open_count <= kMaxOpen ? open_fds[open_count - 1] : -1;
    int rm_flags = S_ISDIR(st->st_mode) ? AT_REMOVEDIR : 0;
    int rc = at >= 0 ? unlinkat(at, name, rm_flags) : unlinkat(AT_FDCWD, path, rm_flags);
    return rc == 0 ? 0 : ks::fileutl_report(flags, path, errno);
}

} // namespace

int fileutl_rm(const char *path, int flags)
{
    fileutl_walk_cb_t cb = {nullptr, FILEUTL_WALK_AFTER, remove_entry, &flags};
    ks::fileutl_flush_attributes(path);
    last_entry = nullptr;
    return fileutl_walk_tree_any(path, &cb, &kRemovalOps, flags);
}

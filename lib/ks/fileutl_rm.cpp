// Removing a file or a tree: one record that sees directories after their
// contents, so files go before the directories that hold them.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fileutl_walk_internal.h"
#include "ks/fileutl.h"
#include "ks/imsg.h"

namespace {

int remove_entry(void *data, const char *path, const char *root, const char *dir, const char *name,
                 const struct stat *st, int pass, int depth)
{
    (void)root, (void)dir, (void)name, (void)pass, (void)depth;
    int flags = *static_cast<const int *>(data);
    if ((flags & FILEUTL_WALK_TRACE) != 0)
        imsg_print(IMSG_OK, "unlink( %s )\n", IMSG_LITERAL, path);
    int rc = S_ISDIR(st->st_mode) ? rmdir(path) : unlink(path);
    return rc == 0 ? 0 : ks::fileutl_report(flags, path, errno);
}

} // namespace

int fileutl_rm(const char *path, int flags)
{
    fileutl_walk_cb_t cb = {nullptr, FILEUTL_WALK_AFTER, remove_entry, &flags};
    return fileutl_walk_tree(path, &cb, flags);
}

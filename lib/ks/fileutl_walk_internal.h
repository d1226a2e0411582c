// Internal: included by the fileutl sources of the tree services (walker,
// copy, removal, disk usage); never installed.
#ifndef KS_FILEUTL_WALK_INTERNAL_H
#define KS_FILEUTL_WALK_INTERNAL_H

#include <stdint.h>
#include <sys/types.h>

namespace ks {

// Asks a network file system for fresh attributes of path: a forced
// synchronisation of its status with the server (a no-op on local ones).
void fileutl_flush_attributes(const char *path);

// "%s: %s\n" with name and the text of err, unless flags say quiet; returns
// the walk's error result, -4.
int fileutl_report(int flags, const char *name, int err);

// A set of (device, inode) pairs, each with a value: files with several
// links, met once each.  Lives on the heap; null is an empty set.
struct inode_set;

// Finds (dev, ino) in *set, or adds it with value.  1 with the stored value
// in *found, 0 when added, -1 when out of memory (reported).
int inode_set_add(inode_set **set, dev_t dev, ino_t ino, const void *value, const void **found);
// Frees the set; *set becomes null.
void inode_set_free(inode_set **set);

} // namespace ks

#endif

// Internal: included by fileutl_mnt.cpp and the tests; never installed.
// Entry points that only tests call.
#ifndef KS_FILEUTL_TESTING_H
#define KS_FILEUTL_TESTING_H

namespace ks {

// Reads the mount table from path (in the format of /proc/self/mounts, or
// of mountinfo when the name ends in "mountinfo") instead of the system's;
// null returns to the system's.  Drops the cache either way.
void fileutl_set_mnttab_for_testing(const char *path);

} // namespace ks

#endif

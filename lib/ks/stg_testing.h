// Internal: included by stg_area.cpp, stg_heap.cpp and the tests; never
// installed.  Entry points that only tests call.
#ifndef KS_STG_TESTING_H
#define KS_STG_TESTING_H

#include <stddef.h>

namespace ks {

// hook is called by the debugging heap with the whole block (header and guard
// included) just before it goes back to the C allocator, after the free
// pattern has been written: tests see the pattern without touching freed
// memory.  Null (the default) means no call.
void stg_set_release_hook_for_testing(void (*hook)(const void *block, size_t len));

// Number of areas created and not yet deleted.
size_t stg_area_count_for_testing();

} // namespace ks

#endif

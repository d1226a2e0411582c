// Internal: included by stg_area.cpp and stg_heap.cpp; never installed.
// What the two halves of the storage module share.
#ifndef KS_STG_INTERNAL_H
#define KS_STG_INTERNAL_H

#include "ks/stg.h"

namespace ks {

// Whether "ks/stg" is traced at level (the debugging heap and area checks
// hold at level 1).
bool stg_traced(int level);

} // namespace ks

#endif

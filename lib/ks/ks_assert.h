// Internal: included by library sources at or above the fault manager (the
// message layer, below it, asserts through its service table); never installed.
#ifndef KS_ASSERT_H
#define KS_ASSERT_H

#include "ks/pfm.h"

// The library's one assertion.  KS_ASSERT(cond) prints cond's own text;
// KS_ASSERT(cond, "text") prints the text the message must carry where it
// differs from the code.  The source name is the file's stem (KS_SOURCE_NAME,
// set by the build for each source), never a path of the build machine.
#ifndef KS_SOURCE_NAME
#error "KS_SOURCE_NAME is set by the build for every library source"
#endif
// The condition is turned into text before any macro in it is expanded.
#define KS_ASSERT(...)                                                                             \
    KS_ASSERT_PICK(__VA_ARGS__, KS_ASSERT_WITH_TEXT, KS_ASSERT_AS_WRITTEN, )                       \
    (#__VA_ARGS__, __VA_ARGS__)
#define KS_ASSERT_PICK(a, b, chosen, ...)        chosen
#define KS_ASSERT_AS_WRITTEN(written, cond)      KS_ASSERT_CHECK(cond, written)
#define KS_ASSERT_WITH_TEXT(written, cond, text) KS_ASSERT_CHECK(cond, text)
#define KS_ASSERT_CHECK(cond, text)                                                                \
    ((cond) ? static_cast<void>(0) : pfm_assert_fail((text), KS_SOURCE_NAME, __LINE__))

#endif

// Storage areas and the reporting heap wrappers.
#include <errno.h>
#include <stdarg.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ks/imsg.h"
#include "ks/stg.h"
#include "ks_test_util.h"
#include "stg_internal.h"

#if defined(__SANITIZE_ADDRESS__)
// The out-of-memory cases ask for absurd sizes on purpose.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }
#define KS_UNDER_ASAN 1
#else
#define KS_UNDER_ASAN 0
#endif

using ks_test::child_result;
using ks_test::run_in_child;

namespace {

// The chain of an area, newest chunk first.
std::vector<stg_chunk *> chunks_of(stg_area_t area)
{
    std::vector<stg_chunk *> v;
    for (stg_chunk *c = area->chunks; c; c = c->next)
        v.push_back(c);
    return v;
}

std::vector<uint32_t> sizes_oldest_first(stg_area_t area)
{
    std::vector<uint32_t> v;
    for (stg_chunk *c : chunks_of(area))
        v.insert(v.begin(), c->size);
    return v;
}

bool all_bytes(const void *p, size_t len, unsigned char value)
{
    const unsigned char *b = static_cast<const unsigned char *>(p);
    for (size_t i = 0; i < len; i++)
        if (b[i] != value)
            return false;
    return true;
}

bool inside(const void *p, const stg_chunk *c)
{
    const unsigned char *b = static_cast<const unsigned char *>(p);
    return b >= c->data && b < c->data + c->size;
}

std::string fmt(const char *format, ...) KS_PRINTF(1, 2);
std::string fmt(const char *format, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    return buf;
}

// Plain heap, no tracing: the environment of the allocation-logic cases.
void plain_mode()
{
    unsetenv("TRACE_VERBOSITY");
    unsetenv("TRACE_SUBSYS");
    unsetenv("PRINT_SUBSYS");
    unsetenv("PRINT_SUBSYS_OK");
}

// The debugging heap and area checks, with traces up to level.
void debug_mode(int level)
{
    setenv("TRACE_VERBOSITY", std::to_string(level).c_str(), 1);
    setenv("TRACE_SUBSYS", "ks/stg", 1);
}

size_t count_of(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

// ---------------------------------------------------------------- chunk sizing

TEST(StgArea, GrowthSequenceMeasuresThePreviousChunkAndStopsAtTheCap)
{
    plain_mode();
    stg_area_t a = stg_create_area(1000);
    ASSERT_NE(a, STG_AREA_NULL);
    stg_set_growth(a, 1.5);
    // 600-byte blocks stay under 70% of every increment, so each chunk is
    // exactly its increment, rounded to 8.
    while (chunks_of(a).size() < 15)
        ASSERT_NE(stg_alloc(a, 600), nullptr);
    std::vector<uint32_t> expected = {1000,  1504,  2256,  3384,  5080,  7624,   11440, 17160,
                                      25744, 38616, 57928, 86896, 102400, 102400, 102400};
    EXPECT_EQ(sizes_oldest_first(a), expected);
    // desired adds the increments before rounding; allocated the chunk sizes.
    uint32_t desired = 1000 + 1500 + 2256 + 3384 + 5076 + 7620 + 11436 + 17160 + 25740 + 38616 +
                       57924 + 86892 + 3 * 102400;
    EXPECT_EQ(a->desired, desired);
    uint32_t allocated = 0;
    for (uint32_t s : expected)
        allocated += s;
    EXPECT_EQ(a->allocated, allocated);

    // Past the cap, a request above 70% of it gets a chunk of its own size
    // plus the increment.
    stg_alloc(a, a->chunks->size - a->chunks->used); // fill the newest chunk
    ASSERT_NE(stg_alloc(a, 80001), nullptr);
    EXPECT_EQ(a->chunks->size, 102400u + 80008u);
    EXPECT_EQ(a->chunks->used, 80008u);
    stg_delete_area(&a);
}

TEST(StgArea, GrowthFactorNotAboveOneIsIgnored)
{
    plain_mode();
    stg_area_t a = stg_create_area(64);
    EXPECT_EQ(a->growth, 0.0f);
    stg_set_growth(a, 1.0);
    EXPECT_EQ(a->growth, 0.0f);
    stg_set_growth(a, 2.5);
    EXPECT_EQ(a->growth, 2.5f);
    stg_set_growth(a, 0.5);
    stg_set_growth(a, 1.0);
    stg_set_growth(a, NAN);
    stg_set_growth(a, -3.0);
    EXPECT_EQ(a->growth, 2.5f);
    stg_delete_area(&a);
}

TEST(StgArea, WithoutGrowthLaterChunksUseTheIncrement)
{
    plain_mode();
    stg_area_t a = stg_create_area(100);
    stg_set_incr(a, 240);
    ASSERT_NE(stg_alloc(a, 64), nullptr);   // first chunk: 100 rounded to 104
    ASSERT_NE(stg_alloc(a, 168), nullptr);  // exactly 70% of 240: 240 alone
    ASSERT_NE(stg_alloc(a, 169), nullptr);  // 176 > 168: 240 + 176
    ASSERT_NE(stg_alloc(a, 200), nullptr);  // fits the newest
    EXPECT_EQ(sizes_oldest_first(a), (std::vector<uint32_t>{104, 240, 416}));
    EXPECT_EQ(a->chunks->used, 376u);
    // The first chunk of an area with an explicit increment is not counted.
    EXPECT_EQ(a->desired, 2u * 240u);
    EXPECT_EQ(a->allocated, 104u + 240u + 416u);
    stg_delete_area(&a);
}

TEST(StgArea, AfterSetIncrGrowthStartsWithTheThirdChunk)
{
    plain_mode();
    stg_area_t a = stg_create_area(96);
    stg_set_incr(a, 200);
    stg_set_growth(a, 2.0);
    stg_alloc(a, 64);
    stg_alloc(a, 64);  // second chunk: the increment, not 2 x 96
    stg_alloc(a, 136); // fills it
    stg_alloc(a, 64);  // third: 2 x 200
    EXPECT_EQ(sizes_oldest_first(a), (std::vector<uint32_t>{96, 200, 400}));
    EXPECT_EQ(a->desired, 600u);
    stg_delete_area(&a);
}

TEST(StgArea, SizeZeroAreaMakesChunksOfTheRequest)
{
    plain_mode();
    stg_area_t a = stg_create_area(0);
    void *p = stg_alloc(a, 13);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(sizes_oldest_first(a), (std::vector<uint32_t>{16}));
    void *q = stg_alloc(a, 3);
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(sizes_oldest_first(a), (std::vector<uint32_t>{16, 8}));
    EXPECT_EQ(a->desired, 0u);
    EXPECT_EQ(a->allocated, 24u);
    stg_delete_area(&a);
}

// ---------------------------------------------------------------- allocation

TEST(StgArea, AllocZeroReturnsTheBumpPointerWithoutAdvancing)
{
    plain_mode();
    stg_area_t a = stg_create_area(256);
    ASSERT_EQ(a->chunks, nullptr);
    unsigned char *p = static_cast<unsigned char *>(stg_alloc(a, 0));
    ASSERT_NE(p, nullptr);
    ASSERT_NE(a->chunks, nullptr);
    EXPECT_EQ(p, a->chunks->data);
    EXPECT_EQ(a->chunks->used, 0u);
    EXPECT_EQ(stg_alloc(a, 0), p);
    EXPECT_EQ(stg_alloc(a, 5), p);
    EXPECT_EQ(a->chunks->used, 8u);
    EXPECT_EQ(stg_alloc(a, 0), p + 8);
    EXPECT_EQ(stg_alloc(a, 9), p + 8);
    EXPECT_EQ(stg_alloc(a, 1), p + 24);
    stg_delete_area(&a);
}

TEST(StgArea, BlocksAreEightByteAligned)
{
    plain_mode();
    stg_area_t a = stg_create_area(100);
    for (size_t n = 1; n < 200; n += 7) {
        void *p = stg_alloc(a, n);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u) << n;
    }
    for (stg_chunk *c : chunks_of(a)) {
        EXPECT_EQ(c->size % 8, 0u);
        EXPECT_EQ(c->used % 8, 0u);
    }
    stg_delete_area(&a);
}

TEST(StgArea, FreshMemoryReadsAsOnesUnlessZeroIsSet)
{
    plain_mode();
    stg_area_t a = stg_create_area(512);
    unsigned char *p = static_cast<unsigned char *>(stg_alloc(a, 100));
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(all_bytes(a->chunks->data, 512, 0xFF));
    memset(p, 0x11, 100);

    // Setting the flag does not touch memory already filled...
    stg_set_zero(a);
    EXPECT_TRUE(all_bytes(p + 104, 512 - 104, 0xFF));
    // ...but the next chunk is zero-filled.
    unsigned char *q = static_cast<unsigned char *>(stg_alloc(a, 500));
    ASSERT_EQ(chunks_of(a).size(), 2u);
    EXPECT_TRUE(inside(q, a->chunks));
    EXPECT_TRUE(all_bytes(a->chunks->data, a->chunks->size, 0x00));

    // So is the kept chunk after a reset.
    EXPECT_EQ(stg_free_area(a, 1), 512u);
    EXPECT_TRUE(all_bytes(a->chunks->data, 512, 0x00));
    stg_delete_area(&a);
}

TEST(StgArea, FullChunkSendsRequestsToTheOldestChunkWithRoom)
{
    plain_mode();
    stg_area_t a = stg_create_area(1000);
    stg_alloc(a, 600);
    stg_alloc(a, 600);
    stg_alloc(a, 600);
    std::vector<stg_chunk *> c = chunks_of(a); // newest first
    ASSERT_EQ(c.size(), 3u);
    // Newest first while it has room.
    EXPECT_TRUE(inside(stg_alloc(a, 300), c[0]));
    // Then the oldest with room, though the middle one would do as well.
    EXPECT_TRUE(inside(stg_alloc(a, 200), c[2]));
    EXPECT_TRUE(inside(stg_alloc(a, 200), c[2]));
    EXPECT_EQ(c[2]->used, 1000u);
    EXPECT_TRUE(inside(stg_alloc(a, 200), c[1]));
    EXPECT_EQ(chunks_of(a).size(), 3u);
    // Nothing fits anywhere: a new chunk.
    EXPECT_FALSE(inside(stg_alloc(a, 300), c[0]));
    EXPECT_EQ(chunks_of(a).size(), 4u);
    stg_delete_area(&a);
}

TEST(StgArea, StrdupCopiesIntoTheArea)
{
    plain_mode();
    stg_area_t a = stg_create_area(64);
    EXPECT_EQ(stg_area_strdup(a, nullptr), nullptr);
    char *s = stg_area_strdup(a, "seventeen chars!!");
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "seventeen chars!!");
    EXPECT_TRUE(inside(s, a->chunks));
    EXPECT_EQ(a->chunks->used, 24u);
    char *e = stg_area_strdup(a, "");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e[0], '\0');
    EXPECT_EQ(a->chunks->used, 32u);
    stg_delete_area(&a);
}

TEST(StgArea, HeapPseudoAreaUsesTheHeap)
{
    plain_mode();
    char *p = static_cast<char *>(stg_alloc(STG_AREA_HEAP, 3));
    ASSERT_NE(p, nullptr);
    memcpy(p, "ab", 3);
    char *s = stg_area_strdup(STG_AREA_HEAP, "heap");
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "heap");
    stg_free(s);
    stg_free(p);
    EXPECT_EQ(stg_free_area(STG_AREA_HEAP, 1), 0u);
}

// ---------------------------------------------------------------- release

TEST(StgArea, FreeWithKeepKeepsTheFirstChunkEmptyAndRefilled)
{
    plain_mode();
    stg_area_t a = stg_create_area(1000);
    unsigned char *first = static_cast<unsigned char *>(stg_alloc(a, 600));
    stg_alloc(a, 600);
    stg_alloc(a, 600);
    ASSERT_EQ(chunks_of(a).size(), 3u);
    memset(first, 0, 600);
    stg_chunk *oldest = chunks_of(a).back();

    EXPECT_EQ(stg_free_area(a, 1), 1000u);
    ASSERT_EQ(chunks_of(a).size(), 1u);
    EXPECT_EQ(a->chunks, oldest);
    EXPECT_EQ(a->chunks->data, first);
    EXPECT_EQ(a->chunks->used, 0u);
    EXPECT_TRUE(all_bytes(first, 1000, 0xFF));
    EXPECT_EQ(a->allocated, 1000u);
    EXPECT_EQ(a->desired, 1000u); // first_size, the increment not being set

    // The area is reusable from the start of the kept chunk.
    EXPECT_EQ(stg_alloc(a, 8), first);

    EXPECT_EQ(stg_free_area(a, 0), 0u);
    EXPECT_EQ(a->chunks, nullptr);
    EXPECT_EQ(a->allocated, 0u);
    EXPECT_EQ(a->desired, 0u);
    // Nothing to keep on an empty area.
    EXPECT_EQ(stg_free_area(a, 1), 0u);
    EXPECT_EQ(a->chunks, nullptr);
    // The next allocation starts over with the first size.
    stg_alloc(a, 8);
    EXPECT_EQ(sizes_oldest_first(a), (std::vector<uint32_t>{1000}));
    stg_delete_area(&a);
}

TEST(StgArea, FreeWithKeepClearsDesiredWhenTheIncrementWasSet)
{
    plain_mode();
    stg_area_t a = stg_create_area(40);
    stg_set_incr(a, 80);
    stg_alloc(a, 24);
    stg_alloc(a, 24);
    EXPECT_EQ(sizes_oldest_first(a), (std::vector<uint32_t>{40, 80}));
    EXPECT_EQ(a->desired, 80u);
    EXPECT_EQ(stg_free_area(a, 1), 40u);
    EXPECT_EQ(a->desired, 0u);
    EXPECT_EQ(a->allocated, 40u);
    stg_delete_area(&a);
}

TEST(StgArea, DeleteKeepsTheGlobalListInOrder)
{
    plain_mode();
    stg_area_rec *before = ks::stg_area_list_tail();
    stg_area_t a = stg_create_area(8);
    stg_area_t b = stg_create_area(8);
    stg_area_t c = stg_create_area(8);
    EXPECT_EQ(ks::stg_area_list_tail(), c);
    if (before)
        EXPECT_EQ(before->next_area, a);
    else
        EXPECT_EQ(ks::stg_area_list_head(), a);
    EXPECT_EQ(a->next_area, b);
    EXPECT_EQ(b->next_area, c);

    stg_alloc(c, 100);
    stg_delete_area(&c);
    EXPECT_EQ(c, STG_AREA_NULL);
    EXPECT_EQ(ks::stg_area_list_tail(), b);
    EXPECT_EQ(b->next_area, nullptr);

    // A new area goes after the new tail.
    stg_area_t d = stg_create_area(8);
    EXPECT_EQ(b->next_area, d);
    EXPECT_EQ(ks::stg_area_list_tail(), d);

    stg_delete_area(&b); // from the middle
    EXPECT_EQ(a->next_area, d);
    stg_delete_area(&a);
    if (before)
        EXPECT_EQ(before->next_area, d);
    else
        EXPECT_EQ(ks::stg_area_list_head(), d);
    stg_delete_area(&d);
    EXPECT_EQ(ks::stg_area_list_tail(), before);

    // A null handle (or a pointer to one) is left alone.
    stg_delete_area(&d);
    stg_delete_area(nullptr);
}

// ---------------------------------------------------------------- heap

TEST(StgHeap, MallocZeroGivesDistinctBlocks)
{
    plain_mode();
    void *p = stg_malloc(0);
    void *q = stg_malloc(0);
    ASSERT_NE(p, nullptr);
    ASSERT_NE(q, nullptr);
    EXPECT_NE(p, q);
    char *e = stg_strdup("");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e[0], '\0');
    char *s = stg_strdup("copy me");
    EXPECT_STREQ(s, "copy me");
    s = static_cast<char *>(stg_realloc(s, 0));
    ASSERT_NE(s, nullptr);
    char *r = static_cast<char *>(stg_realloc(nullptr, 4));
    ASSERT_NE(r, nullptr);
    stg_free(r);
    stg_free(s);
    stg_free(e);
    stg_free(q);
    stg_free(p);
    stg_free(nullptr);
}

TEST(StgHeap, OutOfMemoryIsReportedWithEnomem)
{
    child_result r = run_in_child([] {
        plain_mode();
        errno = 0;
        if (stg_malloc(SIZE_MAX / 2) != nullptr || errno != ENOMEM)
            return 1;
        char *p = stg_strdup("kept");
        errno = 0;
        if (stg_realloc(p, SIZE_MAX / 2) != nullptr || errno != ENOMEM)
            return 2;
        if (strcmp(p, "kept") != 0)
            return 3;
        stg_free(p);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(count_of(r.err, "Error: No more memory available.\n"), 2u) << r.err;
    EXPECT_EQ(r.out, "");
}

TEST(StgHeap, DebuggingHeapOutOfMemoryIsReportedWithEnomem)
{
    child_result r = run_in_child([] {
        debug_mode(1);
        errno = 0;
        if (stg_malloc(SIZE_MAX / 2) != nullptr || errno != ENOMEM)
            return 1;
        errno = 0;
        if (stg_malloc(SIZE_MAX - 3) != nullptr || errno != ENOMEM)
            return 2;
        char *p = stg_strdup("kept");
        errno = 0;
        if (stg_realloc(p, SIZE_MAX / 2) != nullptr || errno != ENOMEM)
            return 3;
        if (strcmp(p, "kept") != 0)
            return 4;
        stg_free(p);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(count_of(r.err, "Error: No more memory available.\n"), 3u) << r.err;
}

TEST(StgArea, FailedAllocationLeavesTheAreaUnchanged)
{
    child_result r = run_in_child([] {
        plain_mode();
        stg_area_t a = stg_create_area(100);
        stg_alloc(a, 8);
        stg_chunk *before = a->chunks;
        errno = 0;
        if (stg_alloc(a, SIZE_MAX / 2) != nullptr || errno != ENOMEM)
            return 1;
        // Just past what 32-bit chunk sizes hold once rounded up.
        errno = 0;
        if (stg_alloc(a, UINT32_MAX - 6) != nullptr || errno != ENOMEM)
            return 3;
        if (a->chunks != before || before->next || before->used != 8 || a->allocated != 104 ||
            a->desired != 100)
            return 2;
        // No area at all: refused without a message.
        errno = 0;
        if (stg_alloc(STG_AREA_NULL, 8) != nullptr || errno != EINVAL)
            return 4;
        if (stg_free_area(STG_AREA_NULL, 1) != 0)
            return 5;
        stg_dump_area(STG_AREA_NULL);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(count_of(r.err, "No more memory available.\n"), 2u) << r.err;
}

TEST(StgArea, FailedChunkAllocationLeavesTheAreaUnchanged)
{
    if (KS_UNDER_ASAN)
        GTEST_SKIP() << "an address-space limit does not mix with the sanitizer's shadow memory";
    child_result r = run_in_child([] {
        plain_mode();
        stg_area_t a = stg_create_area(100);
        stg_alloc(a, 8);
        stg_chunk *before = a->chunks;
        struct rlimit lim = {512u << 20, 512u << 20};
        if (setrlimit(RLIMIT_AS, &lim) != 0)
            return 9;
        errno = 0;
        if (stg_alloc(a, 1u << 30) != nullptr || errno != ENOMEM)
            return 1;
        if (a->chunks != before || before->next || a->allocated != 104 || a->desired != 100)
            return 2;
        if (stg_alloc(a, 8) != before->data + 8)
            return 3;
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(count_of(r.err, "No more memory available.\n"), 1u) << r.err;
}

// ---------------------------------------------------------------- dump

TEST(StgDump, AreaAndChunkLines)
{
    child_result r = run_in_child([] {
        plain_mode();
        stg_area_t a = stg_create_area(1000);
        stg_set_growth(a, 1.5);
        stg_alloc(a, 600);
        stg_alloc(a, 600);
        stg_alloc(a, 16);
        stg_chunk *newer = a->chunks, *older = newer->next;
        std::string want =
            fmt("(stg) area 0x%08lX: allocd=2504 used=1216 #chks=2 1st=1000 base=1000 des=2500 "
                "gf=1.50\n",
                (unsigned long)a) +
            fmt("(stg)   chunk 0x%08lX: size=1504 avail=616 data=0x%08lX prev=0x%08lX\n",
                (unsigned long)newer, (unsigned long)newer->data, (unsigned long)older) +
            fmt("(stg)   chunk 0x%08lX: size=1000 avail=600 data=0x%08lX prev=0x00000000\n",
                (unsigned long)older, (unsigned long)older->data);
        fflush(stdout);
        stg_dump_area(a);
        fflush(stdout);
        fprintf(stderr, "%s", want.c_str());
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_FALSE(r.out.empty());
    EXPECT_EQ(r.out, r.err);
}

TEST(StgDump, EveryAreaOldestFirst)
{
    child_result r = run_in_child([] {
        plain_mode();
        stg_area_t a = stg_create_area(16);
        stg_area_t b = stg_create_area(0);
        stg_area_t c = stg_create_area(32);
        stg_set_incr(c, 48);
        stg_alloc(a, 4);
        stg_delete_area(&b);
        std::string want =
            fmt("(stg) area 0x%08lX: allocd=16 used=8 #chks=1 1st=16 base=16 des=16 gf=0.00\n",
                (unsigned long)a) +
            fmt("(stg)   chunk 0x%08lX: size=16 avail=8 data=0x%08lX prev=0x00000000\n",
                (unsigned long)a->chunks, (unsigned long)a->chunks->data) +
            fmt("(stg) area 0x%08lX: allocd=0 used=0 #chks=0 1st=32 base=48 des=0 gf=0.00\n",
                (unsigned long)c);
        stg_dump();
        fflush(stdout);
        fprintf(stderr, "%s", want.c_str());
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_FALSE(r.err.empty());
    // Other modules may keep areas of their own ahead of ours.
    ASSERT_GE(r.out.size(), r.err.size()) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - r.err.size()), r.err);
}

// ---------------------------------------------------------------- debugging heap

TEST(StgDebugHeap, BlockHasHeaderFillAndGuard)
{
    child_result r = run_in_child([] {
        debug_mode(1);
        unsigned char *p = static_cast<unsigned char *>(stg_malloc(10));
        if (!p || reinterpret_cast<uintptr_t>(p) % 8 != 0)
            return 1;
        uint32_t stored;
        memcpy(&stored, p - 8, sizeof stored);
        if (stored != 10)
            return 2;
        if (!all_bytes(p, 10, 0xFF))
            return 3;
        if (!all_bytes(p + 10, 16 - 10 + 8, 0xAA))
            return 4;
        // An exact multiple of 8 still gets a full guard word.
        unsigned char *q = static_cast<unsigned char *>(stg_malloc(16));
        if (!all_bytes(q + 16, 8, 0xAA))
            return 5;
        stg_free(q);
        stg_free(p);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(r.err, "");
}

TEST(StgDebugHeap, OverwrittenEndIsReportedOnFree)
{
    child_result r = run_in_child([] {
        debug_mode(1);
        unsigned char *p = static_cast<unsigned char *>(stg_malloc(10));
        p[12] = 'x';
        p[13] = 'y';
        fprintf(stdout, "Heap block 0x%08lX: end overwritten at 0x%08lX.\n", (unsigned long)p,
                (unsigned long)(p + 12));
        fflush(stdout);
        stg_free(p);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    ASSERT_FALSE(r.out.empty());
    EXPECT_EQ(count_of(r.err, "Error: " + r.out), 1u) << r.err;
    EXPECT_EQ(count_of(r.err, "end overwritten"), 1u) << r.err;
}

TEST(StgDebugHeap, ReallocChecksTheOldGuardAndWritesANewOne)
{
    child_result r = run_in_child([] {
        debug_mode(1);
        unsigned char *p = static_cast<unsigned char *>(stg_malloc(10));
        memcpy(p, "0123456789", 10);
        p[23] = 0; // the guard's last byte
        fprintf(stdout, "Heap block 0x%08lX: end overwritten at 0x%08lX.\n", (unsigned long)p,
                (unsigned long)(p + 23));
        fflush(stdout);
        unsigned char *q = static_cast<unsigned char *>(stg_realloc(p, 30));
        if (!q || memcmp(q, "0123456789", 10) != 0)
            return 1;
        uint32_t stored;
        memcpy(&stored, q - 8, sizeof stored);
        if (stored != 30)
            return 2;
        if (!all_bytes(q + 30, 32 - 30 + 8, 0xAA))
            return 3;
        q = static_cast<unsigned char *>(stg_realloc(q, 3)); // shrinking re-guards too
        if (!q || memcmp(q, "012", 3) != 0 || !all_bytes(q + 3, 8 - 3 + 8, 0xAA))
            return 4;
        stg_free(q); // intact: no report
        unsigned char *n = static_cast<unsigned char *>(stg_realloc(nullptr, 5));
        if (!n || !all_bytes(n + 5, 8 - 5 + 8, 0xAA))
            return 5;
        stg_free(n);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    ASSERT_FALSE(r.out.empty());
    EXPECT_EQ(count_of(r.err, "Error: " + r.out), 1u) << r.err;
    EXPECT_EQ(count_of(r.err, "end overwritten"), 1u) << r.err;
}

std::vector<unsigned char> released;
bool hook_called;

TEST(StgDebugHeap, FreedBlockIsOverwrittenWithThePattern)
{
    child_result r = run_in_child([] {
        debug_mode(1);
        ks::stg_release_hook = [](const void *block, size_t len) {
            const unsigned char *b = static_cast<const unsigned char *>(block);
            released.assign(b, b + len);
        };
        unsigned char *p = static_cast<unsigned char *>(stg_malloc(21));
        stg_free(p);
        if (released.size() != 24 + 16)
            return 1;
        static const unsigned char pattern[8] = {0x00, 0x00, 0xe0, 0xdd, 0xb7, 0xd5, 0xeb, 0x41};
        for (size_t i = 0; i < released.size(); i++)
            if (released[i] != pattern[i % 8])
                return 2;
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(r.err, "");
}

TEST(StgDebugHeap, PlainModeKeepsNoHeader)
{
    child_result r = run_in_child([] {
        plain_mode();
        ks::stg_release_hook = [](const void *, size_t) { hook_called = true; };
        // A plain block is the C allocator's own: free() takes it.
        void *p = stg_malloc(40);
        free(p);
        p = stg_malloc(40);
        stg_free(p);
        return hook_called ? 1 : 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
}

TEST(StgDebugArea, CorruptionIsReportedOnceInTheBytesHandedOut)
{
    child_result r = run_in_child([] {
        debug_mode(1);
        stg_area_t a = stg_create_area(1000);
        unsigned char *p = static_cast<unsigned char *>(stg_alloc(a, 16));
        p[16 + 3] = 0;
        p[16 + 5] = 0;
        p[500] = 0; // beyond the next block: not looked at below level 2
        fprintf(stdout, "Storage area 0x%08lX: corrupted at 0x%08lX.\n", (unsigned long)a,
                (unsigned long)(p + 19));
        fflush(stdout);
        unsigned char *q = static_cast<unsigned char *>(stg_alloc(a, 16));
        // The allocation goes ahead regardless.
        return q == p + 16 ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    ASSERT_FALSE(r.out.empty());
    EXPECT_EQ(count_of(r.err, "Error: " + r.out), 1u) << r.err;
    EXPECT_EQ(count_of(r.err, "corrupted"), 1u) << r.err;
}

TEST(StgDebugArea, LevelTwoChecksTheWholeFreeTail)
{
    child_result r = run_in_child([] {
        debug_mode(2);
        stg_area_t a = stg_create_area(1000);
        stg_set_zero(a);
        unsigned char *p = static_cast<unsigned char *>(stg_alloc(a, 16));
        p[500] = 0xFF;
        p[900] = 0xFF;
        fprintf(stdout, "Storage area 0x%08lX: corrupted at 0x%08lX.\n", (unsigned long)a,
                (unsigned long)(p + 500));
        fflush(stdout);
        stg_alloc(a, 16);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    ASSERT_FALSE(r.out.empty());
    EXPECT_EQ(count_of(r.err, "Error: " + r.out), 1u) << r.err;
    EXPECT_EQ(count_of(r.err, "corrupted"), 1u) << r.err;
}

TEST(StgDebugArea, UntracedSubsystemChecksNothing)
{
    child_result r = run_in_child([] {
        setenv("TRACE_VERBOSITY", "5", 1);
        setenv("TRACE_SUBSYS", "rt:ks/stgx:stg", 1);
        stg_area_t a = stg_create_area(1000);
        unsigned char *p = static_cast<unsigned char *>(stg_alloc(a, 16));
        p[20] = 0;
        stg_alloc(a, 16);
        // A plain block: no guard to find damaged.
        p = static_cast<unsigned char *>(stg_malloc(4));
        stg_free(p);
        stg_delete_area(&a);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(r.err.find("(stg)"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("Error"), std::string::npos) << r.err;
}

// ---------------------------------------------------------------- traces

// Runs a fixed life of one area and one heap block at a trace level and
// returns, separately, what was traced and what the addresses were.
struct traced_run {
    std::string err;
    std::string out; // the lines the run should have traced, one per event
};

traced_run trace_run(int level)
{
    child_result r = run_in_child([level] {
        debug_mode(level);
        stg_area_t a = stg_create_area(64);
        void *p = stg_alloc(a, 10);
        stg_chunk *c = a->chunks;
        void *h = stg_malloc(7);
        void *h2 = stg_realloc(h, 9);
        stg_free(h2);
        stg_free(nullptr);
        stg_free_area(a, 0);
        stg_area_t kept = a;
        stg_delete_area(&a);
        // Expected events, each on its own line (the test checks the level).
        printf("4 (stg) Area 0x%08lX: created area.\n", (unsigned long)kept);
        printf("4 (stg) Area 0x%08lX: created chunk 0x%08lX (size 64).\n", (unsigned long)kept,
               (unsigned long)c);
        printf("5 (stg) Area 0x%08lX: allocated 0x%08lX (size 16).\n", (unsigned long)kept,
               (unsigned long)p);
        printf("5 (stg) Heap block 0x%08lX: allocated (size 7).\n", (unsigned long)h);
        printf("5 (stg) Heap block 0x%08lX: reallocated as 0x%08lX: (size 9).\n",
               (unsigned long)h, (unsigned long)h2);
        printf("5 (stg) Heap block 0x%08lX: freeing block.\n", (unsigned long)h2);
        printf("5 (stg) Heap block 0x00000000: freeing block.\n");
        printf("4 (stg) Area 0x%08lX: clearing area.\n", (unsigned long)kept);
        printf("4 (stg) Area 0x%08lX: freeing chunk 0x%08lX.\n", (unsigned long)kept,
               (unsigned long)c);
        printf("4 (stg) Area 0x%08lX: deleting area.\n", (unsigned long)kept);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    return {r.err, r.out};
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> v;
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
        v.push_back(text.substr(start, nl - start + 1));
    return v;
}

TEST(StgTrace, LevelFourShowsAreaLifeOnly)
{
    traced_run run = trace_run(4);
    for (const std::string &line : lines_of(run.out)) {
        std::string text = line.substr(2);
        if (line[0] == '4')
            EXPECT_GE(count_of(run.err, text), 1u) << text << run.err;
        else
            EXPECT_EQ(count_of(run.err, text), 0u) << text << run.err;
    }
    EXPECT_EQ(count_of(run.err, "(stg) Heap block"), 0u) << run.err;
    EXPECT_EQ(count_of(run.err, "allocated 0x"), 0u) << run.err;
    // Trace lines carry the trace prefix.
    EXPECT_EQ(run.err.rfind(">>> ", 0), 0u) << run.err;
}

TEST(StgTrace, LevelFiveShowsEveryAllocation)
{
    traced_run run = trace_run(5);
    for (const std::string &line : lines_of(run.out)) {
        std::string text = line.substr(2);
        EXPECT_GE(count_of(run.err, text), 1u) << text << run.err;
    }
    // Deleting an emptied area traces the clearing once more.
    EXPECT_EQ(count_of(run.err, "clearing area.\n"), 2u) << run.err;
}

// The traced lines of err from "(stg)" on, in the order printed.
std::string stg_lines(const std::string &err)
{
    std::string v;
    for (const std::string &line : lines_of(err)) {
        size_t at = line.find("(stg)");
        if (at != std::string::npos)
            v += line.substr(at);
    }
    return v;
}

TEST(StgTrace, ReleaseAndDeleteTraceInOrder)
{
    child_result r = run_in_child([] {
        debug_mode(4);
        stg_area_t a = stg_create_area(64);
        stg_alloc(a, 40); // a chunk of 64 each: no two fit one
        stg_alloc(a, 40);
        stg_alloc(a, 40);
        stg_chunk *c3 = a->chunks, *c2 = c3->next, *c1 = c2->next;
        stg_free_area(a, 1);
        stg_area_t kept = a;
        stg_delete_area(&a);
        unsigned long k = (unsigned long)kept;
        printf("(stg) Area 0x%08lX: created area.\n", k);
        for (stg_chunk *c : {c1, c2, c3})
            printf("(stg) Area 0x%08lX: created chunk 0x%08lX (size 64).\n", k, (unsigned long)c);
        // Newest first; the first-created chunk stays.
        printf("(stg) Area 0x%08lX: clearing area.\n", k);
        printf("(stg) Area 0x%08lX: freeing chunk 0x%08lX.\n", k, (unsigned long)c3);
        printf("(stg) Area 0x%08lX: freeing chunk 0x%08lX.\n", k, (unsigned long)c2);
        // Deleting announces itself before clearing what is left.
        printf("(stg) Area 0x%08lX: deleting area.\n", k);
        printf("(stg) Area 0x%08lX: clearing area.\n", k);
        printf("(stg) Area 0x%08lX: freeing chunk 0x%08lX.\n", k, (unsigned long)c1);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    ASSERT_FALSE(r.out.empty());
    EXPECT_EQ(stg_lines(r.err), r.out);
}

TEST(StgTrace, LevelThreeShowsNothing)
{
    traced_run run = trace_run(3);
    EXPECT_EQ(run.err.find("(stg)"), std::string::npos) << run.err;
}

TEST(StgTrace, FailedMallocTracesANullBlock)
{
    child_result r = run_in_child([] {
        debug_mode(5);
        return stg_malloc(SIZE_MAX / 2) == nullptr && errno == ENOMEM ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(count_of(r.err, "No more memory available.\n"), 1u) << r.err;
    std::string size = std::to_string(static_cast<unsigned>(SIZE_MAX / 2));
    EXPECT_EQ(count_of(r.err, "(stg) Heap block 0x00000000: allocated (size " + size + ").\n"), 1u)
        << r.err;
    EXPECT_LT(r.err.find("No more memory"), r.err.find("0x00000000: allocated")) << r.err;
}

} // namespace

// Storage areas and the reporting heap wrappers.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <vector>

#include <gtest/gtest.h>

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
using bytes = unsigned char *;

namespace {

std::vector<uint32_t> sizes_oldest_first(stg_area_t area)
{
    std::vector<uint32_t> v;
    for (stg_chunk *c = area->chunks; c; c = c->next)
        v.insert(v.begin(), c->size);
    return v;
}

bool all_bytes(const void *p, size_t len, unsigned char value)
{
    return memcmp(p, std::string(len, static_cast<char>(value)).data(), len) == 0;
}

bool inside(const void *p, const stg_chunk *c) { return p >= c->data && p < c->data + c->size; }
unsigned long ul(const void *p) { return reinterpret_cast<unsigned long>(p); }

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

std::vector<std::string> lines(const std::string &text)
{
    std::vector<std::string> v;
    for (size_t start = 0, nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
        v.push_back(text.substr(start, nl + 1 - start));
    return v;
}

size_t count_of(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

// Level 0: the plain heap, no tracing; else the debugging heap, traces up to level.
void set_mode(int level)
{
    setenv("TRACE_SUBSYS", "ks/stg", 1);
    setenv("TRACE_VERBOSITY", std::to_string(level).c_str(), 1);
}

// Each line the child printed to stdout is on stderr exactly once, as an error.
void expect_reported(const child_result &r, size_t n)
{
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(lines(r.out).size(), n) << r.out;
    EXPECT_EQ(count_of(r.err, "Error: "), n) << r.err;
    for (const std::string &line : lines(r.out))
        EXPECT_EQ(count_of(r.err, "Error: " + line), 1u) << r.err;
}

TEST(StgArea, ChunkSizesFollowIncrementGrowthCapAndSeventyPercentRule)
{
    std::vector<size_t> many(765, 600); // fifteen chunks at growth 1.5,
    many.push_back(101800);             // fills the newest,
    many.push_back(80001);              // above 70% of the capped increment
    struct { // incr 0: not set; desired adds the increments before rounding
        const char *name; uint32_t first, incr; double growth; std::vector<size_t> allocs;
        std::vector<uint32_t> sizes; uint32_t desired, newest_used;
    } cases[] = {
        {"growth to the cap", 1000, 0, 1.5, many, {1000, 1504, 2256, 3384, 5080, 7624, 11440, 17160, 25744,
         38616, 57928, 86896, 102400, 102400, 102400, 102400 + 80008}, 668204, 80008},
        {"growth 1.0 is none", 1000, 0, 1.0, {600, 600}, {1000, 1000}, 2000, 600},
        // 168 is exactly 70% of 240: the increment alone; 169 (176) is more.
        {"increment", 100, 240, 0, {64, 168, 169, 200}, {104, 240, 416}, 480, 376},
        // After stg_set_incr the second chunk is the increment; growth starts with the third.
        {"increment then growth", 96, 200, 2.0, {64, 64, 136, 64}, {96, 200, 400}, 600, 64},
        {"size zero", 0, 0, 0, {13, 3}, {16, 8}, 0, 8},
    };
    set_mode(0);
    for (auto &c : cases) {
        SCOPED_TRACE(c.name);
        stg_area_t a = stg_create_area(c.first);
        if (c.incr)
            stg_set_incr(a, c.incr);
        for (double growth : {c.growth, 1.0, 0.5, -3.0, __builtin_nan("")})
            stg_set_growth(a, growth); // only the first can be taken
        for (size_t n : c.allocs)
            ASSERT_NE(stg_alloc(a, n), nullptr);
        EXPECT_EQ(sizes_oldest_first(a), c.sizes);
        EXPECT_EQ(a->desired, c.desired);
        EXPECT_EQ(a->chunks->used, c.newest_used);
        stg_delete_area(&a);
    }
}

TEST(StgArea, BlocksAreBumpedInEightsAndGoToTheOldestChunkWithRoom)
{
    set_mode(0);
    stg_area_t a = stg_create_area(1000);
    bytes p = static_cast<bytes>(stg_alloc(a, 0)); // makes the first chunk, advances nothing
    EXPECT_TRUE(p == a->chunks->data && ul(p) % 8 == 0);
    EXPECT_EQ(stg_alloc(a, 5), p);
    EXPECT_EQ(stg_alloc(a, 0), p + 8);
    EXPECT_EQ(stg_alloc(a, 9), p + 8);
    EXPECT_EQ(stg_area_strdup(a, nullptr), nullptr);
    EXPECT_STREQ(stg_area_strdup(a, "seventeen chars!!"), "seventeen chars!!");
    EXPECT_EQ(stg_area_strdup(a, ""), reinterpret_cast<char *>(p + 48));
    for (size_t n : {544, 600, 600}) // 600 in each of three chunks
        stg_alloc(a, n);
    stg_chunk *c0 = a->chunks, *c1 = c0->next, *c2 = c1->next; // newest first
    EXPECT_TRUE(inside(stg_alloc(a, 300), c0));
    EXPECT_TRUE(inside(stg_alloc(a, 200), c2)); // not the middle one, which would do too
    EXPECT_TRUE(inside(stg_alloc(a, 200), c2));
    EXPECT_TRUE(inside(stg_alloc(a, 200), c1));
    EXPECT_FALSE(inside(stg_alloc(a, 300), c0)); // fits nowhere: a fourth chunk
    stg_delete_area(&a);
}

// Chunks are filled with ones, or zeros once stg_set_zero is called (memory
// already filled stays as it is).
TEST(StgArea, FreeAreaKeepsTheFirstChunkEmptyAndRefilledOnlyWhenAsked)
{
    set_mode(0);
    for (bool zero_and_incr : {false, true}) {
        SCOPED_TRACE(zero_and_incr);
        unsigned char fill = zero_and_incr ? 0x00 : 0xFF;
        stg_area_t a = stg_create_area(1000);
        bytes first = static_cast<bytes>(stg_alloc(a, 600));
        EXPECT_TRUE(all_bytes(first, 1000, 0xFF));
        if (zero_and_incr)
            stg_set_incr(a, 80), stg_set_zero(a);
        EXPECT_TRUE(all_bytes(stg_alloc(a, 600), 600, fill) && all_bytes(first + 600, 400, 0xFF));
        memset(first, 0x11, stg_alloc(a, 600) ? 600 : 0);
        EXPECT_EQ(stg_free_area(a, 1), 1000u);
        EXPECT_TRUE(a->chunks->data == first && !a->chunks->next && all_bytes(first, 1000, fill));
        EXPECT_EQ(a->allocated, 1000u);
        EXPECT_EQ(a->desired, zero_and_incr ? 0u : 1000u);
        EXPECT_EQ(stg_alloc(a, 8), first); // used went back to 0
        EXPECT_EQ(stg_free_area(a, 0), 0u);
        EXPECT_TRUE(!a->chunks && a->allocated + a->desired == 0);
        EXPECT_EQ(stg_free_area(a, 1), 0u); // nothing to keep
        stg_delete_area(&a);
    }
}

bool enomem(void *p)
{
    bool failed = p == nullptr && errno == ENOMEM;
    errno = 0;
    return failed;
}

// Under the plain heap, the debugging heap and full tracing.
TEST(StgHeap, OutOfMemoryIsReportedAndLeavesBlocksAndAreasAlone)
{
    for (int level : {0, 1, 5}) {
        SCOPED_TRACE(level);
        child_result r = run_in_child([level] {
            set_mode(level);
            char *p = stg_area_strdup(STG_AREA_HEAP, "kept"); // a heap block
            stg_area_t a = stg_create_area(100);
            bytes first = static_cast<bytes>(stg_alloc(a, 8));
            struct rlimit lim = {512u << 20, 512u << 20};
            // Area requests past what 32-bit chunk sizes hold; a chunk whose data cannot be had.
            int step = 0;
            for (bool failed : {enomem(stg_malloc(SIZE_MAX / 2)), enomem(stg_malloc(SIZE_MAX - 3)),
                                enomem(stg_realloc(p, SIZE_MAX / 2)), enomem(stg_alloc(a, SIZE_MAX / 2)),
                                enomem(stg_alloc(a, UINT32_MAX - 6)),
                                KS_UNDER_ASAN || (setrlimit(RLIMIT_AS, &lim) == 0 && enomem(stg_alloc(a, 1u << 30)))})
                if (++step, !failed)
                    return step;
            if (strcmp(p, "kept") != 0 || a->chunks->next || a->allocated != 104 || a->desired != 100 ||
                stg_alloc(a, 8) != first + 8 || stg_free_area(STG_AREA_HEAP, 1) != 0)
                return 7;
            // No area at all: refused without a message.
            if (stg_alloc(STG_AREA_NULL, 8) || errno != EINVAL || stg_free_area(STG_AREA_NULL, 1))
                return 8;
            stg_dump_area(STG_AREA_NULL);
            stg_free(p);
            return 0;
        });
        EXPECT_EQ(r.exit_code(), 0) << r.err;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(count_of(r.err, "Error: No more memory available.\n"), KS_UNDER_ASAN ? 5u : 6u) << r.err;
        std::string traced = fmt("(stg) Heap block 0x00000000: allocated (size %u).\n", (unsigned)(SIZE_MAX / 2));
        EXPECT_EQ(count_of(r.err, traced), level == 5 ? 1u : 0u) << r.err;
        EXPECT_LT(r.err.find("No more memory"), r.err.find(traced)) << r.err; // after the error
    }
}

// Deleting an area from the front, the middle or the end of the list keeps the rest in order.
TEST(StgDump, AreaAndChunkLinesOfEveryAreaOldestFirst)
{
    child_result r = run_in_child([] {
        set_mode(0);
        stg_area_t z = stg_create_area(8), a = stg_create_area(1000), b = stg_create_area(0);
        stg_area_t c = stg_create_area(32), d = stg_create_area(8);
        stg_alloc(z, 8);
        for (stg_area_t *gone : {&z, &b, &d})
            stg_delete_area(gone);
        stg_area_t e = stg_create_area(16);
        if (z || b || d)
            return 1;
        stg_set_growth(a, 1.5);
        stg_set_incr(c, 48);
        for (size_t n : {600, 600, 16})
            stg_alloc(a, n);
        stg_chunk *newer = a->chunks, *older = newer->next;
        fprintf(stderr,
                "(stg) area 0x%08lX: allocd=2504 used=1216 #chks=2 1st=1000 base=1000 des=2500 gf=1.50\n"
                "(stg)   chunk 0x%08lX: size=1504 avail=616 data=0x%08lX prev=0x%08lX\n"
                "(stg)   chunk 0x%08lX: size=1000 avail=600 data=0x%08lX prev=0x00000000\n"
                "(stg) area 0x%08lX: allocd=0 used=0 #chks=0 1st=32 base=48 des=0 gf=0.00\n"
                "(stg) area 0x%08lX: allocd=0 used=0 #chks=0 1st=16 base=16 des=0 gf=0.00\n",
                ul(a), ul(newer), ul(newer->data), ul(older), ul(older), ul(older->data), ul(c), ul(e));
        stg_dump();
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0);
    ASSERT_GE(r.out.size(), r.err.size()) << r.out; // areas of other modules may come first
    EXPECT_EQ(r.out.substr(r.out.size() - r.err.size()), r.err);
}

std::vector<unsigned char> released;

TEST(StgDebugHeap, BlocksCarryHeaderFillAndGuardReportDamageAndAreFreedWithThePattern)
{
    child_result r = run_in_child([] {
        set_mode(1);
        ks::stg_release_hook = [](const void *b, size_t len) { released.assign((bytes)b, (bytes)b + len); };
        auto laid_out = [](bytes p, uint32_t n) { // the size in the header, a 0xAA guard after the block
            return p && ul(p) % 8 == 0 && !memcmp(p - 8, &n, 4) && all_bytes(p + n, ((n + 7) & ~7u) - n + 8, 0xAA);
        };
        bytes p = static_cast<bytes>(stg_malloc(10)), q = static_cast<bytes>(stg_malloc(16));
        if (!laid_out(p, 10) || !all_bytes(p, 10, 0xFF) || !laid_out(q, 16))
            return 1;
        memcpy(p, "0123456789", 10);
        p = static_cast<bytes>(stg_realloc(p, 30)); // growing and shrinking re-guard
        if (!laid_out(p, 30) || memcmp(p, "0123456789", 10) != 0)
            return 2;
        p = static_cast<bytes>(stg_realloc(p, 3));
        if (!laid_out(p, 3) || memcmp(p, "012", 3) != 0 || !laid_out(static_cast<bytes>(stg_realloc(nullptr, 5)), 5))
            return 3;
        stg_free(stg_malloc(21));
        static const unsigned char pattern[8] = {0x00, 0x00, 0xe0, 0xdd, 0xb7, 0xd5, 0xeb, 0x41};
        for (size_t i = 0; i < 24 + 16; i++)
            if (released.size() != 24 + 16 || released[i] != pattern[i % 8])
                return 4;
        p[4] = 'x', p[5] = 'y', q[23] = 0; // the first bad byte, and the guard's last
        printf("Heap block 0x%08lX: end overwritten at 0x%08lX.\n", ul(p), ul(p + 4));
        printf("Heap block 0x%08lX: end overwritten at 0x%08lX.\n", ul(q), ul(q + 23));
        fflush(stdout);
        stg_free(p);
        stg_free(stg_realloc(q, 30)); // the new guard is intact: one report
        return 0;
    });
    expect_reported(r, 2);
}

TEST(StgDebugArea, CorruptionIsReportedOnceWhereTheLevelLooks)
{
    // Offsets from the first block; reported 0: nothing.
    struct { const char *verbosity, *subsys; bool zero; size_t poked[3], reported; } cases[] = {
        {"1", "ks/stg", false, {19, 21, 500}, 19},   // the bytes handed out only
        {"2", "ks/stg", true, {500, 900, 900}, 500}, // the whole free tail
        {"5", "rt:ks/stgx:stg", false, {20, 20, 20}, 0},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.verbosity);
        child_result r = run_in_child([&c] {
            setenv("TRACE_VERBOSITY", c.verbosity, 1);
            setenv("TRACE_SUBSYS", c.subsys, 1);
            stg_area_t a = stg_create_area(1000);
            if (c.zero)
                stg_set_zero(a);
            bytes p = static_cast<bytes>(stg_alloc(a, 16));
            for (size_t at : c.poked)
                p[at] = c.zero ? 0xFF : 0;
            if (c.reported)
                printf("Storage area 0x%08lX: corrupted at 0x%08lX.\n", ul(a), ul(p + c.reported));
            fflush(stdout);
            return stg_alloc(a, 16) == p + 16 ? 0 : 1; // goes ahead regardless
        });
        expect_reported(r, c.reported ? 1 : 0);
        EXPECT_EQ(r.err.find("(stg)"), std::string::npos) << r.err;
    }
}

// One life of an area and a heap block; the child prints each trace line it
// should cause, in order, after the least level that shows it.
TEST(StgTrace, EachEventIsTracedAtItsLevelInOrder)
{
    for (int level : {3, 4, 5}) {
        SCOPED_TRACE(level);
        child_result r = run_in_child([level] {
            set_mode(level);
            auto line = [](int at, const std::string &text) { printf("%d (stg) %s.\n", at, text.c_str()); };
            stg_area_t a = stg_create_area(64), gone = a;
            line(4, fmt("Area 0x%08lX: created area", ul(a)));
            for (int i = 0; i < 3; i++) { // 40 bytes: a chunk of 64 each
                void *p = stg_alloc(a, 40);
                line(4, fmt("Area 0x%08lX: created chunk 0x%08lX (size 64)", ul(a), ul(a->chunks)));
                line(5, fmt("Area 0x%08lX: allocated 0x%08lX (size 40)", ul(a), ul(p)));
            }
            void *h = stg_malloc(7), *h2 = stg_realloc(h, 9);
            stg_free(h2);
            stg_free(nullptr);
            line(5, fmt("Heap block 0x%08lX: allocated (size 7)", ul(h)));
            line(5, fmt("Heap block 0x%08lX: reallocated as 0x%08lX: (size 9)", ul(h), ul(h2)));
            line(5, fmt("Heap block 0x%08lX: freeing block", ul(h2)));
            line(5, "Heap block 0x00000000: freeing block");
            stg_chunk *c3 = a->chunks, *c2 = c3->next, *c1 = c2->next;
            stg_free_area(a, 1); // newest first; the first-created chunk stays
            stg_delete_area(&a); // announces itself before clearing the rest
            const char *freeing = "freeing chunk 0x%08lX";
            struct { const char *what; stg_chunk *c; } rest[] = {{"clearing area", c3}, {freeing, c3},
                {freeing, c2}, {"deleting area", c1}, {"clearing area", c1}, {freeing, c1}};
            for (auto &e : rest)
                line(4, fmt("Area 0x%08lX: ", ul(gone)) + fmt(e.what, ul(e.c)));
            return 0;
        });
        ASSERT_EQ(r.exit_code(), 0) << r.err;
        std::string want, got;
        for (const std::string &line : lines(r.out))
            if (line[0] - '0' <= level)
                want += line.substr(2);
        for (const std::string &line : lines(r.err)) { // at 5 the library's own records show too
            std::string traced = line.substr(std::min(line.find("(stg)"), line.size()));
            if (!traced.empty() && (level < 5 || want.find(traced) != std::string::npos))
                got += traced;
        }
        EXPECT_EQ(got, want);
        EXPECT_EQ(r.err.rfind(">>> ", 0), level == 3 ? std::string::npos : 0u) << r.err; // the trace prefix
    }
}

} // namespace

// Storage areas and the reporting heap wrappers.
// GCC 12 finds uninitialised members in std::regex's automaton when sanitizing: a false alarm.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <regex>
#include <vector>

#include <gtest/gtest.h>

#include "ks/stg.h"
#include "ks_test_util.h"
#include "stg_testing.h"

#if defined(__SANITIZE_ADDRESS__) // the out-of-memory cases ask for absurd sizes on purpose
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }
#define KS_UNDER_ASAN 1
#else
#define KS_UNDER_ASAN 0
#endif

using namespace ks_test;
using bytes = unsigned char *;

namespace {

bool all_bytes(const void *p, size_t len, int value) { return !memcmp(p, std::string(len, char(value)).data(), len); }

// What the dump says of an area: the increments asked for, then size/used
// of each chunk, newest first.
std::string chunks(stg_area_t area)
{
    testing::internal::CaptureStdout();
    stg_dump_area(area);
    std::string text = std::regex_replace(testing::internal::GetCapturedStdout(), std::regex(".*(des=\\d+).*\n"), "$1");
    return std::regex_replace(text, std::regex("\\(stg\\).*size=(\\d+) avail=(\\d+).*\n"), " $1/$2");
}

// Level 0: nothing of "ks/stg" traced, whatever the verbosity (the plain heap);
// else the debugging heap, and traces up to level.
void set_mode(int level)
{
    setenv("TRACE_SUBSYS", level ? "ks/stg" : "rt:ks/stgx:stg", 1);
    setenv("TRACE_VERBOSITY", std::to_string(level ? level : 5).c_str(), 1);
}

// A child's standard error without the program's prefix in each line
// ("program: ", or a trace's ">>> time (program): " cut to ">>> "), nor the
// sanitizer's notes ("==pid==WARNING: ...").
std::string reported(std::string e) { return regex_replace(e, std::regex("==.*\n|(>>> )?.*noname\\)?: "), "$1"); }

TEST(StgArea, ChunkSizesFollowIncrementGrowthCapAndSeventyPercentRule)
{
    std::vector<size_t> many(765, 600); // fifteen chunks at growth 1.5, then one filling the newest
    many.insert(many.end(), {101800, 80001}); // and one above 70% of the capped increment
    // incr 0: not set; des adds the increments before rounding
    struct { uint32_t first, incr; double growth; std::vector<size_t> allocs; const char *dump; } cases[] = {
        {1000, 0, 1.5, many, "des=668204 182408/80008 102400/102400 102400/102000 102400/102000 86896/86400 "
                             "57928/57600 38616/38400 25744/25200 17160/16800 11440/11400 7624/7200 5080/4800 "
                             "3384/3000 2256/1800 1504/1200 1000/600"},
        // 168 is exactly 70% of 240: the increment alone; 169 (176) is more.
        {100, 240, 0, {64, 168, 169, 200}, "des=480 416/376 240/168 104/64"},
        // After stg_set_incr the second chunk is the increment; growth starts with the third.
        {96, 200, 2.0, {64, 64, 136, 64}, "des=600 400/64 200/200 96/64"},
        {0, 0, 0, {13, 3}, "des=0 8/8 16/16"},
    };
    set_mode(0);
    for (auto &c : cases) {
        stg_area_t a = stg_create_area(c.first);
        if (c.incr)
            stg_set_incr(a, c.incr);
        for (double growth : {c.growth, 1.0, 0.5, -3.0, __builtin_nan("")})
            stg_set_growth(a, growth); // only the first can be taken
        for (size_t n : c.allocs)
            ASSERT_NE(stg_alloc(a, n), nullptr);
        EXPECT_EQ(chunks(a), c.dump);
        stg_delete_area(&a);
    }
}

// Chunks are filled with ones, or zeros once stg_set_zero is called (memory
// already filled stays as it is); stg_free_area can keep the first, emptied and filled again.
TEST(StgArea, BlocksGoInEightsToTheOldestChunkWithRoomUntilTheAreaIsFreed)
{
    set_mode(0);
    stg_area_t a = stg_create_area(1000);
    bytes p = static_cast<bytes>(stg_alloc(a, 0)); // makes the first chunk, advances nothing
    EXPECT_TRUE(reinterpret_cast<uintptr_t>(p) % 8 == 0 && all_bytes(p, 1000, 0xFF));
    EXPECT_TRUE(stg_alloc(a, 5) == p && stg_alloc(a, 0) == p + 8 && stg_alloc(a, 9) == p + 8);
    EXPECT_TRUE(!stg_area_strdup(a, nullptr) && !strcmp(stg_area_strdup(a, "seventeen chars!!"), "seventeen chars!!"));
    EXPECT_EQ(stg_alloc(a, 552), p + 48); // the copy took 24: 600 in each of three chunks of 1000
    bytes middle = static_cast<bytes>(stg_alloc(a, 600)), newest = static_cast<bytes>(stg_alloc(a, 600));
    auto in = [](void *q, bytes chunk) { return q >= chunk && q < chunk + 1000; };
    EXPECT_TRUE(in(stg_alloc(a, 300), newest) && in(stg_alloc(a, 200), p)); // not the middle one, which would do too
    EXPECT_TRUE(in(stg_alloc(a, 200), p) && in(stg_alloc(a, 200), middle));
    void *fourth = stg_alloc(a, 300); // fits nowhere
    EXPECT_FALSE(in(fourth, p) || in(fourth, middle) || in(fourth, newest));
    memset(p, 0x11, 600);
    EXPECT_TRUE(stg_free_area(a, 1) == 1000 && chunks(a) == "des=1000 1000/0");
    EXPECT_TRUE(all_bytes(p, 1000, 0xFF) && stg_alloc(a, 8) == p);
    EXPECT_TRUE(stg_free_area(a, 0) == 0 && chunks(a) == "des=0" && stg_free_area(a, 1) == 0);
    p = static_cast<bytes>(stg_alloc(a, 600)); // a first chunk again
    stg_set_incr(a, 80), stg_set_zero(a);
    EXPECT_TRUE(all_bytes(stg_alloc(a, 600), 600, 0) && all_bytes(p + 600, 400, 0xFF));
    EXPECT_TRUE(stg_free_area(a, 1) == 1000 && chunks(a) == "des=0 1000/0" && all_bytes(p, 1000, 0));
    stg_delete_area(&a);
}

// Under the plain heap and the debugging heap.
TEST(StgHeap, OutOfMemoryIsReportedAndLeavesBlocksAndAreasAlone)
{
    for (int level : {0, 1}) {
        child_result r = run_in_child([level] {
            set_mode(level);
            auto enomem = [](void *block) { return !block && errno == ENOMEM && (errno = 0) == 0; };
            char *p = stg_area_strdup(STG_AREA_HEAP, "kept"); // a heap block
            stg_area_t a = stg_create_area(100);
            stg_alloc(a, 8);
            struct rlimit lim = {512u << 20, 512u << 20};
            // Area requests past what 32-bit chunk sizes hold; a chunk whose data cannot be had.
            bool ok = enomem(stg_malloc(SIZE_MAX / 2)) && enomem(stg_malloc(SIZE_MAX - 3)) &&
                      enomem(stg_realloc(p, SIZE_MAX / 2)) && enomem(stg_alloc(a, SIZE_MAX / 2)) &&
                      enomem(stg_alloc(a, UINT32_MAX - 6)) &&
                      (KS_UNDER_ASAN || (setrlimit(RLIMIT_AS, &lim) == 0 && enomem(stg_alloc(a, 1u << 30))));
            // No area at all: refused without a message.
            ok = ok && strcmp(p, "kept") == 0 && chunks(a) == "des=100 104/8" && !stg_free_area(STG_AREA_HEAP, 1) &&
                 !stg_alloc(STG_AREA_NULL, 8) && errno == EINVAL && !stg_free_area(STG_AREA_NULL, 1);
            stg_dump_area(STG_AREA_NULL);
            stg_free(p);
            return ok ? 0 : 1;
        });
        EXPECT_TRUE(r.exit_code() == 0 && r.out.empty()) << r.err;
        std::string e = "Error: No more memory available.\n";
        EXPECT_EQ(reported(r.err), e + e + e + e + e + (KS_UNDER_ASAN ? "" : e));
    }
}

// Deleting an area from the front, the middle or the end of the list keeps the rest in order.
TEST(StgDump, AreaAndChunkLinesOfEveryAreaOldestFirst)
{
    set_mode(0);
    stg_area_t z = stg_create_area(8), a = stg_create_area(1000), b = stg_create_area(0);
    stg_area_t c = stg_create_area(32), d = stg_create_area(8);
    for (stg_area_t *gone : {&z, &b, &d})
        stg_delete_area(gone);
    EXPECT_TRUE(!z && !b && !d);
    stg_area_t e = stg_create_area(16);
    stg_set_growth(a, 1.5);
    stg_set_incr(c, 48);
    void *older = stg_alloc(a, 600), *newer = stg_alloc(a, 600);
    testing::internal::CaptureStdout();
    stg_dump();
    EXPECT_EQ(name_addresses(testing::internal::GetCapturedStdout(),
                             {{a, "A"}, {c, "C"}, {e, "E"}, {older, "D1"}, {newer, "D2"}}),
              "(stg) area A: allocd=2504 used=1200 #chks=2 1st=1000 base=1000 des=2500 gf=1.50\n"
              "(stg)   chunk #1: size=1504 avail=600 data=D2 prev=#2\n"
              "(stg)   chunk #2: size=1000 avail=600 data=D1 prev=0x00000000\n"
              "(stg) area C: allocd=0 used=0 #chks=0 1st=32 base=48 des=0 gf=0.00\n"
              "(stg) area E: allocd=0 used=0 #chks=0 1st=16 base=16 des=0 gf=0.00\n");
}

std::string released;

// A guard of 0xAA bytes follows each block, renewed by stg_realloc: a
// damaged or missing one is reported where it is found.  Areas check only
// the bytes they hand out at this level.
TEST(StgDebug, HeapBlocksAreFilledGuardedAndFreedWithThePatternAreasChecked)
{
    child_result r = run_in_child([] {
        set_mode(1);
        ks::stg_set_release_hook_for_testing(
            [](const void *b, size_t len) { released.assign(static_cast<const char *>(b), len); });
        bytes p = static_cast<bytes>(stg_malloc(10)), q = static_cast<bytes>(stg_malloc(16));
        bool ok = reinterpret_cast<uintptr_t>(p) % 8 == 0 && all_bytes(p, 10, 0xFF);
        memcpy(p, "0123456789", 10);
        p = static_cast<bytes>(stg_realloc(p, 30)); // growing and shrinking keep the bytes
        ok = ok && !memcmp(p, "0123456789", 10) && !memcmp(p = static_cast<bytes>(stg_realloc(p, 3)), "012", 3);
        stg_free(stg_realloc(nullptr, 5));
        stg_free(stg_malloc(21)); // 24 bytes, the header and the guard
        std::string dead("\0\0\xe0\xdd\xb7\xd5\xeb\x41", 8); // the double 3735928559.0
        ok = ok && released == dead + dead + dead + dead + dead;
        p[4] = 'x', p[5] = 'y', q[23] = 0; // the first bad byte, and the guard's last
        stg_area_t a = stg_create_area(1000);
        bytes b = static_cast<bytes>(stg_alloc(a, 16));
        b[19] = b[21] = b[500] = 0; // the next block's first bad byte, and beyond it
        void *legend[] = {p, p + 4, q, q + 23, a, b + 19};
        fprintf(stderr, "%p %p %p %p %p %p\n", legend[0], legend[1], legend[2], legend[3], legend[4], legend[5]);
        stg_free(p);
        stg_free(stg_realloc(q, 30)); // the new guard is intact: one report
        return ok && stg_alloc(a, 16) == b + 16 ? 0 : 1; // reports go ahead regardless
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(reported(name_addresses(r.err)), "#1 #2 #3 #4 #5 #6\nError: Heap block #1: end overwritten at #2.\n"
                                               "Error: Heap block #3: end overwritten at #4.\n"
                                               "Error: Storage area #5: corrupted at #6.\n");
}

// One life of an area and heap blocks, traced at each level; errors at
// every level.  The area's own record and chunks show at level 5 as heap
// blocks: those are left out.
TEST(StgTrace, EachEventIsTracedAtItsLevelInOrder)
{
    for (int level : {2, 3, 4, 5}) {
        child_result r = run_in_child([level] {
            set_mode(level);
            testing::internal::CaptureStderr();
            stg_area_t a = stg_create_area(64), gone = a;
            stg_set_zero(a);
            void *p[4] = {stg_alloc(a, 40), stg_alloc(a, 40), stg_alloc(a, 40)}; // a chunk of 64 each
            void *h = stg_malloc(7), *h2 = stg_realloc(h, 200000); // a new block
            stg_free(h2), stg_free(nullptr);
            stg_malloc(SIZE_MAX / 2); // traced after the error
            bytes x = static_cast<bytes>(p[2]) + 50; // the whole free tail is checked from level 2
            *x = 0xFF, p[3] = stg_alloc(a, 8);
            stg_free_area(a, 1); // newest first; the first-created chunk stays
            stg_delete_area(&a); // announces itself before clearing the rest
            std::string named = name_addresses(testing::internal::GetCapturedStderr(),
                {{gone, "A"}, {p[0], "P1"}, {p[1], "P2"}, {p[2], "P3"}, {p[3], "P4"}, {h, "H"}, {h2, "H2"}, {x, "X"}});
            printf("%s", reported(std::regex_replace(named, std::regex(".*Heap block [AP#].*\n"), "")).c_str());
            return 0;
        });
        std::string want;
        for (const char *line :
             {"4 Area A: created area", "4 Area A: created chunk #1 (size 64)", "5 Area A: allocated P1 (size 40)",
              "4 Area A: created chunk #2 (size 64)", "5 Area A: allocated P2 (size 40)",
              "4 Area A: created chunk #3 (size 64)", "5 Area A: allocated P3 (size 40)",
              "5 Heap block H: allocated (size 7)", "5 Heap block H: reallocated as H2: (size 200000)",
              "5 Heap block H2: freeing block", "5 Heap block 0x00000000: freeing block",
              "0 Error: No more memory available", "5 Heap block 0x00000000: allocated (size 4294967295)",
              "0 Error: Storage area A: corrupted at X", "5 Area A: allocated P4 (size 8)", "4 Area A: clearing area",
              "4 Area A: freeing chunk #3", "4 Area A: freeing chunk #2", "4 Area A: deleting area",
              "4 Area A: clearing area", "4 Area A: freeing chunk #1"})
            if (line[0] - '0' <= level)
                want += std::string(line[0] == '0' ? "" : ">>> (stg) ") + (line + 2) + ".\n";
        EXPECT_EQ(r.out, want) << level << r.err;
    }
}

} // namespace

// Storage areas against the allocators a caller would otherwise use: a batch
// of small blocks (16 to 64 bytes) taken one by one and released together.
// Ours releases with stg_free_area(area, 1), keeping the first chunk as a
// long-lived area would; malloc must free every block singly.
#include <obstack.h>
#include <stdlib.h>

#include <chrono>
#include <vector>

#include <benchmark/benchmark.h>

#include "ks/stg.h"

#ifdef HAVE_APR_1
#include <apr_pools.h>
#endif
#ifdef HAVE_TALLOC
#include <talloc.h>
#endif

#define obstack_chunk_alloc malloc
#define obstack_chunk_free free

namespace {

// Block sizes of a batch: 16 to 64 bytes, spread evenly, fixed.
std::vector<size_t> batch_sizes(size_t n)
{
    std::vector<size_t> sizes(n);
    for (size_t i = 0; i < n; i++)
        sizes[i] = 16 + (i * 7) % 49;
    return sizes;
}

// One chunk holds the whole batch: each block is a pointer bump.
void BM_stg_alloc_ours(benchmark::State &state)
{
    std::vector<size_t> sizes = batch_sizes(state.range(0));
    stg_area_t area = stg_create_area(static_cast<uint32_t>(state.range(1)));
    for (auto _ : state) {
        for (size_t n : sizes)
            benchmark::DoNotOptimize(stg_alloc(area, n));
        stg_free_area(area, 1);
    }
    stg_delete_area(&area);
    state.SetItemsProcessed(state.iterations() * sizes.size());
}
// Second argument: the first chunk's size (48 KiB holds a batch of 1000;
// 4 KiB makes the area create and free chunks on every batch).
BENCHMARK(BM_stg_alloc_ours)->Args({1000, 49152})->Args({1000, 4096})->Args({10000, 65536});

void BM_stg_alloc_malloc(benchmark::State &state)
{
    std::vector<size_t> sizes = batch_sizes(state.range(0));
    std::vector<void *> blocks(sizes.size());
    for (auto _ : state) {
        for (size_t i = 0; i < sizes.size(); i++) {
            blocks[i] = malloc(sizes[i]);
            benchmark::DoNotOptimize(blocks[i]);
        }
        for (void *p : blocks)
            free(p);
    }
    state.SetItemsProcessed(state.iterations() * sizes.size());
}
BENCHMARK(BM_stg_alloc_malloc)->Arg(1000)->Arg(10000);

// Both on the same batch, back to back; the time shown is ours, and
// "ratio" is malloc/free time over ours.
void BM_stg_alloc_vs_malloc(benchmark::State &state)
{
    using clock = std::chrono::steady_clock;
    std::vector<size_t> sizes = batch_sizes(state.range(0));
    std::vector<void *> blocks(sizes.size());
    stg_area_t area = stg_create_area(49152);
    double ours = 0, peer = 0;
    for (auto _ : state) {
        auto t0 = clock::now();
        for (size_t n : sizes)
            benchmark::DoNotOptimize(stg_alloc(area, n));
        stg_free_area(area, 1);
        auto t1 = clock::now();
        for (size_t i = 0; i < sizes.size(); i++) {
            blocks[i] = malloc(sizes[i]);
            benchmark::DoNotOptimize(blocks[i]);
        }
        for (void *p : blocks)
            free(p);
        auto t2 = clock::now();
        double o = std::chrono::duration<double>(t1 - t0).count();
        ours += o;
        peer += std::chrono::duration<double>(t2 - t1).count();
        state.SetIterationTime(o);
    }
    stg_delete_area(&area);
    state.SetItemsProcessed(state.iterations() * sizes.size());
    state.counters["ratio"] = ours > 0 ? peer / ours : 0;
}
BENCHMARK(BM_stg_alloc_vs_malloc)->Arg(1000)->UseManualTime();

void BM_stg_alloc_obstack(benchmark::State &state)
{
    std::vector<size_t> sizes = batch_sizes(state.range(0));
    struct obstack ob;
    obstack_init(&ob);
    obstack_chunk_size(&ob) = 65536;
    void *base = obstack_alloc(&ob, 1);
    for (auto _ : state) {
        for (size_t n : sizes)
            benchmark::DoNotOptimize(obstack_alloc(&ob, n));
        // Back to the first object: later chunks go, the first stays.
        obstack_free(&ob, base);
        base = obstack_alloc(&ob, 1);
    }
    obstack_free(&ob, nullptr);
    state.SetItemsProcessed(state.iterations() * sizes.size());
}
BENCHMARK(BM_stg_alloc_obstack)->Arg(1000)->Arg(10000);

#ifdef HAVE_APR_1
void BM_stg_alloc_apr(benchmark::State &state)
{
    std::vector<size_t> sizes = batch_sizes(state.range(0));
    apr_initialize();
    apr_pool_t *pool;
    apr_pool_create(&pool, nullptr);
    for (auto _ : state) {
        for (size_t n : sizes)
            benchmark::DoNotOptimize(apr_palloc(pool, n));
        apr_pool_clear(pool);
    }
    apr_pool_destroy(pool);
    apr_terminate();
    state.SetItemsProcessed(state.iterations() * sizes.size());
}
BENCHMARK(BM_stg_alloc_apr)->Arg(1000)->Arg(10000);
#endif

#ifdef HAVE_TALLOC
void BM_stg_alloc_talloc(benchmark::State &state)
{
    std::vector<size_t> sizes = batch_sizes(state.range(0));
    void *ctx = talloc_new(nullptr);
    for (auto _ : state) {
        for (size_t n : sizes)
            benchmark::DoNotOptimize(talloc_size(ctx, n));
        talloc_free_children(ctx);
    }
    talloc_free(ctx);
    state.SetItemsProcessed(state.iterations() * sizes.size());
}
BENCHMARK(BM_stg_alloc_talloc)->Arg(1000)->Arg(10000);
#endif

} // namespace

// The message layer's formatter into memory against the C library's.
//
// imsg_snprintf of the storage module's chunk line (five conversions, looked
// up in the open catalogue "ks_lib") against snprintf of the same format.
// The catalogue is found next to the build's bench directory (nls/ks_lib.cat)
// unless NLSPATH is set already.
#include <benchmark/benchmark.h>

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "ks/imsg.h"

namespace {

// Index 12 of the stg table: "(stg)   chunk 0x%08lX: size=%lu avail=%lu data=0x%08lX prev=0x%08lX\n".
const int chunk_line = 12;
const int batch = 1000;

void find_catalogue()
{
    if (getenv("NLSPATH"))
        return;
    char exe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0)
        return;
    exe[n] = '\0';
    std::string dir(exe);
    dir = dir.substr(0, dir.rfind('/')); // .../bench
    dir = dir.substr(0, dir.rfind('/')); // the build directory
    setenv("NLSPATH", (dir + "/nls/%N.cat").c_str(), 1);
}

// Opens the catalogue once; 1 when the text came from it.
int warm_up()
{
    find_catalogue();
    const char *text = cat_extractmsg(&_stg_ks_msg_table, chunk_line);
    return text != _stg_ks_msg_table.texts[chunk_line] ? 1 : 0;
}

double now_ns()
{
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts); // CPU time: the machine is shared
    return ts.tv_sec * 1e9 + ts.tv_nsec;
}

int ours(char *buf, size_t size, unsigned long i)
{
    return imsg_snprintf(buf, size, &_stg_ks_msg_table, chunk_line, 0x1000UL + i, 4096UL + i, 1024UL, 0x2000UL + i,
                         0x3000UL);
}

int peer(char *buf, size_t size, const char *fmt, unsigned long i)
{
    return snprintf(buf, size, fmt, 0x1000UL + i, 4096UL + i, 1024UL, 0x2000UL + i, 0x3000UL);
}

void BM_imsg_snprintf_ours(benchmark::State &state)
{
    int cat = warm_up();
    char buf[256];
    unsigned long i = 0;
    for (auto _ : state) {
        for (int k = 0; k < batch; k++)
            benchmark::DoNotOptimize(ours(buf, sizeof buf, i++));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * batch);
    state.counters["catalogue"] = cat;
}
BENCHMARK(BM_imsg_snprintf_ours);

void BM_imsg_snprintf_peer(benchmark::State &state)
{
    warm_up();
    const char *fmt = _stg_ks_msg_table.texts[chunk_line];
    char buf[256];
    unsigned long i = 0;
    for (auto _ : state) {
        for (int k = 0; k < batch; k++)
            benchmark::DoNotOptimize(peer(buf, sizeof buf, fmt, i++));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_imsg_snprintf_peer);

// Both on alternating batches; ratio = time of snprintf / time of imsg_snprintf.
void BM_imsg_snprintf_ratio(benchmark::State &state)
{
    int cat = warm_up();
    const char *fmt = _stg_ks_msg_table.texts[chunk_line];
    char buf[256];
    unsigned long i = 0;
    double t_ours = 0, t_peer = 0;
    for (auto _ : state) {
        double t0 = now_ns();
        for (int k = 0; k < batch; k++)
            benchmark::DoNotOptimize(ours(buf, sizeof buf, i++));
        double t1 = now_ns();
        for (int k = 0; k < batch; k++)
            benchmark::DoNotOptimize(peer(buf, sizeof buf, fmt, i++));
        double t2 = now_ns();
        t_ours += t1 - t0;
        t_peer += t2 - t1;
    }
    double n = static_cast<double>(state.iterations()) * batch;
    state.counters["ours_ns"] = t_ours / n;
    state.counters["peer_ns"] = t_peer / n;
    state.counters["ratio"] = t_ours > 0 ? t_peer / t_ours : 0;
    state.counters["catalogue"] = cat;
}
BENCHMARK(BM_imsg_snprintf_ratio);

} // namespace

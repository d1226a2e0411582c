// Whole files and trees: the stored checksum against a plain byte-at-a-time
// table loop of the same rule, zlib's crc32 and libdeflate's (both a linear
// CRC-32, so only a measure of distance); fileutl_cp of 10,000 small files
// against a spawned `cp -a`, fileutl_rm against a spawned `rm -rf`.  Each
// benchmark times both sides on the same input; counters are peer time
// divided by ours.

#include "ks/fileutl.h"

#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#ifdef HAVE_ZLIB
#include <zlib.h>
#endif
#ifdef HAVE_LIBDEFLATE
#include <libdeflate.h>
#endif

extern char **environ;

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t0)
{
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

// The rule one byte at a time, as a caller without the library would write it.
struct plain_loop {
    uint32_t table[256];
    plain_loop()
    {
        for (uint32_t i = 0; i < 256; i++) {
            uint32_t c = i;
            for (int k = 0; k < 8; k++)
                c = (c & 1) ? 0xEDB88320U ^ (c >> 1) : c >> 1;
            table[i] = c;
        }
        table[0] = 0x7FFFFFFF;
    }
    uint32_t operator()(const unsigned char *p, size_t n) const
    {
        uint32_t v = 0, counter = 0;
        for (size_t i = 0; i < n; i++) {
            uint32_t idx = (v >> 24) ^ p[i];
            if (idx == 0)
                idx = counter, counter = (counter + 1) & 0xFF;
            v = (v << 8) ^ table[idx];
        }
        return v;
    }
};

template <typename F> double timed(size_t reps, F f)
{
    auto t0 = clock_type::now();
    for (size_t i = 0; i < reps; i++)
        benchmark::DoNotOptimize(f());
    return seconds_since(t0);
}

void BM_fileutl_crc(benchmark::State &state)
{
    size_t n = static_cast<size_t>(state.range(0));
    std::vector<unsigned char> data(n);
    std::mt19937 rng(7);
    for (auto &b : data)
        b = static_cast<unsigned char>(rng());
    size_t reps = std::max<size_t>(1, 65536 / n);
    static const plain_loop loop;
    double ours = 0, plain = 0, zl = 0, ld = 0;
    for (auto _ : state) {
        ours += timed(reps, [&] {
            uint32_t crc;
            fileutl_crc_buffer(data.data(), n, &crc);
            return crc;
        });
        plain += timed(reps, [&] { return loop(data.data(), n); });
#ifdef HAVE_ZLIB
        zl += timed(reps, [&] { return crc32(0, data.data(), static_cast<uInt>(n)); });
#endif
#ifdef HAVE_LIBDEFLATE
        ld += timed(reps, [&] { return libdeflate_crc32(0, data.data(), n); });
#endif
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * reps * n));
    state.counters["loop"] = plain / ours;
    state.counters["zlib"] = zl / ours;
    state.counters["libdeflate"] = ld / ours;
}
BENCHMARK(BM_fileutl_crc)->RangeMultiplier(16)->Range(16, 1 << 20);

// The spawned peer, waited for.
void spawn(std::vector<const char *> argv)
{
    argv.push_back(nullptr);
    pid_t pid;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, const_cast<char **>(argv.data()), environ) == 0)
        waitpid(pid, nullptr, 0);
}

// 100 directories of 100 files of 100 to 400 bytes, made once, on a tmpfs
// where there is one, so that the disk's own noise does not drown the
// difference between the two sides.
const std::string &small_tree()
{
    static std::string root;
    if (!root.empty())
        return root;
    struct stat st;
    std::string tmpl = stat("/dev/shm", &st) == 0 ? "/dev/shm/ks_bench.XXXXXX" : "/tmp/ks_bench.XXXXXX";
    root = mkdtemp(&tmpl[0]);
    std::string src = root + "/src";
    mkdir(src.c_str(), 0755);
    std::string body(400, 'x');
    for (int d = 0; d < 100; d++) {
        std::string dir = src + "/d" + std::to_string(d);
        mkdir(dir.c_str(), 0755);
        for (int f = 0; f < 100; f++) {
            FILE *fp = fopen((dir + "/f" + std::to_string(f)).c_str(), "w");
            fwrite(body.data(), 1, 100 + static_cast<size_t>((d * 100 + f) % 300), fp);
            fclose(fp);
        }
    }
    atexit([] { spawn({"rm", "-rf", root.c_str()}); });
    return root;
}

void BM_fileutl_cp_tree(benchmark::State &state)
{
    const std::string &root = small_tree();
    std::string src = root + "/src", a = root + "/a", b = root + "/b";
    double ours = 0, peer = 0;
    bool ours_first = true;
    for (auto _ : state) {
        for (int side = 0; side < 2; side++) { // the order alternates
            auto t0 = clock_type::now();
            if ((side == 0) == ours_first) {
                fileutl_cp(src.c_str(), a.c_str(), FILEUTL_WALK_DESCEND);
                ours += seconds_since(t0);
            } else {
                spawn({"cp", "-a", src.c_str(), b.c_str()});
                peer += seconds_since(t0);
            }
        }
        ours_first = !ours_first;
        state.PauseTiming();
        spawn({"rm", "-rf", a.c_str(), b.c_str()});
        state.ResumeTiming();
    }
    state.counters["cp_a"] = peer / ours;
}
BENCHMARK(BM_fileutl_cp_tree)->Unit(benchmark::kMillisecond)->Iterations(10);

void BM_fileutl_rm_tree(benchmark::State &state)
{
    const std::string &root = small_tree();
    std::string src = root + "/src", a = root + "/a", b = root + "/b";
    double ours = 0, peer = 0;
    bool ours_first = true;
    for (auto _ : state) {
        state.PauseTiming();
        spawn({"cp", "-a", src.c_str(), a.c_str()});
        spawn({"cp", "-a", src.c_str(), b.c_str()});
        state.ResumeTiming();
        for (int side = 0; side < 2; side++) {
            auto t0 = clock_type::now();
            if ((side == 0) == ours_first) {
                fileutl_rm(a.c_str(), FILEUTL_WALK_DESCEND);
                ours += seconds_since(t0);
            } else {
                spawn({"rm", "-rf", b.c_str()});
                peer += seconds_since(t0);
            }
        }
        ours_first = !ours_first;
    }
    state.counters["rm_rf"] = peer / ours;
}
BENCHMARK(BM_fileutl_rm_tree)->Unit(benchmark::kMillisecond)->Iterations(10);

} // namespace

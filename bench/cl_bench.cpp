// Splitting a 200-word command line: the option scanner's line splitter and
// the parser's command-string splitter against a plain whitespace split with
// strtok_r (copy of the line, pointers collected into an array).  Each
// benchmark times both on the same batches and reports ratio = t_peer / t_ours.
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "ks/cl.h"
#include "ks/clp.h"
#include "ks/stg.h"

namespace {

constexpr int kBatch = 1000;

std::string make_line(int nwords)
{
    static const char *const flags[] = {"-v", "-c", "--all", "-o", "-force", "-x"};
    std::mt19937 rng(42);
    std::string line = "ktool";
    for (int i = 1; i < nwords; i++) {
        line += ' ';
        if (rng() % 4 == 0) {
            line += flags[rng() % 6];
        } else {
            size_t len = 3 + rng() % 10;
            for (size_t k = 0; k < len; k++)
                line += (char)('a' + rng() % 26);
            if (rng() % 3 == 0)
                line += "/file.txt";
        }
    }
    return line;
}

// The peer: what a program would write without the library.
size_t peer_split(const std::string &line, std::vector<char *> &out)
{
    char *copy = strdup(line.c_str());
    out.clear();
    char *save = nullptr;
    for (char *t = strtok_r(copy, " \t\n", &save); t; t = strtok_r(nullptr, " \t\n", &save))
        out.push_back(t);
    size_t n = out.size();
    free(copy);
    return n;
}

template <typename Fn>
double time_batch(Fn &&fn)
{
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < kBatch; i++)
        fn();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

void BM_cl_parse_line(benchmark::State &state)
{
    std::string line = make_line((int)state.range(0));
    std::vector<char *> peer;
    peer.reserve(1024);
    double t_ours = 0, t_peer = 0;
    for (auto _ : state) {
        t_ours += time_batch([&] {
            int err;
            cl_handle_t *h = cl_parse_line(line.c_str(), &err);
            benchmark::DoNotOptimize(h);
            cl_destroy(&h);
        });
        t_peer += time_batch([&] { benchmark::DoNotOptimize(peer_split(line, peer)); });
    }
    state.counters["ratio"] = t_peer / t_ours;
    state.counters["ns_ours"] = 1e9 * t_ours / ((double)state.iterations() * kBatch);
    state.counters["ns_peer"] = 1e9 * t_peer / ((double)state.iterations() * kBatch);
}
BENCHMARK(BM_cl_parse_line)->Arg(200);

void BM_clp_parse_string(benchmark::State &state)
{
    std::string line = make_line((int)state.range(0));
    std::vector<char *> peer;
    peer.reserve(1024);
    stg_area_t area = stg_create_area(8 * 1024);
    double t_ours = 0, t_peer = 0;
    for (auto _ : state) {
        t_ours += time_batch([&] {
            int argc;
            char **argv;
            clp_parse_string(line.c_str(), area, &argc, &argv);
            benchmark::DoNotOptimize(argv);
            stg_free_area(area, 1);
        });
        t_peer += time_batch([&] { benchmark::DoNotOptimize(peer_split(line, peer)); });
    }
    stg_delete_area(&area);
    state.counters["ratio"] = t_peer / t_ours;
    state.counters["ns_ours"] = 1e9 * t_ours / ((double)state.iterations() * kBatch);
    state.counters["ns_peer"] = 1e9 * t_peer / ((double)state.iterations() * kBatch);
}
BENCHMARK(BM_clp_parse_string)->Arg(200);

} // namespace

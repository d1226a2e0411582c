// Wildcard matching against glibc's fnmatch (and apr_fnmatch when APR is
// there): common patterns over a thousand names of a source tree, and the
// adversarial family (a*)^k b against a^100 for k = 2..8.  Ours is timed on
// the compiled form (compiling is done once, as a caller keeps it); the
// peers take the pattern text.  counters["ratio_fnmatch"] and
// counters["ratio_apr"] are the peer's time over ours.

#include "ks/wild.h"

#include <fnmatch.h>

#include <chrono>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#ifdef HAVE_APR_1
#include <apr_fnmatch.h>
#endif

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t0)
{
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

// A thousand relative paths of a source tree, fixed by the seed.
const std::vector<std::string> &tree_paths()
{
    static std::vector<std::string> paths;
    if (!paths.empty())
        return paths;
    const char *dirs[] = {"lib/ks", "include/ks", "tests", "bench", "examples/kstool", "doc", "scripts"};
    const char *stems[] = {"stg_area", "strutl_utf", "hash", "imsg_print", "date_iso", "wild_match",
                           "credutl", "fileutl", "clp_history", "CMakeLists", "README", "pfm",
                           "list", "sysutl", "ks_product", "compress_utl"};
    const char *exts[] = {".cpp", ".h", ".c", ".txt", ".msg", ".md", ".o", "_test.cpp"};
    std::mt19937 rng(13);
    for (int i = 0; i < 1000; i++) {
        std::string stem = stems[rng() % 16];
        if (rng() % 3 == 0)
            stem += std::to_string(rng() % 100);
        paths.push_back(std::string(dirs[rng() % 7]) + "/" + stem + exts[rng() % 8]);
    }
    return paths;
}

const std::vector<std::string> &base_names()
{
    static std::vector<std::string> names;
    if (names.empty())
        for (const std::string &p : tree_paths())
            names.push_back(p.substr(p.rfind('/') + 1));
    return names;
}

struct pattern_case {
    const char *pattern;
    bool pathname;
};

const pattern_case kCommon[] = {
    {"*.cpp", false},        {"*_test*", false},        {"stg*", false},
    {"?trutl_*.c*", false},  {"[a-m]*.h", false},       {"CMakeLists.txt", false},
    {"*a*e*i*", false},      {"lib/*/*.cpp", true},     {"*/ks/[c-h]*.h", true},
};

// Times ours, fnmatch and apr_fnmatch over the same names, one after the
// other in each iteration; counts the matches to check that all agree.
void time_all(benchmark::State &state, const char *pattern, bool pathname,
              const std::vector<std::string> &names, int repeat)
{
    char compiled[1024];
    if (wild_compile_pattern(pattern, sizeof compiled, compiled, nullptr) < 0) {
        state.SkipWithError("pattern does not compile");
        return;
    }
    double t_ours = 0, t_fn = 0, t_apr = 0;
    long n_ours = 0, n_fn = 0, n_apr = 0;
    for (auto _ : state) {
        auto t0 = clock_type::now();
        for (int r = 0; r < repeat; r++)
            for (const std::string &n : names)
                n_ours += wild_match(compiled, n.c_str(), pathname);
        t_ours += seconds_since(t0);

        t0 = clock_type::now();
        for (int r = 0; r < repeat; r++)
            for (const std::string &n : names)
                n_fn += fnmatch(pattern, n.c_str(), pathname ? FNM_PATHNAME : 0) == 0;
        t_fn += seconds_since(t0);

#ifdef HAVE_APR_1
        t0 = clock_type::now();
        for (int r = 0; r < repeat; r++)
            for (const std::string &n : names)
                n_apr += apr_fnmatch(pattern, n.c_str(), pathname ? APR_FNM_PATHNAME : 0) == APR_SUCCESS;
        t_apr += seconds_since(t0);
#endif
    }
    benchmark::DoNotOptimize(n_ours + n_fn + n_apr);
    if (n_ours != n_fn)
        state.SkipWithError("fnmatch and wild_match disagree");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * names.size() * repeat));
    state.counters["ns_ours"] = 1e9 * t_ours / (static_cast<double>(state.iterations()) * names.size() * repeat);
    state.counters["ratio_fnmatch"] = t_ours > 0 ? t_fn / t_ours : 0;
#ifdef HAVE_APR_1
    state.counters["ratio_apr"] = t_ours > 0 ? t_apr / t_ours : 0;
#endif
}

void BM_wild_common(benchmark::State &state)
{
    const pattern_case &c = kCommon[state.range(0)];
    state.SetLabel(c.pattern);
    time_all(state, c.pattern, c.pathname, c.pathname ? tree_paths() : base_names(), 1);
}
BENCHMARK(BM_wild_common)->DenseRange(0, sizeof kCommon / sizeof kCommon[0] - 1);

// (a*)^k b against a^100: no match, the worst case of a backtracking search.
void BM_wild_adversarial(benchmark::State &state)
{
    std::string pattern;
    for (int64_t i = 0; i < state.range(0); i++)
        pattern += "a*";
    pattern += "b";
    state.SetLabel(pattern);
    time_all(state, pattern.c_str(), false, {std::string(100, 'a')}, 100);
}
BENCHMARK(BM_wild_adversarial)->DenseRange(2, 8);

} // namespace

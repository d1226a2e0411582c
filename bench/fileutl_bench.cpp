// Pathname routines against std::filesystem's lexical operations, over
// 100,000 real paths collected from /usr: removing dots against
// lexically_normal, the absolute form against operator/ and lexically_normal,
// the relative form against lexically_relative.  The library works in caller
// buffers; the peer builds path objects (made before timing, to its favour).
// Each benchmark times both sides on the same input and reports
// counters["ratio"] = t_peer / t_ours.

#include "ks/fileutl.h"

#include <ftw.h>
#include <string.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

namespace fs = std::filesystem;
using clock_type = std::chrono::steady_clock;

constexpr size_t kPaths = 100000;
constexpr const char *kBase = "/usr/share";

double seconds_since(clock_type::time_point t0)
{
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

std::vector<std::string> *collected;

int collect(const char *path, const struct stat *, int, struct FTW *)
{
    if (strlen(path) < KS_PATH_BUF)
        collected->emplace_back(path);
    return collected->size() >= kPaths ? 1 : 0;
}

// 100,000 names under /usr (repeated when /usr holds fewer).
const std::vector<std::string> &usr_paths()
{
    static std::vector<std::string> paths;
    if (paths.empty()) {
        collected = &paths;
        nftw("/usr", collect, 32, FTW_PHYS);
        for (size_t i = 0; !paths.empty() && paths.size() < kPaths; i++)
            paths.push_back(paths[i]);
    }
    return paths;
}

// Each path with "." and "name/.." put in before its leaf:
// /usr/lib/x becomes /usr/lib/./d/../x.
std::vector<std::string> dotted_paths()
{
    std::vector<std::string> out;
    for (const std::string &p : usr_paths()) {
        size_t slash = p.rfind('/');
        out.push_back(p.substr(0, slash) + "/./d/.." + p.substr(slash));
    }
    return out;
}

// Each path relative to kBase, as lexically_relative gives it.
std::vector<std::string> relative_paths()
{
    std::vector<std::string> out;
    for (const std::string &p : usr_paths())
        out.push_back(fs::path(p).lexically_relative(kBase).string());
    return out;
}

std::vector<fs::path> as_paths(const std::vector<std::string> &names)
{
    return std::vector<fs::path>(names.begin(), names.end());
}

template <typename Ours, typename Peer>
void compare(benchmark::State &state, Ours ours, Peer peer)
{
    double t_ours = 0, t_peer = 0;
    for (auto _ : state) {
        auto t0 = clock_type::now();
        ours();
        t_ours += seconds_since(t0);
        t0 = clock_type::now();
        peer();
        t_peer += seconds_since(t0);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kPaths));
    state.counters["ratio"] = t_ours > 0 ? t_peer / t_ours : 0;
}

void BM_fileutl_remove_embedded_dots(benchmark::State &state)
{
    const std::vector<std::string> names = dotted_paths();
    const std::vector<fs::path> paths = as_paths(names);
    char out[KS_PATH_BUF];
    compare(
        state,
        [&] {
            for (const std::string &n : names)
                benchmark::DoNotOptimize(fileutl_remove_embedded_dots(n.c_str(), out, sizeof out));
        },
        [&] {
            for (const fs::path &p : paths)
                benchmark::DoNotOptimize(p.lexically_normal());
        });
}
BENCHMARK(BM_fileutl_remove_embedded_dots);

void BM_fileutl_make_abs_pn(benchmark::State &state)
{
    const std::vector<std::string> names = relative_paths();
    const std::vector<fs::path> paths = as_paths(names);
    const fs::path base(kBase);
    char out[KS_PATH_BUF];
    compare(
        state,
        [&] {
            for (const std::string &n : names)
                benchmark::DoNotOptimize(fileutl_make_abs_pn(out, sizeof out, n.c_str(), kBase));
        },
        [&] {
            for (const fs::path &p : paths)
                benchmark::DoNotOptimize((base / p).lexically_normal());
        });
}
BENCHMARK(BM_fileutl_make_abs_pn);

void BM_fileutl_make_rel_pn(benchmark::State &state)
{
    const std::vector<std::string> &names = usr_paths();
    const std::vector<fs::path> paths = as_paths(names);
    const fs::path base(kBase);
    char out[KS_PATH_BUF];
    compare(
        state,
        [&] {
            for (const std::string &n : names)
                benchmark::DoNotOptimize(fileutl_make_rel_pn(out, sizeof out, n.c_str(), kBase, 1, 0, 8));
        },
        [&] {
            for (const fs::path &p : paths)
                benchmark::DoNotOptimize(p.lexically_relative(base));
        });
}
BENCHMARK(BM_fileutl_make_rel_pn);

} // namespace

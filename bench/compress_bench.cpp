// The block compressor against zlib at level 1 (compress2/uncompress) and
// LZ4 (LZ4_compress_default/LZ4_decompress_safe), file by file over two
// corpora: the licence texts in /usr/share/common-licenses and the library's
// own sources (lib/ks and include/ks, found from the working directory, the
// top of the tree under scripts/bench).  Each benchmark times every side on
// the same files and reports ratios peer time / our time ("zlib", "lz4"),
// MB/s of each side, and compressed size / original size of each side.

#include "ks/compress_utl.h"
#include "ks/stg.h"

#include <dirent.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#ifdef HAVE_ZLIB
#include <zlib.h>
#endif
#ifdef HAVE_LIBLZ4
#include <lz4.h>
#endif

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t0)
{
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

void add_dir(std::vector<std::string> &files, const std::string &dir, const char *suffix)
{
    DIR *d = opendir(dir.c_str());
    if (!d)
        return;
    std::vector<std::string> names;
    while (struct dirent *e = readdir(d)) {
        std::string name = e->d_name;
        if (name[0] == '.')
            continue;
        if (suffix && (name.size() < strlen(suffix) ||
                       name.compare(name.size() - strlen(suffix), std::string::npos, suffix) != 0))
            continue;
        names.push_back(name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string &n : names) {
        std::ifstream f(dir + "/" + n, std::ios::binary);
        std::stringstream ss;
        ss << f.rdbuf();
        if (!ss.str().empty())
            files.push_back(ss.str());
    }
}

const std::vector<std::string> &corpus(int which)
{
    static std::vector<std::string> sets[2];
    std::vector<std::string> &files = sets[which];
    if (files.empty()) {
        if (which == 0) {
            add_dir(files, "/usr/share/common-licenses", nullptr);
        } else {
            add_dir(files, "lib/ks", ".cpp");
            add_dir(files, "include/ks", ".h");
        }
    }
    return files;
}

struct side {
    double seconds = 0;
    size_t packed = 0;
};

void report(benchmark::State &state, size_t total, const side &ours, const side &zlib,
            const side &lz4)
{
    auto iters = static_cast<double>(state.iterations());
    double bytes = static_cast<double>(total) * iters;
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["MBps"] = ours.seconds > 0 ? bytes / ours.seconds / 1e6 : 0;
    state.counters["size"] = static_cast<double>(ours.packed) / static_cast<double>(total);
    if (zlib.seconds > 0) {
        state.counters["zlib"] = zlib.seconds / ours.seconds;
        state.counters["MBps_zlib"] = bytes / zlib.seconds / 1e6;
        state.counters["size_zlib"] = static_cast<double>(zlib.packed) / static_cast<double>(total);
    }
    if (lz4.seconds > 0) {
        state.counters["lz4"] = lz4.seconds / ours.seconds;
        state.counters["MBps_lz4"] = bytes / lz4.seconds / 1e6;
        state.counters["size_lz4"] = static_cast<double>(lz4.packed) / static_cast<double>(total);
    }
}

void BM_compress_compress(benchmark::State &state)
{
    const std::vector<std::string> &files = corpus(static_cast<int>(state.range(0)));
    size_t total = 0;
    for (const std::string &f : files)
        total += f.size();
    std::vector<unsigned char> buf(total * 2 + 1024);
    side ours, zlib, lz4;
    for (auto _ : state) {
        ours.packed = zlib.packed = lz4.packed = 0;
        auto t0 = clock_type::now();
        for (const std::string &f : files) {
            uint32_t n = 0;
            void *c = compress_compress(static_cast<uint32_t>(f.size()), f.data(), &n);
            benchmark::DoNotOptimize(c);
            ours.packed += n;
            stg_free(c);
        }
        ours.seconds += seconds_since(t0);
#ifdef HAVE_ZLIB
        t0 = clock_type::now();
        for (const std::string &f : files) {
            uLongf n = buf.size();
            compress2(buf.data(), &n, reinterpret_cast<const Bytef *>(f.data()), f.size(), 1);
            benchmark::ClobberMemory();
            zlib.packed += n;
        }
        zlib.seconds += seconds_since(t0);
#endif
#ifdef HAVE_LIBLZ4
        t0 = clock_type::now();
        for (const std::string &f : files) {
            int n = LZ4_compress_default(f.data(), reinterpret_cast<char *>(buf.data()),
                                         static_cast<int>(f.size()), static_cast<int>(buf.size()));
            benchmark::ClobberMemory();
            lz4.packed += static_cast<size_t>(n);
        }
        lz4.seconds += seconds_since(t0);
#endif
    }
    report(state, total, ours, zlib, lz4);
}
BENCHMARK(BM_compress_compress)->Arg(0)->Arg(1)->ArgName("corpus");

void BM_compress_uncompress(benchmark::State &state)
{
    const std::vector<std::string> &files = corpus(static_cast<int>(state.range(0)));
    size_t total = 0;
    std::vector<std::string> ours_in, zlib_in, lz4_in;
    std::vector<unsigned char> buf;
    for (const std::string &f : files) {
        total += f.size();
        buf.resize(f.size() * 2 + 1024);
        uint32_t n = 0;
        void *c = compress_compress(static_cast<uint32_t>(f.size()), f.data(), &n);
        ours_in.emplace_back(static_cast<const char *>(c), n);
        stg_free(c);
#ifdef HAVE_ZLIB
        uLongf zn = buf.size();
        compress2(buf.data(), &zn, reinterpret_cast<const Bytef *>(f.data()), f.size(), 1);
        zlib_in.emplace_back(reinterpret_cast<const char *>(buf.data()), zn);
#endif
#ifdef HAVE_LIBLZ4
        int ln = LZ4_compress_default(f.data(), reinterpret_cast<char *>(buf.data()),
                                      static_cast<int>(f.size()), static_cast<int>(buf.size()));
        lz4_in.emplace_back(reinterpret_cast<const char *>(buf.data()), static_cast<size_t>(ln));
#endif
    }
    side ours, zlib, lz4;
    for (const std::string &s : ours_in)
        ours.packed += s.size();
    for (const std::string &s : zlib_in)
        zlib.packed += s.size();
    for (const std::string &s : lz4_in)
        lz4.packed += s.size();
    for (auto _ : state) {
        auto t0 = clock_type::now();
        for (const std::string &s : ours_in) {
            uint32_t n = 0;
            void *d = compress_uncompress(static_cast<uint32_t>(s.size()), s.data(), &n);
            benchmark::DoNotOptimize(d);
            stg_free(d);
        }
        ours.seconds += seconds_since(t0);
#ifdef HAVE_ZLIB
        t0 = clock_type::now();
        for (size_t i = 0; i < zlib_in.size(); i++) {
            // Inflate into a block of its own, as the others do.
            uLongf n = files[i].size();
            auto *out = static_cast<Bytef *>(malloc(n));
            uncompress(out, &n, reinterpret_cast<const Bytef *>(zlib_in[i].data()),
                       zlib_in[i].size());
            benchmark::DoNotOptimize(out);
            free(out);
        }
        zlib.seconds += seconds_since(t0);
#endif
#ifdef HAVE_LIBLZ4
        t0 = clock_type::now();
        for (size_t i = 0; i < lz4_in.size(); i++) {
            auto *out = static_cast<char *>(malloc(files[i].size()));
            int n = LZ4_decompress_safe(lz4_in[i].data(), out, static_cast<int>(lz4_in[i].size()),
                                        static_cast<int>(files[i].size()));
            benchmark::DoNotOptimize(n);
            free(out);
        }
        lz4.seconds += seconds_since(t0);
#endif
    }
    report(state, total, ours, zlib, lz4);
}
BENCHMARK(BM_compress_uncompress)->Arg(0)->Arg(1)->ArgName("corpus");

} // namespace

// String utilities against their nearest standard counterparts: UTF-8 <->
// UTF-16 against iconv on 1 MiB of mixed text, the string hash against a
// plain rotate loop, strutl_concat against snprintf("%s%s%s").  Each
// benchmark times both sides on the same input and reports
// counters["ratio"] = t_peer / t_ours.

#include "ks/strutl.h"

#include <iconv.h>
#include <stdio.h>
#include <string.h>

#include <chrono>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t0)
{
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

void append_utf8(std::string &s, uint32_t cp)
{
    if (cp < 0x80) {
        s += static_cast<char>(cp);
    } else if (cp < 0x800) {
        s += static_cast<char>(0xC0 | (cp >> 6));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        s += static_cast<char>(0xE0 | (cp >> 12));
        s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        s += static_cast<char>(0xF0 | (cp >> 18));
        s += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// 1 MiB of mixed text: English prose (a licence text when present) with
// words of accented Latin, Greek, Japanese and emoji spliced in.
const std::string &mixed_text()
{
    static std::string text;
    if (!text.empty())
        return text;
    std::string prose;
    std::ifstream f("/usr/share/common-licenses/GPL-3");
    if (f) {
        std::stringstream ss;
        ss << f.rdbuf();
        prose = ss.str();
    }
    if (prose.empty())
        prose = "The quick brown fox jumps over the lazy dog. ";
    std::mt19937 rng(42);
    const size_t target = 1 << 20;
    size_t pos = 0;
    while (text.size() < target) {
        size_t run = 20 + rng() % 60;
        for (size_t i = 0; i < run; i++) {
            text += prose[pos];
            pos = (pos + 1) % prose.size();
        }
        int word = 1 + static_cast<int>(rng() % 6);
        uint32_t base;
        switch (rng() % 4) {
        case 0: base = 0xC0; break;     // Latin-1 letters
        case 1: base = 0x3B1; break;    // Greek
        case 2: base = 0x3042; break;   // hiragana
        default: base = 0x1F600; break; // emoji
        }
        for (int k = 0; k < word; k++)
            append_utf8(text, base + rng() % 40);
        text += ' ';
    }
    // Cut at a character boundary.
    size_t end = target;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        end--;
    text.resize(end);
    return text;
}

void BM_strutl_utf8to16(benchmark::State &state)
{
    const std::string &in = mixed_text();
    std::vector<wchar_t> ours(in.size() + 1);
    std::vector<char> peer(in.size() * 2 + 16);
    iconv_t cd = iconv_open("UTF-16LE", "UTF-8");
    double t_ours = 0, t_peer = 0;
    for (auto _ : state) {
        auto t0 = clock_type::now();
        size_t used = 0;
        int rc = strutl_utf8to16(ours.data(), in.data(), in.size(), in.size(), &used);
        benchmark::DoNotOptimize(rc);
        benchmark::ClobberMemory();
        t_ours += seconds_since(t0);

        t0 = clock_type::now();
        char *ip = const_cast<char *>(in.data());
        size_t il = in.size();
        char *op = peer.data();
        size_t ol = peer.size();
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        size_t r = iconv(cd, &ip, &il, &op, &ol);
        benchmark::DoNotOptimize(r);
        benchmark::ClobberMemory();
        t_peer += seconds_since(t0);
    }
    iconv_close(cd);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
    state.counters["ratio"] = t_ours > 0 ? t_peer / t_ours : 0;
}
BENCHMARK(BM_strutl_utf8to16)->Arg(1 << 20);

void BM_strutl_utf16to8(benchmark::State &state)
{
    const std::string &text = mixed_text();
    std::vector<wchar_t> units(text.size() + 1);
    size_t used = 0;
    strutl_utf8to16(units.data(), text.data(), text.size(), text.size(), &used);
    size_t n = wcslen(units.data());
    std::vector<uint16_t> units16(units.begin(), units.begin() + static_cast<ptrdiff_t>(n));
    std::vector<char> ours(n * 3 + 1);
    std::vector<char> peer(n * 3 + 16);
    iconv_t cd = iconv_open("UTF-8", "UTF-16LE");
    double t_ours = 0, t_peer = 0;
    for (auto _ : state) {
        auto t0 = clock_type::now();
        int rc = strutl_utf16to8(ours.data(), units.data(), n, n * 3);
        benchmark::DoNotOptimize(rc);
        benchmark::ClobberMemory();
        t_ours += seconds_since(t0);

        t0 = clock_type::now();
        char *ip = reinterpret_cast<char *>(units16.data());
        size_t il = n * 2;
        char *op = peer.data();
        size_t ol = peer.size();
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        size_t r = iconv(cd, &ip, &il, &op, &ol);
        benchmark::DoNotOptimize(r);
        benchmark::ClobberMemory();
        t_peer += seconds_since(t0);
    }
    iconv_close(cd);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.counters["ratio"] = t_ours > 0 ? t_peer / t_ours : 0;
}
BENCHMARK(BM_strutl_utf16to8)->Arg(1 << 20);

// The hash everyone writes by hand.
__attribute__((noinline)) uint32_t rotate_hash(uint32_t h, const char *s)
{
    for (; *s; s++)
        h = ((h << 5) | (h >> 27)) + static_cast<unsigned char>(*s);
    return h;
}

std::vector<std::string> words(size_t count, size_t len)
{
    std::mt19937 rng(7);
    std::vector<std::string> v;
    for (size_t i = 0; i < count; i++) {
        std::string w;
        for (size_t k = 0; k < len; k++)
            w += static_cast<char>('a' + rng() % 26);
        v.push_back(w);
    }
    return v;
}

void BM_strutl_hash32(benchmark::State &state)
{
    std::vector<std::string> keys = words(1000, static_cast<size_t>(state.range(0)));
    double t_ours = 0, t_peer = 0;
    for (auto _ : state) {
        auto t0 = clock_type::now();
        uint32_t acc = 0;
        for (const std::string &k : keys)
            acc += strutl_str_to_hash32(0, k.c_str());
        benchmark::DoNotOptimize(acc);
        t_ours += seconds_since(t0);

        t0 = clock_type::now();
        uint32_t acc2 = 0;
        for (const std::string &k : keys)
            acc2 += rotate_hash(0, k.c_str());
        benchmark::DoNotOptimize(acc2);
        t_peer += seconds_since(t0);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * keys.size()));
    state.counters["ratio"] = t_ours > 0 ? t_peer / t_ours : 0;
}
BENCHMARK(BM_strutl_hash32)->Arg(16)->Arg(64);

void BM_strutl_concat(benchmark::State &state)
{
    size_t len = static_cast<size_t>(state.range(0));
    std::vector<std::string> a = words(1000, len), b = words(1000, len / 2 + 1), c = words(1000, len);
    char buf[1024];
    double t_ours = 0, t_peer = 0;
    for (auto _ : state) {
        auto t0 = clock_type::now();
        for (size_t i = 0; i < a.size(); i++) {
            strutl_concat(buf, sizeof buf, 3, a[i].c_str(), b[i].c_str(), c[i].c_str());
            benchmark::DoNotOptimize(buf);
        }
        t_ours += seconds_since(t0);

        t0 = clock_type::now();
        for (size_t i = 0; i < a.size(); i++) {
            snprintf(buf, sizeof buf, "%s%s%s", a[i].c_str(), b[i].c_str(), c[i].c_str());
            benchmark::DoNotOptimize(buf);
        }
        t_peer += seconds_since(t0);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * a.size()));
    state.counters["ratio"] = t_ours > 0 ? t_peer / t_ours : 0;
}
BENCHMARK(BM_strutl_concat)->Arg(8)->Arg(64);

} // namespace

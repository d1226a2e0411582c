// Dates: parsing user texts against strptime + mktime/timegm of equivalent
// texts, and the ISO token against strftime of the same fields.  Each
// benchmark times both on the same batch and reports ratio = t_peer / t_ours.
#include <benchmark/benchmark.h>
#include <string.h>
#include <time.h>

#include <chrono>

#include "ks/date.h"

namespace {

constexpr int kBatch = 1000;

template <typename Ours, typename Peer>
void run_pair(benchmark::State &state, Ours ours, Peer peer)
{
    using clock = std::chrono::steady_clock;
    double t_ours = 0, t_peer = 0;
    for (auto _ : state) {
        auto a = clock::now();
        for (int i = 0; i < kBatch; i++)
            ours(i);
        auto b = clock::now();
        for (int i = 0; i < kBatch; i++)
            peer(i);
        auto c = clock::now();
        t_ours += std::chrono::duration<double>(b - a).count();
        t_peer += std::chrono::duration<double>(c - b).count();
    }
    double ops = (double)state.iterations() * kBatch;
    state.counters["ours_ns"] = t_ours / ops * 1e9;
    state.counters["peer_ns"] = t_peer / ops * 1e9;
    state.counters["ratio"] = t_ours > 0 ? t_peer / t_ours : 0;
}

// Product style with a month name, against strptime's %b.
void BM_date_parse_product(benchmark::State &state)
{
    time_t warm;
    date_str_to_time("12-mar-04.14:05:09", &warm);
    run_pair(
        state,
        [](int) {
            time_t t;
            date_str_to_time("12-mar-04.14:05:09", &t);
            benchmark::DoNotOptimize(t);
        },
        [](int) {
            struct tm tm;
            memset(&tm, 0, sizeof tm);
            strptime("12-Mar-04 14:05:09", "%d-%b-%y %H:%M:%S", &tm);
            tm.tm_isdst = -1;
            time_t t = mktime(&tm);
            benchmark::DoNotOptimize(t);
        });
}
BENCHMARK(BM_date_parse_product);

// ISO 8601 extended with a zone, against strptime + timegm.
void BM_date_parse_iso_utc(benchmark::State &state)
{
    run_pair(
        state,
        [](int) {
            time_t t;
            date_str_to_time("2004-03-12T14:05:09Z", &t);
            benchmark::DoNotOptimize(t);
        },
        [](int) {
            struct tm tm;
            memset(&tm, 0, sizeof tm);
            strptime("2004-03-12T14:05:09Z", "%Y-%m-%dT%H:%M:%SZ", &tm);
            time_t t = timegm(&tm);
            benchmark::DoNotOptimize(t);
        });
}
BENCHMARK(BM_date_parse_iso_utc);

// ISO 8601 basic in local time, against strptime + mktime.
void BM_date_parse_iso_local(benchmark::State &state)
{
    run_pair(
        state,
        [](int) {
            time_t t;
            date_str_to_time("20040312T140509", &t);
            benchmark::DoNotOptimize(t);
        },
        [](int) {
            struct tm tm;
            memset(&tm, 0, sizeof tm);
            strptime("20040312T140509", "%Y%m%dT%H%M%S", &tm);
            tm.tm_isdst = -1;
            time_t t = mktime(&tm);
            benchmark::DoNotOptimize(t);
        });
}
BENCHMARK(BM_date_parse_iso_local);

// The ISO date-time token against localtime + strftime of the same fields.
void BM_date_fmt_token_date_time(benchmark::State &state)
{
    run_pair(
        state,
        [](int i) {
            const char *s = date_fmt_token_date_time(1078920309 + i * 3600);
            benchmark::DoNotOptimize(s);
        },
        [](int i) {
            time_t t = 1078920309 + i * 3600;
            struct tm tm;
            localtime_r(&t, &tm);
            char buf[64];
            size_t n = strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S%z", &tm);
            benchmark::DoNotOptimize(n);
            benchmark::DoNotOptimize(buf);
        });
}
BENCHMARK(BM_date_fmt_token_date_time);

} // namespace

// Hash tables against std::unordered_map (and apr_hash, GHashTable when
// present): insert, successful and failed lookup, full scan, for integer and
// string keys.  Each benchmark times ours and the peers on the same keys in
// the same iteration; the reported time is ours, counters["ratio"] is
// t_unordered_map / t_ours (above 1: we are faster), ratio_apr and
// ratio_glib likewise.
//
// Our tables are dynamic: they start at 7 buckets and grow with limit 1,
// the load that std::unordered_map keeps by default.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <benchmark/benchmark.h>

#include "ks/hash.h"

#ifdef HAVE_APR_1
#include <apr_hash.h>
#include <apr_pools.h>
#endif
#ifdef HAVE_GLIB_2_0
#include <glib.h>
#endif

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t0)
{
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

enum which { insert, hit, miss, scan };

uint64_t sink;

const uint32_t start_hint = 7;
const uint32_t growth_limit = 1;

struct key_set {
    std::vector<int32_t> ints, int_misses;
    std::vector<std::string> strs, str_misses;
};

// Distinct random keys (fixed seed), and as many keys that are not among them.
const key_set &keys_for(size_t n)
{
    static std::unordered_map<size_t, key_set> cache;
    auto it = cache.find(n);
    if (it != cache.end())
        return it->second;
    key_set &k = cache[n];
    std::mt19937 rng(static_cast<uint32_t>(n));
    std::unordered_set<int32_t> seen;
    while (k.ints.size() < n) {
        int32_t v = static_cast<int32_t>(rng());
        if (seen.insert(v).second)
            k.ints.push_back(v);
    }
    while (k.int_misses.size() < n) {
        int32_t v = static_cast<int32_t>(rng());
        if (seen.insert(v).second)
            k.int_misses.push_back(v);
    }
    char buf[48];
    for (size_t i = 0; i < 2 * n; i++) {
        snprintf(buf, sizeof buf, "user-%08x-%zu", static_cast<unsigned>(rng()), i);
        (i < n ? k.strs : k.str_misses).push_back(buf);
    }
    return k;
}

// Our tables, per key kind.
hash_table_t *ours_build_int(const std::vector<int32_t> &keys)
{
    hash_table_t *t = hash_int_create(start_hint, sizeof(uint64_t));
    hash_set_dynamic(t, growth_limit);
    for (size_t i = 0; i < keys.size(); i++) {
        void *d;
        hash_int_enter(t, keys[i], nullptr, &d);
        *static_cast<uint64_t *>(d) = i;
    }
    return t;
}

hash_table_t *ours_build_str(const std::vector<std::string> &keys)
{
    hash_table_t *t = hash_str_create(start_hint, sizeof(uint64_t), 1);
    hash_set_dynamic(t, growth_limit);
    for (size_t i = 0; i < keys.size(); i++) {
        void *d;
        hash_str_enter(t, keys[i].c_str(), nullptr, &d);
        *static_cast<uint64_t *>(d) = i;
    }
    return t;
}

template <class K>
std::unordered_map<K, uint64_t> *peer_build(const std::vector<K> &keys)
{
    auto *m = new std::unordered_map<K, uint64_t>;
    for (size_t i = 0; i < keys.size(); i++)
        m->emplace(keys[i], i);
    return m;
}

#ifdef HAVE_APR_1
apr_pool_t *apr_pool()
{
    static apr_pool_t *pool;
    if (!pool) {
        apr_initialize();
        apr_pool_create(&pool, nullptr);
    }
    return pool;
}

// APR stores pointers: keys and values live in the caller's vectors.
apr_hash_t *apr_build_int(apr_pool_t *p, const std::vector<int32_t> &keys, std::vector<uint64_t> &vals)
{
    apr_hash_t *h = apr_hash_make(p);
    for (size_t i = 0; i < keys.size(); i++)
        apr_hash_set(h, &keys[i], sizeof(int32_t), &vals[i]);
    return h;
}

apr_hash_t *apr_build_str(apr_pool_t *p, const std::vector<std::string> &keys, std::vector<uint64_t> &vals)
{
    apr_hash_t *h = apr_hash_make(p);
    for (size_t i = 0; i < keys.size(); i++)
        apr_hash_set(h, keys[i].c_str(), APR_HASH_KEY_STRING, &vals[i]);
    return h;
}
#endif

#ifdef HAVE_GLIB_2_0
// GLib stores pointers too; the keys' vectors outlive every table.
GHashTable *glib_build_int(const std::vector<int32_t> &keys, std::vector<uint64_t> &vals)
{
    GHashTable *h = g_hash_table_new(g_int_hash, g_int_equal);
    for (size_t i = 0; i < keys.size(); i++)
        g_hash_table_insert(h, const_cast<int32_t *>(&keys[i]), &vals[i]);
    return h;
}

GHashTable *glib_build_str(const std::vector<std::string> &keys, std::vector<uint64_t> &vals)
{
    GHashTable *h = g_hash_table_new(g_str_hash, g_str_equal);
    for (size_t i = 0; i < keys.size(); i++)
        g_hash_table_insert(h, const_cast<char *>(keys[i].c_str()), &vals[i]);
    return h;
}

template <class K>
double peer_glib(which w, const std::vector<K> &keys, const std::vector<K> &misses, GHashTable *built,
                 GHashTable *(*build)(const std::vector<K> &, std::vector<uint64_t> &),
                 gconstpointer (*keyp)(const K &))
{
    uint64_t sum = 0;
    if (w == insert) {
        std::vector<uint64_t> vals(keys.size());
        auto t0 = clock_type::now();
        GHashTable *h = build(keys, vals);
        double s = seconds_since(t0);
        g_hash_table_destroy(h);
        return s;
    }
    auto t0 = clock_type::now();
    if (w == scan) {
        GHashTableIter it;
        gpointer kp, v;
        g_hash_table_iter_init(&it, built);
        while (g_hash_table_iter_next(&it, &kp, &v))
            sum += *static_cast<uint64_t *>(v);
    } else {
        for (const K &key : w == miss ? misses : keys) {
            gpointer v = g_hash_table_lookup(built, keyp(key));
            if (v)
                sum += *static_cast<uint64_t *>(v);
        }
    }
    double s = seconds_since(t0);
    sink += sum;
    return s;
}

gconstpointer glib_int_keyp(const int32_t &k)
{
    return &k;
}

gconstpointer glib_str_keyp(const std::string &k)
{
    return k.c_str();
}
#endif

// One iteration of our side for integer keys.
double ours_int(which w, const key_set &k, hash_table_t *built)
{
    auto t0 = clock_type::now();
    uint64_t sum = 0;
    if (w == insert) {
        hash_table_t *t = ours_build_int(k.ints);
        double s = seconds_since(t0);
        hash_delete_ht(&t);
        return s;
    }
    const std::vector<int32_t> &probe = w == miss ? k.int_misses : k.ints;
    if (w == scan) {
        hash_cursor_t *cur = nullptr;
        void *d;
        while (hash_int_next(built, &cur, nullptr, &d))
            sum += *static_cast<uint64_t *>(d);
    } else {
        for (int32_t key : probe) {
            void *d;
            if (hash_int_lookup(built, key, nullptr, &d))
                sum += *static_cast<uint64_t *>(d);
        }
    }
    double s = seconds_since(t0);
    sink += sum;
    return s;
}

double ours_str(which w, const key_set &k, hash_table_t *built)
{
    auto t0 = clock_type::now();
    uint64_t sum = 0;
    if (w == insert) {
        hash_table_t *t = ours_build_str(k.strs);
        double s = seconds_since(t0);
        hash_delete_ht(&t);
        return s;
    }
    const std::vector<std::string> &probe = w == miss ? k.str_misses : k.strs;
    if (w == scan) {
        hash_cursor_t *cur = nullptr;
        void *d;
        while (hash_str_next(built, &cur, nullptr, &d))
            sum += *static_cast<uint64_t *>(d);
    } else {
        for (const std::string &key : probe) {
            void *d;
            if (hash_str_lookup(built, key.c_str(), nullptr, &d))
                sum += *static_cast<uint64_t *>(d);
        }
    }
    double s = seconds_since(t0);
    sink += sum;
    return s;
}

template <class K>
double peer_map(which w, const std::vector<K> &keys, const std::vector<K> &misses,
                const std::unordered_map<K, uint64_t> *built)
{
    auto t0 = clock_type::now();
    uint64_t sum = 0;
    if (w == insert) {
        auto *m = peer_build(keys);
        double s = seconds_since(t0);
        delete m;
        return s;
    }
    if (w == scan) {
        for (const auto &kv : *built)
            sum += kv.second;
    } else {
        for (const K &key : w == miss ? misses : keys) {
            auto it = built->find(key);
            if (it != built->end())
                sum += it->second;
        }
    }
    double s = seconds_since(t0);
    sink += sum;
    return s;
}

#ifdef HAVE_APR_1
template <class K>
double peer_apr(which w, const std::vector<K> &keys, const std::vector<K> &misses, apr_hash_t *built,
                apr_hash_t *(*build)(apr_pool_t *, const std::vector<K> &, std::vector<uint64_t> &),
                const void *(*keyp)(const K &), apr_ssize_t klen)
{
    uint64_t sum = 0;
    if (w == insert) {
        apr_pool_t *p;
        apr_pool_create(&p, apr_pool());
        std::vector<uint64_t> vals(keys.size());
        auto t0 = clock_type::now();
        build(p, keys, vals);
        double s = seconds_since(t0);
        apr_pool_destroy(p);
        return s;
    }
    auto t0 = clock_type::now();
    if (w == scan) {
        for (apr_hash_index_t *hi = apr_hash_first(nullptr, built); hi; hi = apr_hash_next(hi))
            sum += *static_cast<uint64_t *>(apr_hash_this_val(hi));
    } else {
        for (const K &key : w == miss ? misses : keys) {
            void *v = apr_hash_get(built, keyp(key), klen);
            if (v)
                sum += *static_cast<uint64_t *>(v);
        }
    }
    double s = seconds_since(t0);
    sink += sum;
    return s;
}

const void *int_keyp(const int32_t &k)
{
    return &k;
}

const void *str_keyp(const std::string &k)
{
    return k.c_str();
}
#endif

void report(benchmark::State &state, double ours, double peer, double apr, double glib, size_t n)
{
    state.counters["ratio"] = ours > 0 ? peer / ours : 0;
#ifdef HAVE_APR_1
    state.counters["ratio_apr"] = ours > 0 ? apr / ours : 0;
#else
    (void)apr;
#endif
#ifdef HAVE_GLIB_2_0
    state.counters["ratio_glib"] = ours > 0 ? glib / ours : 0;
#else
    (void)glib;
#endif
    state.counters["ns_per_op"] = ours * 1e9 / (static_cast<double>(n) * static_cast<double>(state.iterations()));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

void BM_int(benchmark::State &state, which w)
{
    size_t n = static_cast<size_t>(state.range(0));
    const key_set &k = keys_for(n);
    hash_table_t *t = w == insert ? nullptr : ours_build_int(k.ints);
    auto *m = w == insert ? nullptr : peer_build(k.ints);
#ifdef HAVE_APR_1
    std::vector<uint64_t> vals(n);
    for (size_t i = 0; i < n; i++)
        vals[i] = i;
    apr_hash_t *ah = w == insert ? nullptr : apr_build_int(apr_pool(), k.ints, vals);
#endif
#ifdef HAVE_GLIB_2_0
    std::vector<uint64_t> gvals(n);
    for (size_t i = 0; i < n; i++)
        gvals[i] = i;
    GHashTable *gh = w == insert ? nullptr : glib_build_int(k.ints, gvals);
#endif
    double ours = 0, peer = 0, apr = 0, glib = 0;
    for (auto _ : state) {
        double s = ours_int(w, k, t);
        ours += s;
        state.SetIterationTime(s);
        peer += peer_map(w, k.ints, k.int_misses, m);
#ifdef HAVE_APR_1
        apr += peer_apr<int32_t>(w, k.ints, k.int_misses, ah, apr_build_int, int_keyp, sizeof(int32_t));
#endif
#ifdef HAVE_GLIB_2_0
        glib += peer_glib<int32_t>(w, k.ints, k.int_misses, gh, glib_build_int, glib_int_keyp);
#endif
    }
    report(state, ours, peer, apr, glib, n);
#ifdef HAVE_GLIB_2_0
    if (gh)
        g_hash_table_destroy(gh);
#endif
    if (t)
        hash_delete_ht(&t);
    delete m;
}

void BM_str(benchmark::State &state, which w)
{
    size_t n = static_cast<size_t>(state.range(0));
    const key_set &k = keys_for(n);
    hash_table_t *t = w == insert ? nullptr : ours_build_str(k.strs);
    auto *m = w == insert ? nullptr : peer_build(k.strs);
#ifdef HAVE_APR_1
    std::vector<uint64_t> vals(n);
    for (size_t i = 0; i < n; i++)
        vals[i] = i;
    apr_hash_t *ah = w == insert ? nullptr : apr_build_str(apr_pool(), k.strs, vals);
#endif
#ifdef HAVE_GLIB_2_0
    std::vector<uint64_t> gvals(n);
    for (size_t i = 0; i < n; i++)
        gvals[i] = i;
    GHashTable *gh = w == insert ? nullptr : glib_build_str(k.strs, gvals);
#endif
    double ours = 0, peer = 0, apr = 0, glib = 0;
    for (auto _ : state) {
        double s = ours_str(w, k, t);
        ours += s;
        state.SetIterationTime(s);
        peer += peer_map(w, k.strs, k.str_misses, m);
#ifdef HAVE_APR_1
        apr += peer_apr<std::string>(w, k.strs, k.str_misses, ah, apr_build_str, str_keyp, APR_HASH_KEY_STRING);
#endif
#ifdef HAVE_GLIB_2_0
        glib += peer_glib<std::string>(w, k.strs, k.str_misses, gh, glib_build_str, glib_str_keyp);
#endif
    }
    report(state, ours, peer, apr, glib, n);
#ifdef HAVE_GLIB_2_0
    if (gh)
        g_hash_table_destroy(gh);
#endif
    if (t)
        hash_delete_ht(&t);
    delete m;
}

void sizes(benchmark::internal::Benchmark *b)
{
    b->UseManualTime()->Unit(benchmark::kMicrosecond);
    b->Arg(1000)->Arg(100000);
}

// The million-key cases are slow to set up: a few iterations say enough.
void big(benchmark::internal::Benchmark *b)
{
    b->UseManualTime()->Unit(benchmark::kMillisecond)->Arg(1000000)->Iterations(3);
}

} // namespace

namespace {

// Names follow BM_hash_<kind>_<case>/<size>.
int register_all()
{
    const struct {
        const char *name;
        which w;
    } cases[] = {{"insert", insert}, {"hit", hit}, {"miss", miss}, {"scan", scan}};
    for (auto apply : {sizes, big}) {
        for (const auto &c : cases) {
            which w = c.w;
            apply(benchmark::RegisterBenchmark((std::string("BM_hash_int_") + c.name).c_str(),
                                               [w](benchmark::State &st) { BM_int(st, w); }));
            apply(benchmark::RegisterBenchmark((std::string("BM_hash_str_") + c.name).c_str(),
                                               [w](benchmark::State &st) { BM_str(st, w); }));
        }
    }
    return 0;
}

const int registered = register_all();

} // namespace

// Hash tables: the three key kinds against std::unordered_map, growth,
// ordering, scans, the procedures' values, the dumps and bad input.
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <malloc.h>
#include <sys/resource.h>

#include <list>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

#include "hash_internal.h"
#include "ks/hash.h"
#include "ks/list.h"
#include "ks/stg.h"
#include "ks_test_util.h"
#include "stg_internal.h"

using ks_test::child_result;
using ks_test::run_in_child;

namespace {

std::string capture_stdout(const std::function<void()> &fn)
{
    fflush(stdout);
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

unsigned long U(const void *p)
{
    return reinterpret_cast<unsigned long>(p);
}

// Reference procedures, written from the definitions independently of the
// library's own inline versions.
uint32_t ref_str_hash(const std::string &s)
{
    uint32_t h = 0;
    for (char ch : s) {
        int32_t c = static_cast<signed char>(ch);
        h = h + (static_cast<uint32_t>(c) ^ (h << 7));
    }
    return h;
}

uint32_t ref_str_hash_nospace(const std::string &s)
{
    uint32_t h = 0;
    for (char ch : s) {
        unsigned char c = static_cast<unsigned char>(ch);
        if (c == ' ' || (c >= '\t' && c <= '\r'))
            continue;
        h = h + (static_cast<uint32_t>(c) ^ (h << 7));
    }
    return h;
}

uint32_t ref_bytes_hash(const std::string &s)
{
    uint32_t h = 0;
    for (char ch : s)
        h = h + ((h << 7) ^ static_cast<unsigned char>(ch));
    return h;
}

// What a table must contain: key -> data, and the insertion order.
template <class K>
struct model {
    std::unordered_map<K, uint64_t> map;
    std::list<K> order;
    std::unordered_map<K, typename std::list<K>::iterator> where;
    std::vector<uint64_t> freed; // data of freed cells, newest last

    void add(const K &k, uint64_t v)
    {
        map[k] = v;
        order.push_back(k);
        where[k] = std::prev(order.end());
    }
    void erase(const K &k)
    {
        freed.push_back(map[k]);
        map.erase(k);
        order.erase(where[k]);
        where.erase(k);
    }
};

// The per-kind operations, so that one driver runs all three kinds.
struct int_ops {
    using key = int32_t;
    static hash_table_t *create(uint32_t hint) { return hash_int_create(hint, 8); }
    static int enter(hash_table_t *t, key k, void **d)
    {
        const int32_t *kp;
        int r = hash_int_enter(t, k, &kp, d);
        EXPECT_EQ(*kp, k);
        return r;
    }
    static int lookup(hash_table_t *t, key k, void **d) { return hash_int_lookup(t, k, nullptr, d); }
    static int release(hash_table_t *t, key k, void **d) { return hash_int_free(t, k, nullptr, d); }
    static int next(hash_table_t *t, hash_cursor_t **c, key *k, void **d)
    {
        const int32_t *kp;
        int r = hash_int_next(t, c, &kp, d);
        if (r)
            *k = *kp;
        return r;
    }
    static int next_in_order(hash_table_t *t, hash_cursor_t **c, key *k, void **d)
    {
        const int32_t *kp;
        int r = hash_int_next_in_order(t, c, &kp, d);
        if (r)
            *k = *kp;
        return r;
    }
    static key make(std::mt19937 &rng)
    {
        // Mostly a small range for hits; sometimes anything, negatives included.
        if (rng() % 8 == 0)
            return static_cast<int32_t>(rng());
        return static_cast<int32_t>(rng() % 6000) - 3000;
    }
};

struct str_ops {
    using key = std::string;
    static bool copy;
    static hash_table_t *create(uint32_t hint) { return hash_str_create(hint, 8, copy); }
    static int enter(hash_table_t *t, const key &k, void **d)
    {
        const char *probe = copy ? k.c_str() : lookup_stable(k);
        const char *kp;
        int r = hash_str_enter(t, probe, &kp, d);
        EXPECT_STREQ(kp, k.c_str());
        if (copy) {
            EXPECT_NE(kp, probe);
        }
        return r;
    }
    static const char *lookup_stable(const key &k)
    {
        // Uncopied keys must outlive the cell: keep one copy per distinct key.
        static std::unordered_map<std::string, std::string> *keep;
        if (!keep)
            keep = new std::unordered_map<std::string, std::string>;
        auto it = keep->find(k);
        if (it == keep->end())
            it = keep->emplace(k, k).first;
        return it->second.c_str();
    }
    static int lookup(hash_table_t *t, const key &k, void **d) { return hash_str_lookup(t, k.c_str(), nullptr, d); }
    static int release(hash_table_t *t, const key &k, void **d) { return hash_str_free(t, k.c_str(), nullptr, d); }
    static int next(hash_table_t *t, hash_cursor_t **c, key *k, void **d)
    {
        const char *kp;
        int r = hash_str_next(t, c, &kp, d);
        if (r)
            *k = kp;
        return r;
    }
    static int next_in_order(hash_table_t *t, hash_cursor_t **c, key *k, void **d)
    {
        const char *kp;
        int r = hash_str_next_in_order(t, c, &kp, d);
        if (r)
            *k = kp;
        return r;
    }
    static key make(std::mt19937 &rng)
    {
        // Short keys over a small alphabet that includes bytes above 0x7F.
        static const char alphabet[] = "abcXYZ09_\x80\xe9\xff";
        size_t len = 1 + rng() % 3;
        std::string s;
        for (size_t i = 0; i < len; i++)
            s += alphabet[rng() % (sizeof alphabet - 1)];
        return s;
    }
};
bool str_ops::copy = true;

struct flen_ops {
    static const uint32_t width = 12;
    using key = std::string; // always width bytes, zeros included
    static bool copy;
    static hash_table_t *create(uint32_t hint) { return hash_flen_create(hint, 8, copy, width); }
    static const void *probe(const key &k) { return copy ? k.data() : str_ops::lookup_stable(k); }
    static int enter(hash_table_t *t, const key &k, void **d)
    {
        const void *kp;
        int r = hash_flen_enter(t, probe(k), &kp, d);
        EXPECT_EQ(memcmp(kp, k.data(), width), 0);
        if (copy) {
            EXPECT_NE(kp, k.data());
        }
        return r;
    }
    static int lookup(hash_table_t *t, const key &k, void **d)
    {
        return hash_flen_lookup_action(t, k.data(), nullptr, d, 0);
    }
    static int release(hash_table_t *t, const key &k, void **d) { return hash_flen_free(t, k.data(), nullptr, d); }
    static int next(hash_table_t *t, hash_cursor_t **c, key *k, void **d)
    {
        const void *kp;
        int r = hash_flen_next(t, c, &kp, d);
        if (r)
            k->assign(static_cast<const char *>(kp), width);
        return r;
    }
    static int next_in_order(hash_table_t *t, hash_cursor_t **c, key *k, void **d)
    {
        const void *kp;
        int r = hash_flen_next_in_order(t, c, &kp, d);
        if (r)
            k->assign(static_cast<const char *>(kp), width);
        return r;
    }
    static key make(std::mt19937 &rng)
    {
        std::string s(width, '\0');
        uint32_t v = rng() % 5000;
        memcpy(&s[3], &v, sizeof v);
        s[10] = static_cast<char>(0x80 | (v & 3));
        return s;
    }
};
bool flen_ops::copy = true;

uint64_t read_data(void *d)
{
    uint64_t v;
    memcpy(&v, d, sizeof v);
    return v;
}

// Compares a whole scan (bucket order, then insertion order) with the model.
template <class Ops>
void check_scans(hash_table_t *t, const model<typename Ops::key> &m, bool ordered)
{
    using K = typename Ops::key;
    hash_cursor_t *cur = nullptr;
    K k;
    void *d;
    size_t n = 0;
    std::unordered_map<K, int> seen;
    while (Ops::next(t, &cur, &k, &d)) {
        n++;
        auto it = m.map.find(k);
        ASSERT_NE(it, m.map.end());
        ASSERT_EQ(read_data(d), it->second);
        ASSERT_EQ(++seen[k], 1);
    }
    EXPECT_EQ(cur, nullptr);
    EXPECT_EQ(n, m.map.size());
    if (!ordered)
        return;
    auto expect = m.order.begin();
    while (Ops::next_in_order(t, &cur, &k, &d)) {
        ASSERT_NE(expect, m.order.end());
        ASSERT_EQ(k, *expect);
        ASSERT_EQ(read_data(d), m.map.at(k));
        ++expect;
    }
    EXPECT_EQ(expect, m.order.end());
    EXPECT_EQ(cur, nullptr);
}

bool is_table_prime(uint32_t n)
{
    for (uint32_t p : hash_prime_sizes)
        if (p == n)
            return true;
    return false;
}

// Random enters, lookups, frees and scans, checked against the model after
// every operation.
template <class Ops>
void differential(uint32_t seed, uint32_t hint, uint32_t limit, bool ordered, int ops)
{
    using K = typename Ops::key;
    std::mt19937 rng(seed);
    hash_table_t *t = Ops::create(hint);
    ASSERT_NE(t, nullptr);
    if (limit)
        hash_set_dynamic(t, limit);
    if (ordered)
        hash_set_order(t);
    model<K> m;
    uint64_t stamp = 0;
    for (int i = 0; i < ops; i++) {
        K k = Ops::make(rng);
        unsigned what = rng() % 100;
        void *d = nullptr;
        auto it = m.map.find(k);
        bool present = it != m.map.end();
        if (what < 45) {
            int r = Ops::enter(t, k, &d);
            ASSERT_EQ(r, present ? 1 : 0) << "op " << i;
            ASSERT_NE(d, nullptr);
            if (present) {
                ASSERT_EQ(read_data(d), it->second) << "enter must not touch existing data";
            } else {
                // A fresh cell is zero; a recycled one keeps its old data.
                uint64_t expect = 0;
                if (!m.freed.empty()) {
                    expect = m.freed.back();
                    m.freed.pop_back();
                }
                ASSERT_EQ(read_data(d), expect) << "op " << i;
                ++stamp;
                memcpy(d, &stamp, sizeof stamp);
                m.add(k, stamp);
            }
        } else if (what < 80) {
            int r = Ops::lookup(t, k, &d);
            ASSERT_EQ(r, present ? 1 : 0);
            if (present) {
                ASSERT_EQ(read_data(d), it->second);
            } else {
                ASSERT_EQ(d, nullptr);
            }
        } else if (what < 99 || rng() % 4 != 0) {
            int r = Ops::release(t, k, &d);
            ASSERT_EQ(r, present ? 1 : 0);
            if (present) {
                ASSERT_EQ(read_data(d), it->second);
                m.erase(k);
            } else {
                ASSERT_EQ(d, nullptr);
            }
        } else {
            check_scans<Ops>(t, m, ordered);
        }
        ASSERT_EQ(hash_count(t), m.map.size());
    }
    check_scans<Ops>(t, m, ordered);
    EXPECT_TRUE(is_table_prime(hash_nbuckets(t)) || hash_nbuckets(t) == HASH_MAX_BUCKETS);
    if (limit) {
        EXPECT_LE(hash_count(t), t->climit);
    }
    hash_delete_ht(&t);
    EXPECT_EQ(t, nullptr);
}

struct variant {
    uint32_t hint;
    uint32_t limit;
    bool ordered;
};

const variant variants[] = {
    {7, 2, true},     // grows many times, keeps the order chain
    {101, 0, false},  // fixed size, long chains
    {1, 3, false},    // starts from one bucket
    {5000, 0, true},  // roomy and ordered
};

} // namespace

TEST(HashDifferential, IntegerKeys)
{
    uint32_t seed = 1;
    for (const variant &v : variants)
        differential<int_ops>(seed++, v.hint, v.limit, v.ordered, 100000);
}

TEST(HashDifferential, StringKeysCopied)
{
    str_ops::copy = true;
    uint32_t seed = 11;
    for (const variant &v : variants)
        differential<str_ops>(seed++, v.hint, v.limit, v.ordered, 80000);
}

TEST(HashDifferential, StringKeysByReference)
{
    str_ops::copy = false;
    differential<str_ops>(21, 7, 2, true, 80000);
    differential<str_ops>(22, 31, 0, false, 80000);
}

TEST(HashDifferential, FixedLengthKeys)
{
    uint32_t seed = 31;
    flen_ops::copy = true;
    for (const variant &v : variants)
        differential<flen_ops>(seed++, v.hint, v.limit, v.ordered, 80000);
    flen_ops::copy = false;
    differential<flen_ops>(41, 7, 2, true, 80000);
}

TEST(Hash, PrimeChoiceAndAreaSizing)
{
    struct {
        uint32_t hint, prime, buckets;
    } cases[] = {
        {0, 1, 1},
        {1, 1, 1},
        {2, 2, 2},
        {4, 7, 7},
        {1000, 1021, 1021},
        {1021, 1021, 1021},
        {100000, 131071, 131071},
        {1048573, 1048573, 1048573},
        {1048574, 2097143, 1048573},
        {268435459, 268435459, 1048573},
        {300000000, 268435459, 1048573}, // the scan stops at index 28
        {UINT32_MAX, 268435459, 1048573},
    };
    for (const auto &c : cases) {
        hash_table_t *t = hash_int_create(c.hint, 4);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(hash_nbuckets(t), c.buckets) << "hint " << c.hint;
        EXPECT_EQ(t->area->first_size, c.prime * 4) << "hint " << c.hint;
        EXPECT_TRUE(t->area->zero);
        EXPECT_FLOAT_EQ(t->area->growth, 1.5f);
        EXPECT_EQ(t->limit, 0u);
        EXPECT_EQ(t->climit, 0u);
        hash_delete_ht(&t);
    }
    EXPECT_EQ(hash_prime_sizes[0], 1u);
    EXPECT_EQ(hash_prime_sizes[29], 536870909u);
}

TEST(Hash, GrowthThroughThePrimes)
{
    hash_table_t *t = hash_int_create(7, 4);
    hash_set_dynamic(t, 2);
    EXPECT_EQ(t->climit, 14u);
    for (int32_t k = 1; k <= 14; k++)
        hash_int_enter(t, k * 1000, nullptr, nullptr);
    EXPECT_EQ(hash_nbuckets(t), 7u);
    hash_int_enter(t, 15000, nullptr, nullptr);
    EXPECT_EQ(hash_nbuckets(t), 17u);
    EXPECT_EQ(t->climit, 34u);
    for (int32_t k = 1; k <= 15; k++)
        EXPECT_EQ(hash_int_lookup(t, k * 1000, nullptr, nullptr), 1);
    // Entering an existing key does not count towards growth.
    for (int i = 0; i < 40; i++)
        hash_int_enter(t, 1000, nullptr, nullptr);
    EXPECT_EQ(hash_nbuckets(t), 17u);
    hash_delete_ht(&t);
}

TEST(Hash, GrowthStopsAtTheCap)
{
    hash_table_t *t = hash_int_create(1048573, 0);
    hash_set_dynamic(t, 1);
    EXPECT_EQ(t->climit, 1048573u);
    t->climit = 2; // pretend the table is full
    for (int32_t k = 0; k < 4; k++)
        hash_int_enter(t, k, nullptr, nullptr);
    EXPECT_EQ(hash_nbuckets(t), 1048573u);
    hash_delete_ht(&t);
}

TEST(Hash, ResizeMovesEveryCell)
{
    hash_table_t *t = hash_str_create(3, 4, 1);
    hash_set_dynamic(t, 5);
    const char *keys[] = {"one", "two", "three", "four", "five", "six", "seven"};
    for (const char *k : keys)
        hash_str_enter(t, k, nullptr, nullptr);
    EXPECT_EQ(hash_resize(t, 61), 0);
    EXPECT_EQ(hash_nbuckets(t), 61u);
    EXPECT_EQ(t->climit, 305u);
    for (const char *k : keys)
        EXPECT_EQ(hash_str_lookup(t, k, nullptr, nullptr), 1) << k;
    for (uint32_t b = 0; b < t->nbuckets; b++)
        for (hash_cell *c = t->buckets[b]; c; c = c->next)
            EXPECT_EQ(c->hval % 61, b);
    EXPECT_EQ(hash_resize(t, 0), 0); // one bucket at least
    EXPECT_EQ(hash_nbuckets(t), 1u);
    EXPECT_EQ(hash_count(t), 7u);
    hash_delete_ht(&t);
}

TEST(Hash, EnterOfAPresentKeyLeavesTheData)
{
    hash_table_t *t = hash_str_create(10, 16, 1);
    void *d1, *d2;
    const char *k1, *k2;
    char key[] = "alpha";
    EXPECT_EQ(hash_str_enter(t, key, &k1, &d1), 0);
    EXPECT_NE(k1, key); // copied into the area
    EXPECT_EQ(memcmp(d1, "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16), 0);
    memcpy(d1, "payload", 8);
    key[0] = 'A'; // the copy is the table's own
    EXPECT_EQ(hash_str_lookup(t, "alpha", nullptr, nullptr), 1);
    EXPECT_EQ(hash_str_enter(t, "alpha", &k2, &d2), 1);
    EXPECT_EQ(d1, d2);
    EXPECT_EQ(k1, k2);
    EXPECT_STREQ(static_cast<char *>(d2), "payload");
    hash_delete_ht(&t);
}

TEST(Hash, FreedCellIsReusedWithItsData)
{
    hash_table_t *t = hash_int_create(7, 8);
    void *d, *d2;
    const int32_t *k;
    hash_int_enter(t, 42, nullptr, &d);
    memcpy(d, "leftover", 8);
    EXPECT_EQ(hash_int_free(t, 42, &k, &d2), 1);
    EXPECT_EQ(d2, d); // the released cell, still readable
    EXPECT_EQ(*k, 42);
    EXPECT_EQ(hash_count(t), 0u);
    EXPECT_EQ(hash_int_free(t, 42, &k, &d2), 0);
    EXPECT_EQ(k, nullptr);
    EXPECT_EQ(d2, nullptr);
    EXPECT_EQ(hash_int_enter(t, 99, nullptr, &d2), 0);
    EXPECT_EQ(d2, d);
    EXPECT_EQ(memcmp(d2, "leftover", 8), 0);
    hash_delete_ht(&t);
}

TEST(Hash, CellLayout)
{
    hash_table_t *t = hash_int_create(7, 4);
    hash_table_t *o = hash_int_create(7, 4);
    hash_set_order(o);
    void *d;
    hash_int_enter(t, 1, nullptr, &d);
    hash_cell *c = t->buckets[0];
    EXPECT_EQ(d, reinterpret_cast<char *>(c) + sizeof(hash_cell));
    EXPECT_EQ(c->hval, 0u);
    hash_int_enter(o, 8, nullptr, nullptr);
    hash_int_enter(o, 9, nullptr, nullptr);
    hash_cell *first = o->first, *second = o->last;
    EXPECT_EQ(first->key.ival, 8);
    EXPECT_EQ(second->key.ival, 9);
    // The order links sit just in front of each cell.
    hash_cell **links = reinterpret_cast<hash_cell **>(first) - 2;
    EXPECT_EQ(links[0], second);
    EXPECT_EQ(links[1], nullptr);
    hash_cell **links2 = reinterpret_cast<hash_cell **>(second) - 2;
    EXPECT_EQ(links2[0], nullptr);
    EXPECT_EQ(links2[1], first);
    // Order is set before the first entry only.
    hash_set_order(t);
    EXPECT_EQ(t->ordered, 0);
    hash_delete_ht(&t);
    hash_delete_ht(&o);
}

TEST(Hash, ProcedureValues)
{
    using namespace ks::hashimpl;
    int32_t k = -5;
    EXPECT_EQ(int_hash(&k), 0xFFFFFFFEu);
    k = 4;
    int32_t k5 = 5;
    EXPECT_EQ(int_hash(&k), int_hash(&k5));
    EXPECT_EQ(int_hash(&k), 1u);
    EXPECT_EQ(str_hash("ab"), 0x3143u);
    EXPECT_EQ(str_hash(""), 0u);
    EXPECT_EQ(str_hash("\xff"), 0xFFFFFFFFu); // sign-extended
    EXPECT_EQ(str_hash_nospace("\xff"), 0xFFu); // unsigned
    EXPECT_EQ(str_hash_nospace(" a\tb\n"), str_hash("ab"));
    std::mt19937 rng(7);
    for (int i = 0; i < 2000; i++) {
        std::string s;
        size_t len = rng() % 20;
        for (size_t j = 0; j < len; j++)
            s += static_cast<char>(1 + rng() % 255);
        EXPECT_EQ(str_hash(s.c_str()), ref_str_hash(s));
        EXPECT_EQ(str_hash_nospace(s.c_str()), ref_str_hash_nospace(s));
        EXPECT_EQ(bytes_hash_value(s.data(), static_cast<uint32_t>(s.size())), ref_bytes_hash(s));
    }
    // Long runs of plain ASCII, now and then a byte above 0x7F, at every
    // length and alignment of the eight-byte blocks.
    for (int i = 0; i < 5000; i++) {
        std::string s;
        size_t len = rng() % 41;
        for (size_t j = 0; j < len; j++)
            s += static_cast<char>(rng() % 16 == 0 ? 0x80 + rng() % 128 : 1 + rng() % 127);
        std::string shifted = "#" + s;
        EXPECT_EQ(str_hash(s.c_str()), ref_str_hash(s)) << s;
        EXPECT_EQ(str_hash(shifted.c_str() + 1), ref_str_hash(s)) << s;
    }
    const unsigned char two[2] = {1, 2};
    EXPECT_EQ(bytes_hash_value(two, 2), 131u);
}

TEST(Hash, StoredHashesMatchTheProcedures)
{
    // Through the tables: the full hash kept in each cell.
    hash_table_t *s = hash_str_create(17, 0, 1);
    hash_table_t *w = hash_str_create(17, 0, 1);
    hash_str_ignore_spaces(w);
    hash_table_t *f = hash_flen_create(17, 0, 1, 3);
    const char *keys[] = {"xyz", "hello world", "\xe9t\xe9", "tab\there"}; // 3 bytes at least
    for (const char *key : keys) {
        hash_str_enter(s, key, nullptr, nullptr);
        hash_str_enter(w, key, nullptr, nullptr);
        hash_flen_enter(f, key, nullptr, nullptr);
    }
    hash_cell_t *c;
    hash_cursor_t *cur = nullptr;
    int n = 0;
    while (hash_next(s, &cur, &c)) {
        EXPECT_EQ(c->hval, ref_str_hash(static_cast<const char *>(c->key.ptr)));
        n++;
    }
    while (hash_next(w, &cur, &c))
        EXPECT_EQ(c->hval, ref_str_hash_nospace(static_cast<const char *>(c->key.ptr)));
    while (hash_next(f, &cur, &c))
        EXPECT_EQ(c->hval, ref_bytes_hash(std::string(static_cast<const char *>(c->key.ptr), 3)));
    EXPECT_EQ(n, 4);
    hash_delete_ht(&s);
    hash_delete_ht(&w);
    hash_delete_ht(&f);
}

TEST(Hash, IntegerNeighboursShareAHashButNotAKey)
{
    hash_table_t *t = hash_int_create(1000, 4);
    void *d4, *d5;
    EXPECT_EQ(hash_int_enter(t, 4, nullptr, &d4), 0);
    EXPECT_EQ(hash_int_enter(t, 5, nullptr, &d5), 0);
    EXPECT_NE(d4, d5);
    EXPECT_EQ(t->buckets[1]->hval, 1u);
    EXPECT_EQ(t->buckets[1]->next->hval, 1u);
    EXPECT_EQ(hash_int_free(t, 4, nullptr, nullptr), 1);
    EXPECT_EQ(hash_int_lookup(t, 5, nullptr, nullptr), 1);
    EXPECT_EQ(hash_int_lookup(t, 4, nullptr, nullptr), 0);
    hash_delete_ht(&t);
}

TEST(Hash, WhitespaceBlindStrings)
{
    hash_table_t *t = hash_str_create(10, 4, 0);
    hash_str_ignore_spaces(t);
    const char *stored;
    EXPECT_EQ(hash_str_enter(t, "a b", &stored, nullptr), 0);
    EXPECT_EQ(hash_str_enter(t, "ab", nullptr, nullptr), 1);
    EXPECT_EQ(hash_str_lookup(t, "\ta\n b ", &stored, nullptr), 1);
    EXPECT_STREQ(stored, "a b");
    EXPECT_EQ(hash_str_lookup(t, "a c", nullptr, nullptr), 0);
    EXPECT_EQ(hash_count(t), 1u);
    hash_delete_ht(&t);
}

TEST(Hash, HashFirstThenCompareForStringsAndBytes)
{
    static int calls;
    calls = 0;
    auto same_hash = [](const void *) -> uint32_t { return 7; };
    auto counting = [](const void *a, const void *b) -> int {
        calls++;
        return memcmp(a, b, 2) == 0;
    };
    hash_table_t *t = hash_flen_create_with_fns(1, 4, 0, 2, same_hash, counting);
    EXPECT_EQ(hash_flen_enter(t, "aa", nullptr, nullptr), 0);
    EXPECT_EQ(hash_flen_enter(t, "bb", nullptr, nullptr), 0);
    EXPECT_EQ(calls, 1); // "bb" met "aa" with an equal hash
    EXPECT_EQ(hash_flen_lookup(t, "aa", nullptr, nullptr), 1);
    EXPECT_EQ(hash_flen_lookup(t, "cc", nullptr, nullptr), 0);
    EXPECT_GE(calls, 4);

    // Different stored hashes: the compare procedure is never asked.
    calls = 0;
    hash_table_t *u = hash_create_ht(1, 0, HASH_KEY_STR, 1, 0, nullptr,
                                     [](const void *a, const void *b) -> int {
                                         calls++;
                                         return strcmp(static_cast<const char *>(a), static_cast<const char *>(b)) == 0;
                                     });
    hash_str_enter(u, "x", nullptr, nullptr);
    hash_str_enter(u, "y", nullptr, nullptr);
    hash_str_lookup(u, "z", nullptr, nullptr);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(hash_str_lookup(u, "x", nullptr, nullptr), 1);
    EXPECT_EQ(calls, 1);
    hash_delete_ht(&t);
    hash_delete_ht(&u);
}

TEST(Hash, FixedLengthKeysCopiedIntoRecycledBuffers)
{
    hash_table_t *t = hash_flen_create(7, 0, 1, 5);
    EXPECT_EQ(hash_get_key_bytes(t), 5u);
    const void *k1, *k2;
    EXPECT_EQ(hash_flen_enter(t, "abcde", &k1, nullptr), 0);
    EXPECT_EQ(hash_flen_free(t, "abcde", nullptr, nullptr), 1);
    EXPECT_EQ(hash_flen_lookup_action(t, "vwxyz", &k2, nullptr, 1), 0);
    EXPECT_EQ(k1, k2); // the recycled cell's key buffer
    EXPECT_EQ(memcmp(k2, "vwxyz", 5), 0);
    EXPECT_EQ(hash_flen_lookup(t, "abcde", nullptr, nullptr), 0);

    hash_table_t *r = hash_flen_create(7, 0, 0, 5);
    const char *mine = "12345";
    hash_flen_enter(r, mine, &k1, nullptr);
    EXPECT_EQ(k1, mine);
    EXPECT_EQ(hash_get_key_bytes(r), 5u);
    hash_delete_ht(&t);
    hash_delete_ht(&r);
}

TEST(Hash, StringListEntry)
{
    hash_table_t *t = hash_str_create(31, 0, 1);
    list_t *l = list_create(STG_AREA_HEAP, 0);
    list_append(l, const_cast<char *>("a"));
    list_append(l, const_cast<char *>("b"));
    EXPECT_EQ(hash_str_enter_list(t, l), 0);
    EXPECT_EQ(hash_str_enter_list(t, l), 1);
    list_append(l, const_cast<char *>("c"));
    EXPECT_EQ(hash_str_enter_list(t, l), 0);
    EXPECT_EQ(hash_count(t), 3u);
    list_t *empty = list_create(STG_AREA_HEAP, 0);
    EXPECT_EQ(hash_str_enter_list(t, empty), 1);
    list_destroy(l);
    list_destroy(empty);
    hash_delete_ht(&t);
}

TEST(Hash, ScansFreeTheirCursors)
{
    hash_table_t *t = hash_int_create(7, 0);
    hash_cursor_t *cur = nullptr;
    hash_cell_t *cell = reinterpret_cast<hash_cell_t *>(1);
    EXPECT_EQ(hash_next(t, &cur, &cell), 0); // empty table
    EXPECT_EQ(cur, nullptr);
    EXPECT_EQ(cell, nullptr);
    EXPECT_EQ(hash_next_in_order(t, &cur, &cell), 0); // not ordered
    EXPECT_EQ(cur, nullptr);
    for (int32_t k = 0; k < 30; k++)
        hash_int_enter(t, k, nullptr, nullptr);
    // Bucket order: by index, each chain from its head.
    std::vector<hash_cell *> expect;
    for (uint32_t b = 0; b < t->nbuckets; b++)
        for (hash_cell *c = t->buckets[b]; c; c = c->next)
            expect.push_back(c);
    std::vector<hash_cell *> got;
    while (hash_next(t, &cur, &cell)) {
        got.push_back(cell);
        EXPECT_EQ(hash_cell_data(cell), reinterpret_cast<char *>(cell) + sizeof(hash_cell));
    }
    EXPECT_EQ(got, expect);
    EXPECT_EQ(cur, nullptr);
    // An abandoned scan gives its cursor back through hash_term_scan.
    EXPECT_EQ(hash_next(t, &cur, &cell), 1);
    EXPECT_NE(cur, nullptr);
    hash_term_scan(&cur);
    EXPECT_EQ(cur, nullptr);
    hash_term_scan(&cur);
    hash_term_scan(nullptr);
    hash_delete_ht(&t);
    hash_delete_ht(&t); // already gone
}

TEST(Hash, OrderedScanAfterFreesAndReentries)
{
    hash_table_t *t = hash_str_create(3, 0, 1);
    hash_set_order(t);
    for (const char *k : {"a", "b", "c", "d"})
        hash_str_enter(t, k, nullptr, nullptr);
    hash_str_free(t, "a", nullptr, nullptr); // the first
    hash_str_free(t, "d", nullptr, nullptr); // the last
    hash_str_enter(t, "a", nullptr, nullptr); // back at the tail
    hash_str_free(t, "c", nullptr, nullptr); // a middle one
    hash_str_enter(t, "e", nullptr, nullptr);
    std::string order;
    hash_cursor_t *cur = nullptr;
    const char *k;
    while (hash_str_next_in_order(t, &cur, &k, nullptr))
        order += k;
    EXPECT_EQ(order, "bae");
    hash_delete_ht(&t);
}

TEST(Hash, DumpText)
{
    hash_table_t *t = hash_int_create(2, 4);
    hash_set_dynamic(t, 3);
    hash_set_order(t);
    hash_int_enter(t, 8, nullptr, nullptr);
    hash_int_enter(t, -4, nullptr, nullptr);
    hash_cell *c8 = t->first, *cm4 = t->last;
    std::string out = capture_stdout([&] { hash_dump(t); });
    std::string expect = "-------------------------- Hash Table Dump ------------------------------------\n";
    expect += fmt("(hash) ht 0x%016lx: bkts=0x%016lx, #bkts=2, #cells=2, dbytes=4,\n", U(t), U(t->buckets));
    // The key-type part carries no newline: the limit line follows on.
    expect += fmt("       area=0x%016lx, keytype=HASH_KEY_INT, copyk=T", U(t->area));
    expect += fmt("       limit=3, climit=6, order=T, 1cell=0x%016lx, lcell=0x%016lx\n", U(c8), U(cm4));
    // 8 >> 2 = 2 lands in bucket 0; -4 >> 2 = -1 = 4294967295 in bucket 1.
    expect += "bucket 0:\n";
    expect += fmt("  cell 0x%016lx: key=8, hval=2, datap=0x%016lx, next=0x0000000000000000, order=0x%016lx, "
                  "back=0x0000000000000000\n",
                  U(c8), U(hash_cell_data(c8)), U(cm4));
    expect += "bucket 1:\n";
    expect += fmt("  cell 0x%016lx: key=-4, hval=4294967295, datap=0x%016lx, next=0x0000000000000000, "
                  "order=0x0000000000000000, back=0x%016lx\n",
                  U(cm4), U(hash_cell_data(cm4)), U(c8));
    EXPECT_EQ(out, expect);

    hash_table_t *s = hash_flen_create(1, 0, 0, 2);
    hash_table_t *st = hash_str_create(1, 0, 0);
    hash_str_enter(st, "k\xe9y", nullptr, nullptr);
    hash_cell *sc = st->buckets[0];
    out = capture_stdout([&] {
        hash_dump(s);
        hash_dump(st);
    });
    expect = "-------------------------- Hash Table Dump ------------------------------------\n";
    expect += fmt("(hash) ht 0x%016lx: bkts=0x%016lx, #bkts=1, #cells=0, dbytes=0,\n", U(s), U(s->buckets));
    expect += fmt("       area=0x%016lx, keytype=HASH_KEY_FLEN, copyk=F, key_bytes=2", U(s->area));
    expect += "bucket 0:\n";
    expect += "-------------------------- Hash Table Dump ------------------------------------\n";
    expect += fmt("(hash) ht 0x%016lx: bkts=0x%016lx, #bkts=1, #cells=1, dbytes=0,\n", U(st), U(st->buckets));
    expect += fmt("       area=0x%016lx, keytype=HASH_KEY_STR, copyk=F", U(st->area));
    expect += "bucket 0:\n";
    // An unordered cell has no line end of its own; the key line follows on.
    expect += fmt("  cell 0x%016lx: hval=%u, datap=0x%016lx, next=0x0000000000000000", U(sc),
                  ref_str_hash("k\xe9y"), U(hash_cell_data(sc)));
    expect += "    key=\"k\xe9y\"\n";
    EXPECT_EQ(out, expect);
    hash_delete_ht(&t);
    hash_delete_ht(&s);
    hash_delete_ht(&st);

    hash_table_t *u = hash_create_ht(1, 0, 9, 0, 0, ks::hashimpl::int_hash, ks::hashimpl::int_compare);
    out = capture_stdout([&] { hash_dump(u); });
    EXPECT_NE(out.find("keytype=*unknown*, copyk=Fbucket 0:\n"), std::string::npos) << out;
    hash_delete_ht(&u);

    // Unordered integer cells share one line with each other and the next bucket.
    hash_table_t *i2 = hash_int_create(2, 0);
    hash_int_enter(i2, 0, nullptr, nullptr);
    hash_int_enter(i2, 8, nullptr, nullptr);
    hash_cell *c8i = i2->buckets[0], *c0i = c8i->next;
    out = capture_stdout([&] { hash_dump(i2); });
    expect = "-------------------------- Hash Table Dump ------------------------------------\n";
    expect += fmt("(hash) ht 0x%016lx: bkts=0x%016lx, #bkts=2, #cells=2, dbytes=0,\n", U(i2), U(i2->buckets));
    expect += fmt("       area=0x%016lx, keytype=HASH_KEY_INT, copyk=T", U(i2->area));
    expect += "bucket 0:\n";
    expect += fmt("  cell 0x%016lx: key=8, hval=2, datap=0x%016lx, next=0x%016lx", U(c8i), U(hash_cell_data(c8i)),
                  U(c0i));
    expect += fmt("  cell 0x%016lx: key=0, hval=0, datap=0x%016lx, next=0x0000000000000000", U(c0i),
                  U(hash_cell_data(c0i)));
    expect += "bucket 1:\n";
    EXPECT_EQ(out, expect);
    hash_delete_ht(&i2);
}

TEST(Hash, StatisticsText)
{
    hash_table_t *t = hash_int_create(7, 0);
    // hval = key >> 2; bucket = hval % 7.  Bucket 0: 3 cells, bucket 2: 1.
    for (int32_t k : {0, 28, 56, 8, 100})
        hash_int_enter(t, k, nullptr, nullptr);
    hash_int_free(t, 100, nullptr, nullptr); // 25 % 7 = 4, now on the free list
    std::string out = capture_stdout([&] { hash_dump_stats(t); });
    EXPECT_EQ(out, "-------------------------- Hash Table Statistics ------------------------------\n"
                   "bucket 0: 3\n"
                   "bucket 2: 1\n"
                   "Number of entries on free list: 1\n"
                   "\n"
                   "number of buckets: 7\n"
                   "number of cells: 4\n"
                   "#buckets with 0 entries: 5\n"
                   "#buckets with 1 entries: 1\n"
                   "#buckets with 3 entries: 1\n");
    hash_delete_ht(&t);

    // Chains of 50 and more are shown per bucket but not in the histogram.
    hash_table_t *one = hash_int_create(1, 0);
    for (int32_t k = 0; k < 60; k++)
        hash_int_enter(one, k, nullptr, nullptr);
    out = capture_stdout([&] { hash_dump_stats(one); });
    EXPECT_EQ(out, "-------------------------- Hash Table Statistics ------------------------------\n"
                   "bucket 0: 60\n"
                   "\n"
                   "number of buckets: 1\n"
                   "number of cells: 60\n");
    hash_delete_ht(&one);
}

TEST(Hash, NullKeysAreReportedAndTheOperationGoesOn)
{
    child_result r = run_in_child([] {
        hash_table_t *s = hash_str_create(7, 4, 1);
        hash_table_t *f = hash_flen_create(7, 4, 0, 4);
        int bad = 0;
        const char *k;
        // A null string key stands for the empty string.
        if (hash_str_enter(s, nullptr, &k, nullptr) != 0 || strcmp(k, "") != 0)
            bad |= 1;
        if (hash_str_lookup(s, "", nullptr, nullptr) != 1)
            bad |= 2;
        if (hash_str_free(s, nullptr, nullptr, nullptr) != 1)
            bad |= 4;
        const void *fk;
        if (hash_flen_enter(f, nullptr, &fk, nullptr) != 0 || memcmp(fk, "\0\0\0\0", 4) != 0)
            bad |= 8;
        if (hash_flen_lookup(f, "\0\0\0\0", nullptr, nullptr) != 1)
            bad |= 16;
        if (hash_flen_lookup_action(f, "\0\0\0\0", &fk, nullptr, 3) != 0 || fk != nullptr)
            bad |= 32;
        hash_delete_ht(&s);
        hash_delete_ht(&f);
        return bad;
    });
    EXPECT_TRUE(r.exited());
    EXPECT_EQ(r.exit_code(), 0);
    size_t n = 0;
    for (size_t p = r.err.find("Unexpected error in hash package.\n"); p != std::string::npos;
         p = r.err.find("Unexpected error in hash package.\n", p + 1))
        n++;
    EXPECT_EQ(n, 4u) << r.err;
    EXPECT_EQ(r.out, "");
}

#if !defined(__SANITIZE_ADDRESS__)
TEST(Hash, CreationOutOfMemory)
{
    // A bucket array of 1048573 pointers cannot fit under a tight data limit.
    child_result r = run_in_child([] {
        hash_table_t *small = hash_int_create(7, 0);
        if (!small)
            return 2;
        struct rlimit rl = {4u << 20, 4u << 20};
        // Give back what earlier cases freed, so the array must be mapped anew.
        malloc_trim(0);
        FILE *f = fopen("/proc/self/statm", "r");
        unsigned long pages = 0;
        if (f) {
            if (fscanf(f, "%lu", &pages) != 1)
                pages = 0;
            fclose(f);
        }
        rl.rlim_cur = rl.rlim_max = pages * 4096 + (4u << 20);
        if (setrlimit(RLIMIT_AS, &rl) != 0)
            return 3;
        hash_table_t *big = hash_int_create(2000000, 0);
        return big == nullptr ? 0 : 1;
    });
    EXPECT_TRUE(r.exited());
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_NE(r.err.find("Out of memory"), std::string::npos) << r.err;
}
#endif

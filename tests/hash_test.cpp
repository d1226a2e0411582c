// Hash tables: the three key kinds against std::unordered_map, growth,
// ordering, scans, the procedures' values, the dumps and bad input.
#include <malloc.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <algorithm>
#include <list>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

#include "hash_internal.h"
#include "ks/list.h"
#include "ks_test_util.h"

namespace {

std::string fmt(const char *f, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

const auto U = [](const void *p) { return reinterpret_cast<unsigned long>(p); };

// What one of the two dump routines prints for the tables, in turn.
std::string printed(void (*print)(const hash_table_t *), std::initializer_list<const hash_table_t *> tables)
{
    fflush(stdout);
    testing::internal::CaptureStdout();
    for (const hash_table_t *t : tables)
        print(t);
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// Reference procedures, written from the definitions: SIGNED is the string
// hash (bytes sign-extended), BLIND the whitespace-blind one (unsigned bytes,
// spaces skipped), BYTES the fixed-length one (unsigned bytes).
enum ref_mode { SIGNED, BLIND, BYTES };
uint32_t ref_hash(const std::string &s, ref_mode mode)
{
    uint32_t h = 0;
    for (char ch : s) {
        uint32_t c = mode == SIGNED ? uint32_t(int32_t(static_cast<signed char>(ch))) : static_cast<unsigned char>(ch);
        if (mode != BLIND || !(c == ' ' || (c >= '\t' && c <= '\r')))
            h = h + (c ^ (h << 7));
    }
    return h;
}

// Each key kind's entry points behind one signature.  op: 0 lookup, 1 enter,
// 2 free, 3 bucket-order scan, 4 ordered scan.  Keys are held as bytes.
int int_op(hash_table_t *t, int op, const char *key, hash_cursor_t **cur, const void **kp, void **d)
{
    int32_t ik = 0;
    const int32_t *ip = nullptr;
    memcpy(&ik, key, op < 3 ? 4 : 0);
    int r = op < 3 ? (op == 0 ? hash_int_lookup : op == 1 ? hash_int_enter : hash_int_free)(t, ik, &ip, d)
                   : (op == 3 ? hash_int_next : hash_int_next_in_order)(t, cur, &ip, d);
    *kp = ip;
    return r;
}

int str_op(hash_table_t *t, int op, const char *key, hash_cursor_t **cur, const void **kp, void **d)
{
    const char *sp = nullptr;
    int r = op < 3 ? (op == 0 ? hash_str_lookup : op == 1 ? hash_str_enter : hash_str_free)(t, key, &sp, d)
                   : (op == 3 ? hash_str_next : hash_str_next_in_order)(t, cur, &sp, d);
    *kp = sp;
    return r;
}

// Tables with copied keys go through lookup_action, the others through the
// three calls built on it.
int flen_op(hash_table_t *t, int op, const char *key, hash_cursor_t **cur, const void **kp, void **d)
{
    if (op >= 3)
        return (op == 3 ? hash_flen_next : hash_flen_next_in_order)(t, cur, kp, d);
    if (t->copy_keys)
        return hash_flen_lookup_action(t, key, kp, d, op);
    return (op == 0 ? hash_flen_lookup : op == 1 ? hash_flen_enter : hash_flen_free)(t, key, kp, d);
}

struct kind {
    int (*op)(hash_table_t *, int, const char *, hash_cursor_t **, const void **, void **);
    size_t len; // key bytes; 0 for strings
    std::string bytes(const void *kp) const
    {
        return len ? std::string(static_cast<const char *>(kp), len) : static_cast<const char *>(kp);
    }
} const INT = {int_op, 4}, STR = {str_op, 0}, FLEN = {flen_op, 12};

// Uncopied keys must outlive their cells: one lasting copy per key.
const char *lasting(const std::string &key)
{
    static auto *keep = new std::set<std::string>;
    return keep->insert(key).first->c_str();
}

uint64_t data(void *d)
{
    uint64_t v;
    memcpy(&v, d, sizeof v);
    return v;
}

struct model {
    std::unordered_map<std::string, std::pair<uint64_t, std::list<std::string>::iterator>> map;
    std::list<std::string> order;
    // Data and key of freed cells, newest last, above what a fresh cell holds.
    std::vector<std::pair<uint64_t, const void *>> freed{{0, nullptr}};
};

// A bucket-order scan gives every key once with its data; an ordered scan,
// the insertion order.  Both end with the cursor gone.
void check_scans(const kind &k, hash_table_t *t, const model &m, bool ordered)
{
    for (int op = 3; op < (ordered ? 5 : 4); op++) {
        hash_cursor_t *cur = nullptr;
        const void *kp;
        void *d;
        auto expect = m.order.begin();
        std::set<std::string> seen;
        while (k.op(t, op, "", &cur, &kp, &d)) {
            std::string key = k.bytes(kp);
            auto it = m.map.find(key);
            ASSERT_TRUE(it != m.map.end() && seen.insert(key).second && data(d) == it->second.first) << op;
            ASSERT_TRUE(op == 3 || key == *expect++);
        }
        EXPECT_TRUE(cur == nullptr && seen.size() == m.map.size()) << op;
    }
}

struct variant {
    uint32_t hint, limit;
    bool ordered;
} const variants[] = {
    {7, 2, true}, {101, 0, false}, // grows many times and keeps the order chain; long chains
    {1, 3, false}, {5000, 0, true}, // starts from one bucket; roomy and ordered
};

// Random enters, lookups, frees and scans, checked after every operation.
void differential(const kind &k, bool copy, uint32_t seed, int ops)
{
    for (const variant &v : variants) {
        SCOPED_TRACE(fmt("key bytes %zu, copy %d, seed %u, hint %u", k.len, copy, seed, v.hint));
        hash_table_t *t = k.len == 4 ? hash_int_create(v.hint, 8)
                          : k.len    ? hash_flen_create(v.hint, 8, copy, uint32_t(k.len))
                                     : hash_str_create(v.hint, 8, copy);
        hash_set_dynamic(t, v.limit);
        if (v.ordered)
            hash_set_order(t);
        std::mt19937 rng(seed++);
        model m;
        for (uint64_t i = 1; i <= uint64_t(ops); i++) { // i is also the data stored
            uint32_t n = rng() % 8 == 0 ? rng() : rng() % 6000 - 3000; // mostly a small range, for hits
            std::string key(k.len ? k.len : 1 + rng() % 3, '\0');
            for (char &ch : key) // bytes above 0x7F too
                ch = k.len ? ch : "abcXYZ09_\x80\xe9\xff"[rng() % 12];
            if (k.len)
                memcpy(&key[k.len == 4 ? 0 : 3], &n, 4);
            int op = rng() % 400;
            op = op < 180 ? 1 : op < 320 ? 0 : op < 399 ? 2 : 3;
            if (op == 3) {
                check_scans(k, t, m, v.ordered);
                continue;
            }
            auto it = m.map.find(key);
            bool present = it != m.map.end();
            const void *kp = nullptr;
            void *d = nullptr;
            const char *probe = op == 1 && !copy ? lasting(key) : key.c_str();
            ASSERT_EQ(k.op(t, op, probe, nullptr, &kp, &d), present ? 1 : 0) << "op " << i << ": " << op;
            if (!present && op != 1) {
                ASSERT_TRUE(kp == nullptr && d == nullptr) << "op " << i;
                continue;
            }
            ASSERT_EQ(k.bytes(kp), key) << "op " << i;
            if (present) { // enter, lookup and free all see the data as it was
                ASSERT_EQ(data(d), it->second.first) << "op " << i << ": " << op;
                if (op == 2) {
                    m.freed.push_back({it->second.first, kp});
                    m.order.erase(it->second.second);
                    m.map.erase(it);
                }
            } else {
                // A fresh cell is zero; a recycled one keeps its data, and its
                // key buffer when keys are not strings.
                auto old = m.freed.back();
                const void *want = !copy ? probe : k.len ? old.second : nullptr;
                ASSERT_TRUE(data(d) == old.first && (want ? kp == want : kp != probe)) << "op " << i;
                if (m.freed.size() > 1)
                    m.freed.pop_back();
                memcpy(d, &i, sizeof i);
                m.map[key] = {i, m.order.insert(m.order.end(), key)};
            }
            ASSERT_TRUE(hash_count(t) == m.map.size() && !testing::Test::HasFailure()) << "op " << i;
        }
        check_scans(k, t, m, v.ordered);
        // Sizes come from the primes up to the cap, 1048573 (index 20).
        EXPECT_EQ(std::count(hash_prime_sizes, hash_prime_sizes + 21, hash_nbuckets(t)), 1) << hash_nbuckets(t);
        EXPECT_TRUE(v.limit == 0 || hash_count(t) <= t->climit);
        hash_delete_ht(&t);
    }
}

} // namespace

TEST(HashDifferential, IntegerKeys)
{
    differential(INT, true, 1, 100000);
}

TEST(HashDifferential, StringKeysCopiedAndByReference)
{
    differential(STR, true, 11, 80000);
    differential(STR, false, 21, 40000);
}

TEST(HashDifferential, FixedLengthKeysCopiedAndByReference)
{
    differential(FLEN, true, 31, 80000);
    differential(FLEN, false, 41, 40000);
}

TEST(Hash, PrimeChoiceAndAreaSizing)
{
    // hint, prime, buckets; hints above 268435459 stop the scan at index 28.
    const uint32_t cases[][3] = {{0, 1, 1}, {1, 1, 1}, {2, 2, 2}, {4, 7, 7}, {1000, 1021, 1021}, {1021, 1021, 1021},
        {100000, 131071, 131071}, {1048573, 1048573, 1048573}, {1048574, 2097143, 1048573},
        {268435459, 268435459, 1048573}, {300000000, 268435459, 1048573}, {UINT32_MAX, 268435459, 1048573}};
    for (const auto &c : cases) {
        hash_table_t *t = hash_int_create(c[0], 4);
        EXPECT_TRUE(hash_nbuckets(t) == c[2] && t->limit == 0 && t->climit == 0) << c[0];
        hash_delete_ht(&t);
    }
}

TEST(Hash, GrowthAndResizeRehashEveryCell)
{
    hash_table_t *t = hash_int_create(7, 4), *capped = hash_int_create(1048573, 0);
    hash_set_dynamic(t, 2);
    for (int32_t k = 1; k <= 14; k++)
        hash_int_enter(t, k * 1000, nullptr, nullptr);
    for (int i = 0; i < 40; i++) // an existing key does not count
        hash_int_enter(t, 1000, nullptr, nullptr);
    EXPECT_TRUE(hash_nbuckets(t) == 7 && t->climit == 14);
    hash_int_enter(t, 15000, nullptr, nullptr);
    EXPECT_TRUE(hash_nbuckets(t) == 17 && t->climit == 34);
    for (uint32_t size : {61u, 0u}) { // hash_resize(0) keeps one bucket
        EXPECT_TRUE(hash_resize(t, size) == 0 && hash_nbuckets(t) == std::max(size, 1u)) << size;
        for (uint32_t b = 0; b < t->nbuckets; b++)
            for (hash_cell *c = t->buckets[b]; c; c = c->next)
                EXPECT_EQ(c->hval % t->nbuckets, b);
        for (int32_t k = 1; k <= 15; k++)
            EXPECT_EQ(hash_int_lookup(t, k * 1000, nullptr, nullptr), 1) << k;
    }
    EXPECT_EQ(t->climit, 2u);
    hash_set_dynamic(capped, 1);
    capped->climit = 2; // as if full: no growth past the cap
    for (int32_t k = 0; k < 4; k++)
        hash_int_enter(capped, k, nullptr, nullptr);
    EXPECT_EQ(hash_nbuckets(capped), 1048573u);
    hash_delete_ht(&t);
    hash_delete_ht(&capped);
}

TEST(Hash, ProcedureValues)
{
    using namespace ks::hashimpl;
    int32_t k4 = 4, k5 = 5, km5 = -5;
    EXPECT_TRUE(int_hash(&k4) == 1 && int_hash(&k5) == 1 && int_hash(&km5) == 0xFFFFFFFEu);
    EXPECT_TRUE(str_hash("ab") == 0x3143u && str_hash("") == 0 && bytes_hash_value("\1\2", 2) == 131u);
    EXPECT_TRUE(str_hash("\xff") == 0xFFFFFFFFu && str_hash_nospace("\xff") == 0xFFu); // signed, unsigned
    std::mt19937 rng(7);
    // Now and then a byte above 0x7F, at every length and alignment of the
    // eight-byte blocks.
    for (int i = 0; i < 8000; i++) {
        std::string s(rng() % 41, ' ');
        for (char &ch : s)
            ch = char(i < 2000 ? 1 + rng() % 255 : rng() % 16 == 0 ? 0x80 + rng() % 128 : 1 + rng() % 127);
        std::string shifted = "#" + s;
        EXPECT_EQ(str_hash(shifted.c_str() + 1), ref_hash(s, SIGNED)) << s;
        EXPECT_EQ(str_hash_nospace(s.c_str()), ref_hash(s, BLIND)) << s;
        EXPECT_EQ(bytes_hash_value(s.data(), uint32_t(s.size())), ref_hash(s, BYTES)) << s;
    }
}

TEST(Hash, WhitespaceBlindStrings)
{
    hash_table_t *t = hash_str_create(1, 4, 0);
    hash_str_ignore_spaces(t);
    const char *stored;
    EXPECT_TRUE(hash_str_enter(t, "\xe9 b", &stored, nullptr) == 0 && hash_str_enter(t, "\xe9" "b", 0, 0) == 1);
    EXPECT_TRUE(hash_str_lookup(t, "\t\xe9\n b ", &stored, nullptr) == 1 && strcmp(stored, "\xe9 b") == 0);
    EXPECT_TRUE(hash_str_lookup(t, "\xe9 c", nullptr, nullptr) == 0 && hash_count(t) == 1);
    EXPECT_EQ(t->buckets[0]->hval, ref_hash("\xe9 b", BLIND)); // the unsigned, blind hash
    hash_delete_ht(&t);
}

TEST(Hash, HashFirstThenCompareForStringsAndBytes)
{
    static int calls;
    auto counting = [](const void *a, const void *b) -> int { return ++calls, memcmp(a, b, 2) == 0; };
    hash_table_t *t = hash_flen_create_with_fns(1, 4, 0, 2, [](const void *) -> uint32_t { return 7; }, counting);
    EXPECT_EQ(hash_flen_enter(t, "aa", nullptr, nullptr), 0);
    EXPECT_TRUE(hash_flen_enter(t, "bb", nullptr, nullptr) == 0 && calls == 1); // met "aa" with an equal hash
    EXPECT_TRUE(hash_flen_lookup(t, "aa", nullptr, nullptr) == 1 && hash_flen_lookup(t, "cc", nullptr, nullptr) == 0);
    EXPECT_GE(calls, 4);
    // Different stored hashes: the compare procedure is never asked.
    hash_table_t *u = hash_create_ht(1, 0, HASH_KEY_STR, 1, 0, nullptr, counting);
    hash_str_enter(u, "x", nullptr, nullptr);
    hash_str_enter(u, "y", nullptr, nullptr);
    calls = 0;
    EXPECT_TRUE(hash_str_lookup(u, "z", nullptr, nullptr) == 0 && calls == 0);
    EXPECT_TRUE(hash_str_lookup(u, "x", nullptr, nullptr) == 1 && calls == 1);
    hash_delete_ht(&t);
    hash_delete_ht(&u);
}

TEST(Hash, StringListEntry)
{
    hash_table_t *t = hash_str_create(31, 0, 1);
    list_t *l = list_create(STG_AREA_HEAP, 0), *empty = list_create(STG_AREA_HEAP, 0);
    for (const char *k : {"a", "b", "a"})
        list_append(l, const_cast<char *>(k));
    EXPECT_TRUE(hash_str_enter_list(t, l) == 0 && hash_str_enter_list(t, l) == 1);
    list_append(l, const_cast<char *>("c"));
    EXPECT_TRUE(hash_str_enter_list(t, l) == 0 && hash_count(t) == 3 && hash_str_enter_list(t, empty) == 1);
    list_destroy(l);
    list_destroy(empty);
    hash_delete_ht(&t);
}

TEST(Hash, ScansFreeTheirCursors)
{
    hash_table_t *t = hash_int_create(7, 0);
    hash_cursor_t *cur = nullptr;
    hash_cell_t *cell = reinterpret_cast<hash_cell_t *>(1);
    EXPECT_TRUE(hash_next(t, &cur, &cell) == 0 && cur == nullptr && cell == nullptr); // empty table
    std::vector<hash_cell *> expect, got;
    for (int32_t k = 0; k < 30; k++)
        hash_int_enter(t, k, nullptr, nullptr);
    hash_set_order(t); // too late: only before the first entry
    EXPECT_TRUE(hash_next_in_order(t, &cur, &cell) == 0 && cur == nullptr);
    for (uint32_t b = 0; b < t->nbuckets; b++) // by bucket index, each chain from its head
        for (hash_cell *c = t->buckets[b]; c; c = c->next)
            expect.push_back(c);
    while (hash_next(t, &cur, &cell) && hash_cell_data(cell) == reinterpret_cast<char *>(cell) + sizeof(hash_cell))
        got.push_back(cell);
    EXPECT_TRUE(got == expect && cur == nullptr);
    EXPECT_TRUE(hash_next(t, &cur, &cell) == 1 && cur != nullptr);
    hash_term_scan(&cur); // gives back the cursor of an abandoned scan
    hash_term_scan(&cur);
    hash_term_scan(nullptr);
    hash_delete_ht(&t);
    hash_delete_ht(&t); // already gone
    EXPECT_TRUE(cur == nullptr && t == nullptr);
}

namespace {
// The first two lines of a dump; the second carries no newline of its own.
std::string dump_head(const hash_table_t *t, const char *counts, const char *kind)
{
    return "-------------------------- Hash Table Dump ------------------------------------\n" +
           fmt("(hash) ht 0x%016lx: bkts=0x%016lx, %s,\n       area=0x%016lx, %s", U(t), U(t->buckets), counts,
               U(t->area), kind);
}

std::string dump_cell(hash_cell *c, const char *key, hash_cell *next)
{
    return fmt("  cell 0x%016lx: %shval=%u, datap=0x%016lx, next=0x%016lx", U(c), key, c->hval, U(hash_cell_data(c)),
               U(next));
}
} // namespace

TEST(Hash, DumpText)
{
    hash_table_t *t = hash_int_create(2, 4), *i2 = hash_int_create(2, 0), *f = hash_flen_create(1, 0, 0, 2);
    hash_table_t *s = hash_str_create(1, 0, 0);
    hash_table_t *u = hash_create_ht(1, 0, 9, 0, 0, ks::hashimpl::int_hash, ks::hashimpl::int_compare);
    hash_set_dynamic(t, 3);
    hash_set_order(t);
    for (int32_t k : {8, -4}) // 8 >> 2 = 2 in bucket 0; -4 >> 2 = 4294967295 in bucket 1
        hash_int_enter(t, k, nullptr, nullptr);
    for (int32_t k : {0, 8}) // unordered: the cells share a line with the next bucket
        hash_int_enter(i2, k, nullptr, nullptr);
    hash_str_enter(s, "k\xe9y", nullptr, nullptr);
    hash_flen_enter(f, "\xe9y", nullptr, nullptr);
    hash_cell *c8 = t->first, *cm4 = t->last, *d8 = i2->buckets[0], *d0 = d8->next;
    EXPECT_TRUE(c8->hval == 2 && cm4->hval == 4294967295u && d0->hval == 0);
    EXPECT_TRUE(s->buckets[0]->hval == ref_hash("k\xe9y", SIGNED) && f->buckets[0]->hval == ref_hash("\xe9y", BYTES));
    EXPECT_EQ(printed(hash_dump, {t, i2}),
              dump_head(t, "#bkts=2, #cells=2, dbytes=4", "keytype=HASH_KEY_INT, copyk=T") +
                  fmt("       limit=3, climit=6, order=T, 1cell=0x%016lx, lcell=0x%016lx\n", U(c8), U(cm4)) +
                  "bucket 0:\n" + dump_cell(c8, "key=8, ", nullptr) +
                  fmt(", order=0x%016lx, back=0x0000000000000000\n", U(cm4)) + "bucket 1:\n" +
                  dump_cell(cm4, "key=-4, ", nullptr) + fmt(", order=0x0000000000000000, back=0x%016lx\n", U(c8)) +
                  dump_head(i2, "#bkts=2, #cells=2, dbytes=0", "keytype=HASH_KEY_INT, copyk=T") + "bucket 0:\n" +
                  dump_cell(d8, "key=8, ", d0) + dump_cell(d0, "key=0, ", nullptr) + "bucket 1:\n");
    EXPECT_EQ(printed(hash_dump, {f, s, u}),
              dump_head(f, "#bkts=1, #cells=1, dbytes=0", "keytype=HASH_KEY_FLEN, copyk=F, key_bytes=2") +
                  "bucket 0:\n" + dump_cell(f->buckets[0], "", nullptr) +
                  dump_head(s, "#bkts=1, #cells=1, dbytes=0", "keytype=HASH_KEY_STR, copyk=F") + "bucket 0:\n" +
                  dump_cell(s->buckets[0], "", nullptr) + "    key=\"k\xe9y\"\n" +
                  dump_head(u, "#bkts=1, #cells=0, dbytes=0", "keytype=*unknown*, copyk=F") + "bucket 0:\n");
    for (hash_table_t *x : {t, i2, f, s, u})
        hash_delete_ht(&x);
}

TEST(Hash, StatisticsText)
{
    hash_table_t *t = hash_int_create(7, 0), *one = hash_int_create(1, 0);
    // hval = key >> 2; bucket = hval % 7.  Bucket 0: 3 cells, bucket 2: 1.
    for (int32_t k : {0, 28, 56, 8, 100})
        hash_int_enter(t, k, nullptr, nullptr);
    hash_int_free(t, 100, nullptr, nullptr); // 25 % 7 = 4, now on the free list
    for (int32_t k = 0; k < 60; k++) // 50 and more: per bucket, not in the histogram
        hash_int_enter(one, k, nullptr, nullptr);
    std::string rule = "-------------------------- Hash Table Statistics ------------------------------\n";
    EXPECT_EQ(printed(hash_dump_stats, {t, one}),
              rule + "bucket 0: 3\nbucket 2: 1\nNumber of entries on free list: 1\n\nnumber of buckets: 7\n" +
                  "number of cells: 4\n#buckets with 0 entries: 5\n#buckets with 1 entries: 1\n" +
                  "#buckets with 3 entries: 1\n" + rule +
                  "bucket 0: 60\n\nnumber of buckets: 1\nnumber of cells: 60\n");
    hash_delete_ht(&t);
    hash_delete_ht(&one);
}

TEST(Hash, NullKeysAreReportedAndTheOperationGoesOn)
{
    ks_test::child_result r = ks_test::run_in_child([] {
        hash_table_t *s = hash_str_create(7, 4, 1), *f = hash_flen_create(7, 4, 0, 4);
        const char *k;
        const void *fk;
        // A null key stands for the empty string, or for zero bytes.
        bool ok = hash_str_enter(s, nullptr, &k, nullptr) == 0 && strcmp(k, "") == 0 &&
                  hash_str_lookup(s, "", nullptr, nullptr) == 1 && hash_str_free(s, nullptr, nullptr, nullptr) == 1 &&
                  hash_flen_enter(f, nullptr, &fk, nullptr) == 0 && memcmp(fk, "\0\0\0\0", 4) == 0 &&
                  hash_flen_lookup(f, "\0\0\0\0", nullptr, nullptr) == 1 &&
                  hash_flen_lookup_action(f, "\0\0\0\0", &fk, nullptr, 3) == 0 && fk == nullptr;
        hash_delete_ht(&s);
        hash_delete_ht(&f);
        return ok ? 0 : 1;
    });
    EXPECT_TRUE(r.exited() && r.exit_code() == 0 && r.out.empty()) << r.exit_code();
    size_t n = 0;
    for (size_t p = 0; (p = r.err.find("Unexpected error in hash package.\n", p)) != std::string::npos; p++)
        n++;
    EXPECT_EQ(n, 4u) << r.err;
}

#if !defined(__SANITIZE_ADDRESS__)
TEST(Hash, CreationOutOfMemory)
{
    // A bucket array of 1048573 pointers cannot fit under a tight limit.
    ks_test::child_result r = ks_test::run_in_child([] {
        malloc_trim(0); // so that the array must be mapped anew
        rlim_t now = strtoul(ks_test::read_file("/proc/self/statm").c_str(), nullptr, 10) * 4096 + (4u << 20);
        struct rlimit rl = {now, now};
        return setrlimit(RLIMIT_AS, &rl) != 0 ? 3 : hash_int_create(2000000, 0) == nullptr ? 0 : 1;
    });
    EXPECT_TRUE(r.exited() && r.exit_code() == 0 && r.err.find("Out of memory") != std::string::npos)
        << r.exit_code() << r.err;
}
#endif

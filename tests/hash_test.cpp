// Hash tables: the three key kinds against a model, growth, ordering, scans,
// the procedures' values, the dumps and bad input.
// GCC 12 finds uninitialised members in std::regex's automaton when sanitizing: a false alarm.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <malloc.h>
#include <string.h>
#include <sys/resource.h>

#include <algorithm>
#include <list>
#include <random>
#include <regex>
#include <set>
#include <unordered_map>

#include <gtest/gtest.h>

#include "ks/hash.h"
#include "ks/list.h"
#include "ks/stg.h"
#include "ks_test_util.h"

namespace {

// What one of the dump routines prints for the tables, in turn.
std::string printed(void (*print)(const hash_table_t *), std::initializer_list<const hash_table_t *> tables)
{
    testing::internal::CaptureStdout();
    for (const hash_table_t *t : tables)
        print(t);
    return testing::internal::GetCapturedStdout();
}

// Each key kind's entry points behind one signature.  op: 0 lookup, 1 enter,
// 2 free, 3 bucket-order scan, 4 ordered scan.  Keys are held as bytes.
using op_fn = int (*)(hash_table_t *, int, const char *, hash_cursor_t **, const void **, void **);

int int_op(hash_table_t *t, int op, const char *key, hash_cursor_t **cur, const void **kp, void **d)
{
    int32_t ik = 0;
    const int32_t *ip = nullptr;
    memcpy(&ik, key, op < 3 ? 4 : 0);
    int r = op < 3 ? (op == 0 ? hash_int_lookup : op == 1 ? hash_int_enter : hash_int_free)(t, ik, &ip, d)
                   : (op == 3 ? hash_int_next : hash_int_next_in_order)(t, cur, &ip, d);
    return *kp = ip, r;
}

int str_op(hash_table_t *t, int op, const char *key, hash_cursor_t **cur, const void **kp, void **d)
{
    const char *sp = nullptr;
    int r = op < 3 ? (op == 0 ? hash_str_lookup : op == 1 ? hash_str_enter : hash_str_free)(t, key, &sp, d)
                   : (op == 3 ? hash_str_next : hash_str_next_in_order)(t, cur, &sp, d);
    return *kp = sp, r;
}

int flen_op(hash_table_t *t, int op, const char *key, hash_cursor_t **cur, const void **kp, void **d)
{
    return op < 3 ? (op == 0 ? hash_flen_lookup : op == 1 ? hash_flen_enter : hash_flen_free)(t, key, kp, d)
                  : (op == 3 ? hash_flen_next : hash_flen_next_in_order)(t, cur, kp, d);
}

uint64_t data_of(void *d) { return *static_cast<uint64_t *>(d); }

// Random enters, lookups, frees and scans of keys of len bytes (0: strings),
// each checked against a model, on tables that grow many times and keep the
// order chain, keep long chains, start from one bucket, or are roomy and ordered.
void differential(op_fn op, size_t len, bool copy, uint32_t seed, int ops)
{
    struct { uint32_t hint, limit; bool ordered; } const variants[] = {{7, 2, 1}, {101, 0, 0}, {1, 3, 0}, {5000, 0, 1}};
    for (auto v : variants) {
        SCOPED_TRACE(testing::Message() << "key bytes " << len << ", copy " << copy << ", hint " << v.hint);
        hash_table_t *t = len == 4 ? hash_int_create(v.hint, 8)
                          : len    ? hash_flen_create(v.hint, 8, copy, uint32_t(len))
                                   : hash_str_create(v.hint, 8, copy);
        hash_set_dynamic(t, v.limit);
        if (v.ordered)
            hash_set_order(t);
        std::mt19937 rng(seed++);
        std::unordered_map<std::string, std::pair<uint64_t, std::list<std::string>::iterator>> model;
        std::list<std::string> order;
        std::set<std::string> lasting; // uncopied keys must outlive their cells
        // Data and key of freed cells, newest last, above what a fresh cell holds.
        std::vector<std::pair<uint64_t, const void *>> freed{{0, nullptr}};
        auto bytes = [len](const void *k) {
            return std::string(static_cast<const char *>(k), len ? len : strlen(static_cast<const char *>(k)));
        };
        // A bucket-order scan gives every key once with its data; an ordered
        // scan, the insertion order.  Both end with the cursor gone.
        auto check_scans = [&] {
            for (int scan = 3; scan < (v.ordered ? 5 : 4); scan++) {
                hash_cursor_t *cur = nullptr;
                const void *kp;
                void *d;
                std::vector<std::string> seen, want(order.begin(), order.end());
                while (op(t, scan, "", &cur, &kp, &d))
                    ASSERT_EQ(data_of(d), model.at(seen.emplace_back(bytes(kp))).first);
                if (scan == 3)
                    std::sort(seen.begin(), seen.end()), std::sort(want.begin(), want.end());
                EXPECT_TRUE(cur == nullptr && seen == want) << scan;
            }
        };
        for (uint64_t i = 1; i <= uint64_t(ops); i++) { // i is also the data stored
            if (i % 1000 == 0)
                check_scans();
            uint32_t n = rng() % 8 == 0 ? rng() : rng() % 6000 - 3000; // mostly a small range, for hits
            std::string key(len ? len : 1 + rng() % 3, '\0');
            for (char &ch : key) // bytes above 0x7F too
                ch = len ? ch : "abcXYZ09_\x80\xe9\xff"[rng() % 12];
            if (len)
                memcpy(&key[len == 4 ? 0 : 3], &n, 4);
            int o = rng() % 100 < 45 ? 1 : rng() % 100 < 65 ? 0 : 2; // enter, lookup, free
            auto it = model.find(key);
            bool present = it != model.end();
            const void *kp = nullptr;
            void *d = nullptr;
            const char *probe = o == 1 && !copy ? lasting.insert(key).first->c_str() : key.c_str();
            ASSERT_EQ(op(t, o, probe, nullptr, &kp, &d), present ? 1 : 0) << "op " << i << ": " << o;
            ASSERT_TRUE(present || o == 1 || (kp == nullptr && d == nullptr)) << "op " << i;
            if (!present && o != 1)
                continue;
            ASSERT_EQ(bytes(kp), key) << "op " << i;
            if (present) { // enter, lookup and free all see the data as it was
                ASSERT_EQ(data_of(d), it->second.first) << "op " << i << ": " << o;
                if (o == 2)
                    freed.push_back({it->second.first, kp}), order.erase(it->second.second), model.erase(it);
            } else {
                // A fresh cell is zero; a recycled one keeps its data, and its
                // key buffer when keys are not strings.
                const void *want = !copy ? probe : len ? freed.back().second : nullptr;
                ASSERT_TRUE(data_of(d) == freed.back().first && (want ? kp == want : kp != probe)) << "op " << i;
                if (freed.size() > 1)
                    freed.pop_back();
                memcpy(d, &i, sizeof i);
                model[key] = {i, order.insert(order.end(), key)};
            }
            ASSERT_EQ(hash_count(t), model.size()) << "op " << i;
        }
        check_scans();
        // Sizes come from the primes up to the cap, 1048573 (index 20); the limit holds.
        uint32_t nb = hash_nbuckets(t);
        EXPECT_EQ(std::count(hash_prime_sizes, hash_prime_sizes + 21, nb), 1) << nb;
        EXPECT_TRUE(v.limit == 0 || hash_count(t) <= nb * v.limit) << nb;
        hash_delete_ht(&t);
    }
}

} // namespace

// Integer keys; strings and fixed-length keys, copied and by reference.
TEST(Hash, EveryKeyKindAgreesWithAModel)
{
    for (auto c : {std::make_tuple(int_op, 4, true), {str_op, 0, true}, {str_op, 0, false}, {flen_op, 12, true},
                   {flen_op, 12, false}})
        differential(std::get<0>(c), std::get<1>(c), std::get<2>(c), std::get<1>(c) * 10 + std::get<2>(c), 50000);
}

// Growth is checked against the limits the dump shows.
TEST(Hash, PrimeChoiceGrowthAndResize)
{
    // hint, buckets; hints above 268435459 stop the scan at index 28.
    for (auto c : std::vector<std::pair<uint32_t, uint32_t>>{{0, 1}, {1, 1}, {2, 2}, {4, 7}, {1000, 1021}, {1021, 1021},
             {100000, 131071}, {1048573, 1048573}, {1048574, 1048573}, {300000000, 1048573}, {UINT32_MAX, 1048573}}) {
        hash_table_t *t = hash_int_create(c.first, 4);
        EXPECT_EQ(hash_nbuckets(t), c.second) << c.first;
        hash_delete_ht(&t);
    }
    hash_table_t *t = hash_int_create(7, 4);
    testing::internal::CaptureStdout(); // the area's first chunk: 4 bytes a bucket; then growing by half
    stg_dump();
    EXPECT_TRUE(std::regex_search(testing::internal::GetCapturedStdout(), std::regex("1st=28 base=28 .* gf=1.50")));
    hash_set_dynamic(t, 2);
    auto limits = [&t](const char *text) { return printed(hash_dump, {t}).find(text) != std::string::npos; };
    for (int32_t k = 1; k <= 54; k++) // after the first 14, an existing key: it does not count
        hash_int_enter(t, (k <= 14 ? k : 1) * 1000, nullptr, nullptr);
    EXPECT_TRUE(hash_nbuckets(t) == 7 && limits("limit=2, climit=14,"));
    hash_int_enter(t, 15000, nullptr, nullptr);
    EXPECT_TRUE(hash_nbuckets(t) == 17 && limits("limit=2, climit=34,"));
    for (uint32_t size : {61u, 0u}) { // hash_resize(0) keeps one bucket
        EXPECT_TRUE(hash_resize(t, size) == 0 && hash_nbuckets(t) == std::max(size, 1u)) << size;
        for (int32_t k = 1; k <= 15; k++)
            EXPECT_EQ(hash_int_lookup(t, k * 1000, nullptr, nullptr), 1) << k;
    }
    EXPECT_TRUE(limits("limit=2, climit=2,"));
    hash_delete_ht(&t);
}

// Worked out by hand from the rules: integers k >> 2 (signed); strings
// h += c ^ (h << 7) over signed chars, the whitespace-blind kind over
// unsigned chars without the spaces; fixed-length keys h += (h << 7) ^ b
// over unsigned bytes.  Strings of eight bytes and more are hashed in blocks.
// The stored hash shows in the dump.
TEST(Hash, EachKeyKindHashesByItsRule)
{
    struct { op_fn op; const char *key; uint32_t hval; } cases[] = { // blind: str_op on a whitespace-blind table
        {str_op, "ab", 12611}, {str_op, "", 0}, {str_op, "\xff", 4294967295u}, {str_op, "abcdefghij", 4250617463u},
        {str_op, "abc\xe9" "defghij", 1721115360}, {str_op, "0123456789abcdef", 1341620450}, {nullptr, "\xff", 255},
        {nullptr, "\xe9 b", 30155}, {nullptr, " a\tb\n", 12611}, {flen_op, "\1\2", 131}, {flen_op, "\xff\1", 32896},
        {int_op, "\4\0\0\0", 1}, {int_op, "\5\0\0\0", 1}, {int_op, "\xfb\xff\xff\xff", 4294967294u},
        {int_op, "\xfc\xff\xff\xff", 4294967295u},
    };
    for (auto &c : cases) {
        hash_table_t *t = c.op == int_op ? hash_int_create(1, 0) : c.op == flen_op ? hash_flen_create(1, 0, 1, 2)
                                                                                     : hash_str_create(1, 0, 1);
        if (!c.op)
            hash_str_ignore_spaces(t);
        const void *kp;
        (c.op ? c.op : str_op)(t, 1, c.key, nullptr, &kp, nullptr);
        EXPECT_NE(printed(hash_dump, {t}).find("hval=" + std::to_string(c.hval) + ","), std::string::npos) << c.key;
        std::string bare = std::regex_replace(c.key, std::regex("\\s"), ""); // the same key to the blind compare
        EXPECT_TRUE(c.op || hash_str_lookup(t, bare.c_str(), nullptr, nullptr) == 1) << c.key;
        hash_delete_ht(&t);
    }
}

// Custom procedures: the stored hash is compared before the compare procedure is asked.
TEST(Hash, HashFirstThenCompareAndListEntry)
{
    static int calls;
    auto counting = [](const void *a, const void *b) -> int { return ++calls, memcmp(a, b, 2) == 0; };
    hash_table_t *t = hash_flen_create_with_fns(1, 4, 0, 2, [](const void *) -> uint32_t { return 7; }, counting);
    EXPECT_TRUE(!hash_flen_enter(t, "aa", 0, 0) && !hash_flen_enter(t, "bb", 0, 0) && calls == 1); // an equal hash
    EXPECT_TRUE(hash_flen_lookup(t, "aa", nullptr, nullptr) == 1 && hash_flen_lookup(t, "cc", nullptr, nullptr) == 0);
    hash_delete_ht(&t);
    hash_table_t *u = hash_create_ht(1, 0, HASH_KEY_STR, 1, 0, nullptr, counting);
    EXPECT_TRUE(!hash_str_enter(u, "x", nullptr, nullptr) && !hash_str_enter(u, "y", nullptr, nullptr));
    calls = 0;
    EXPECT_TRUE(hash_str_lookup(u, "z", nullptr, nullptr) == 0 && calls == 0);
    EXPECT_TRUE(hash_str_lookup(u, "x", nullptr, nullptr) == 1 && calls == 1);
    // hash_str_enter_list: 1 only when every datum was present.
    stg_area_t area = stg_create_area(256);
    list_t *l = list_create(area, 0), *empty = list_create(area, 0);
    for (const char *k : {"a", "b", "a"})
        list_append(l, const_cast<char *>(k));
    EXPECT_TRUE(hash_str_enter_list(t = hash_str_create(31, 0, 1), l) == 0 && hash_str_enter_list(t, l) == 1);
    list_append(l, const_cast<char *>("c"));
    EXPECT_TRUE(hash_str_enter_list(t, l) == 0 && hash_count(t) == 3 && hash_str_enter_list(t, empty) == 1);
    stg_delete_area(&area);
    hash_delete_ht(&t);
    hash_delete_ht(&u);
}

TEST(Hash, DumpText)
{
    hash_table_t *t = hash_int_create(2, 4), *i = hash_int_create(2, 4), *f = hash_flen_create(1, 0, 0, 2);
    hash_table_t *s = hash_str_create(1, 0, 0);
    hash_table_t *u = hash_create_ht(1, 0, 9, 0, 0, [](const void *) -> uint32_t { return 0; },
                                     [](const void *, const void *) -> int { return 1; });
    hash_set_dynamic(t, 3);
    hash_set_order(t);
    for (int32_t k : {8, -4}) // 8 >> 2 = 2 in bucket 0; -4 >> 2 = 4294967295 in bucket 1
        hash_int_enter(t, k, nullptr, nullptr);
    for (int32_t k : {0, 8}) // unordered: the cells share a line with the next bucket
        hash_int_enter(i, k, nullptr, nullptr);
    hash_str_enter(s, "k\xe9y", nullptr, nullptr);
    hash_flen_enter(f, "\xe9y", nullptr, nullptr);
    // Other addresses are numbered as they come: each table's buckets and area, its cells and their data.
    std::string dump = ks_test::name_addresses(printed(hash_dump, {t, i, f, s, u}),
                                               {{t, "T"}, {i, "I"}, {f, "F"}, {s, "S"}, {u, "U"}});
    std::string rule = "-------------------------- Hash Table Dump ------------------------------------\n";
    EXPECT_EQ(std::regex_replace(dump, std::regex("0x0{16}"), "0"),
              rule + "(hash) ht T: bkts=#1, #bkts=2, #cells=2, dbytes=4,\n       area=#2, keytype=HASH_KEY_INT, copyk=T"
                     "       limit=3, climit=6, order=T, 1cell=#3, lcell=#4\nbucket 0:\n"
                     "  cell #3: key=8, hval=2, datap=#5, next=0, order=#4, back=0\nbucket 1:\n"
                     "  cell #4: key=-4, hval=4294967295, datap=#6, next=0, order=0, back=#3\n" +
              rule + "(hash) ht I: bkts=#7, #bkts=2, #cells=2, dbytes=4,\n       area=#8, keytype=HASH_KEY_INT, copyk=T"
                     "bucket 0:\n  cell #9: key=8, hval=2, datap=#10, next=#11  cell #11: key=0, hval=0, datap=#12, "
                     "next=0bucket 1:\n" +
              rule + "(hash) ht F: bkts=#13, #bkts=1, #cells=1, dbytes=0,\n       area=#14, keytype=HASH_KEY_FLEN, "
                     "copyk=F, key_bytes=2bucket 0:\n  cell #15: hval=30178, datap=#16, next=0" +
              rule + "(hash) ht S: bkts=#17, #bkts=1, #cells=1, dbytes=0,\n       area=#18, keytype=HASH_KEY_STR, "
                     "copyk=Fbucket 0:\n  cell #19: hval=4293211469, datap=#20, next=0    key=\"k\xe9y\"\n" +
              rule + "(hash) ht U: bkts=#21, #bkts=1, #cells=0, dbytes=0,\n       area=#22, keytype=*unknown*, copyk=F"
                     "bucket 0:\n");
    for (hash_table_t *x : {t, i, f, s, u})
        hash_delete_ht(&x);
}

TEST(Hash, ScansAndStatisticsGoByBucketEachChainNewestFirst)
{
    hash_table_t *t = hash_int_create(7, 4), *one = hash_int_create(1, 0);
    hash_cursor_t *cur = nullptr;
    hash_cell_t *cell = reinterpret_cast<hash_cell_t *>(1);
    EXPECT_TRUE(hash_next(t, &cur, &cell) == 0 && cur == nullptr && cell == nullptr); // empty table
    void *data[5];
    for (int32_t k : {0, 28, 56, 8, 100}) // buckets (k >> 2) % 7: 0, 0, 0, 2, 4
        hash_int_enter(t, k, nullptr, &data[hash_count(t)]);
    hash_set_order(t); // too late: only before the first entry
    EXPECT_TRUE(hash_next_in_order(t, &cur, &cell) == 0 && cur == nullptr);
    std::vector<void *> got;
    while (hash_next(t, &cur, &cell))
        got.push_back(hash_cell_data(cell));
    EXPECT_TRUE(got == (std::vector<void *>{data[2], data[1], data[0], data[3], data[4]}) && cur == nullptr);
    EXPECT_TRUE(hash_next(t, &cur, &cell) == 1 && cur != nullptr);
    hash_term_scan(&cur); // gives back the cursor of an abandoned scan
    hash_term_scan(&cur), hash_term_scan(nullptr); // nothing left, and no cursor at all
    hash_int_free(t, 100, nullptr, nullptr); // now on the free list
    for (int32_t k = 0; k < 60; k++) // 50 and more: per bucket, not in the histogram
        hash_int_enter(one, k, nullptr, nullptr);
    std::string rule = "-------------------------- Hash Table Statistics ------------------------------\n";
    EXPECT_EQ(printed(hash_dump_stats, {t, one}),
              rule + "bucket 0: 3\nbucket 2: 1\nNumber of entries on free list: 1\n\nnumber of buckets: 7\n"
                     "number of cells: 4\n#buckets with 0 entries: 5\n#buckets with 1 entries: 1\n"
                     "#buckets with 3 entries: 1\n" + rule + "bucket 0: 60\n\nnumber of buckets: 1\n"
                     "number of cells: 60\n");
    hash_delete_ht(&one);
    hash_delete_ht(&t);
    hash_delete_ht(&t); // already gone
    EXPECT_TRUE(cur == nullptr && t == nullptr);
}

// A null key stands for the empty string, or for zero bytes; an unknown
// action finds nothing.  A bucket array that cannot be had leaves no table.
TEST(Hash, NullKeysAndCreationFailureAreReported)
{
    ks_test::child_result r = ks_test::run_in_child([] {
        hash_table_t *s = hash_str_create(7, 4, 1), *f = hash_flen_create(7, 4, 0, 4);
        const char *k;
        const void *fk;
        return hash_str_enter(s, nullptr, &k, nullptr) == 0 && strcmp(k, "") == 0 &&
               hash_str_lookup(s, "", nullptr, nullptr) == 1 && hash_str_free(s, nullptr, nullptr, nullptr) == 1 &&
               hash_flen_enter(f, nullptr, &fk, nullptr) == 0 && memcmp(fk, "\0\0\0\0", 4) == 0 &&
               hash_flen_lookup(f, "\0\0\0\0", nullptr, nullptr) == 1 &&
               hash_flen_lookup_action(f, "\0\0\0\0", &fk, nullptr, 3) == 0 && fk == nullptr ? 0 : 1;
    });
    std::string error = "noname: Error: Unexpected error in hash package.\n";
    EXPECT_TRUE(r.exit_code() == 0 && r.out.empty() && r.err == error + error + error + error) << r.err;
#if !defined(__SANITIZE_ADDRESS__)
    r = ks_test::run_in_child([] { // 1048573 bucket pointers cannot fit under a tight limit
        malloc_trim(0); // so that the array must be mapped anew
        rlim_t now = strtoul(ks_test::read_file("/proc/self/statm").c_str(), nullptr, 10) * 4096 + (4u << 20);
        struct rlimit rl = {now, now};
        return setrlimit(RLIMIT_AS, &rl) != 0 ? 3 : hash_int_create(2000000, 0) == nullptr ? 0 : 1;
    });
    EXPECT_TRUE(r.exit_code() == 0 && r.err == "noname: Error: No more memory available.\nnoname: Error: Out of memory")
        << r.exit_code() << r.err;
#endif
}

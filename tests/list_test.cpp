// Lists with attribute bytes, intrusive doubly linked lists and stacks.
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/time.h>

#include <vector>

#include <gtest/gtest.h>

#include "ks/list.h"
#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks_test_util.h"

namespace {

std::vector<intptr_t> contents(const list_t *list)
{
    std::vector<intptr_t> v;
    void *d;
    for (list_elem_t *e = list_next(list, nullptr, &d); e; e = list_next(list, e, &d))
        v.push_back(reinterpret_cast<intptr_t>(d));
    return v;
}

void *P(intptr_t v)
{
    return reinterpret_cast<void *>(v);
}

std::vector<intptr_t> llist_contents(const llist_d_node_t *head)
{
    std::vector<intptr_t> v;
    for (const llist_d_node_t *n = head->next; n != head; n = n->next) {
        EXPECT_EQ(n->next->prev, n);
        v.push_back(reinterpret_cast<intptr_t>(n->data));
    }
    return v;
}

int ascending(void *a, void *b)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(a) - reinterpret_cast<intptr_t>(b));
}

int always_equal(void *, void *)
{
    return 0;
}

class ListBothAreas : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override { area_ = GetParam() ? STG_AREA_HEAP : stg_create_area(256); }
    void TearDown() override
    {
        if (area_ != STG_AREA_HEAP)
            stg_delete_area(&area_);
    }
    stg_area_t area_ = STG_AREA_NULL;
};

} // namespace

TEST(List, RecordsHaveTheFieldsInOrder)
{
    EXPECT_EQ(offsetof(list_elem_t, next), 0u);
    EXPECT_EQ(offsetof(list_elem_t, data), sizeof(void *));
    EXPECT_LT(offsetof(list_t, first), offsetof(list_t, last));
    EXPECT_LT(offsetof(list_t, last), offsetof(list_t, area));
    EXPECT_LT(offsetof(list_t, area), offsetof(list_t, attr_size));
    EXPECT_LT(offsetof(llist_d_node_t, next), offsetof(llist_d_node_t, prev));
    EXPECT_LT(offsetof(llist_d_node_t, prev), offsetof(llist_d_node_t, data));
    EXPECT_LT(offsetof(stack_entry_t, prev_top), offsetof(stack_entry_t, size));
    EXPECT_LT(offsetof(stack_entry_t, size), offsetof(stack_entry_t, item));
}

TEST_P(ListBothAreas, EmptyListEdges)
{
    list_t *l = list_create(area_, 0);
    void *d = P(99);
    EXPECT_TRUE(list_is_empty(l));
    EXPECT_EQ(list_next(l, nullptr, &d), nullptr);
    EXPECT_EQ(d, nullptr);
    d = P(99);
    EXPECT_EQ(list_final(l, &d), nullptr);
    EXPECT_EQ(d, nullptr);
    EXPECT_EQ(list_length(l), 0u);
    EXPECT_TRUE(list_is_empty(nullptr));
    EXPECT_EQ(list_length(nullptr), 0u);
    list_destroy(l);
}

TEST_P(ListBothAreas, AppendInsertAndFinal)
{
    list_t *l = list_create(area_, 0);
    list_elem_t *a = list_insert(l, nullptr, P(1)); // empty: first and last
    EXPECT_EQ(l->first, a);
    EXPECT_EQ(l->last, a);
    list_elem_t *c = list_append(l, P(3));
    list_elem_t *b = list_insert(l, a, P(2));
    list_elem_t *d = list_insert(l, c, P(4)); // after the last: becomes last
    EXPECT_EQ(l->last, d);
    list_insert(l, nullptr, P(0));
    EXPECT_EQ(contents(l), (std::vector<intptr_t>{0, 1, 2, 3, 4}));
    void *data;
    EXPECT_EQ(list_final(l, &data), d);
    EXPECT_EQ(data, P(4));
    EXPECT_EQ(list_length(l), 5u);
    EXPECT_FALSE(list_is_empty(l));
    EXPECT_EQ(list_get_data(l, b), P(2));
    list_set_data(l, b, P(22));
    EXPECT_EQ(contents(l), (std::vector<intptr_t>{0, 1, 22, 3, 4}));
    EXPECT_EQ(pfm_inhibit_count(), 0);
    list_destroy(l);
}

TEST_P(ListBothAreas, RemoveFixesFirstAndLast)
{
    list_t *l = list_create(area_, 0);
    list_elem_t *only = list_append(l, P(1));
    list_remove(l, only);
    EXPECT_EQ(l->first, nullptr);
    EXPECT_EQ(l->last, nullptr);
    EXPECT_TRUE(list_is_empty(l));

    list_elem_t *a = list_append(l, P(1));
    list_append(l, P(2));
    list_elem_t *c = list_append(l, P(3));
    list_remove(l, c); // the last: last moves back to its predecessor
    EXPECT_EQ(l->last->data, P(2));
    list_remove(l, a); // the first
    EXPECT_EQ(l->first->data, P(2));
    EXPECT_EQ(l->first, l->last);
    list_elem_t *x = list_append(l, P(4));
    list_append(l, P(5));
    list_remove(l, x); // the middle
    EXPECT_EQ(contents(l), (std::vector<intptr_t>{2, 5}));
    EXPECT_EQ(l->last->data, P(5));
    EXPECT_EQ(pfm_inhibit_count(), 0);
    list_destroy(l);
}

TEST_P(ListBothAreas, AttributesUpToTheirSize)
{
    list_t *l = list_create(area_, 6);
    list_elem_t *e = list_append(l, P(1));
    list_set_attrs(l, e, 6, "abcdef"); // count equal to attr_size is fine
    uint32_t size = 0;
    unsigned char *attrs = static_cast<unsigned char *>(list_get_attrs(l, e, &size));
    EXPECT_EQ(size, 6u);
    EXPECT_EQ(memcmp(attrs, "abcdef", 6), 0);
    // The attribute bytes sit right behind the element's two pointers.
    EXPECT_EQ(attrs, reinterpret_cast<unsigned char *>(e) + sizeof(list_elem_t));
    list_set_attrs(l, e, 2, "XY");
    EXPECT_EQ(memcmp(attrs, "XYcdef", 6), 0);
    list_destroy(l);
}

INSTANTIATE_TEST_SUITE_P(Areas, ListBothAreas, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool> &i) { return i.param ? "Heap" : "Area"; });

TEST(List, HeapListsFreeWhatTheyRemove)
{
    // Under the leak checker a heap list must give back every element and
    // its header; an area list gives nothing back singly.
    list_t *l = list_create(STG_AREA_HEAP, 8);
    for (intptr_t i = 0; i < 100; i++)
        list_append(l, P(i));
    for (int i = 0; i < 50; i++)
        list_remove(l, l->first);
    EXPECT_EQ(list_length(l), 50u);
    list_destroy(l);

    stg_area_t area = stg_create_area(64);
    list_t *al = list_create(area, 0);
    list_elem_t *e = list_append(al, P(7));
    list_remove(al, e);
    // The element is still area memory, untouched by the removal.
    EXPECT_EQ(e->data, P(7));
    list_destroy(al);
    EXPECT_TRUE(list_is_empty(al)); // destroy of an area list leaves it alone
    stg_delete_area(&area);
}

TEST(List, ConcatCopiesElementsAndCommonAttributes)
{
    stg_area_t area = stg_create_area(1024); // not zeroed: fresh memory is 0xFF
    list_t *src = list_create(area, 4);
    list_t *wide = list_create(area, 8);
    list_t *narrow = list_create(area, 2);
    list_append(wide, P(100));
    for (intptr_t i = 1; i <= 3; i++) {
        list_elem_t *e = list_append(src, P(i));
        unsigned char a[4] = {static_cast<unsigned char>(i), 2, 3, 4};
        list_set_attrs(src, e, 4, a);
    }
    EXPECT_EQ(list_concat(wide, src), nullptr);
    EXPECT_EQ(list_concat(narrow, src), nullptr);
    EXPECT_EQ(contents(wide), (std::vector<intptr_t>{100, 1, 2, 3}));
    EXPECT_EQ(contents(narrow), (std::vector<intptr_t>{1, 2, 3}));
    EXPECT_EQ(contents(src), (std::vector<intptr_t>{1, 2, 3}));
    EXPECT_EQ(wide->last->next, nullptr);

    list_elem_t *w = list_next(wide, wide->first, nullptr);
    list_elem_t *n = narrow->first;
    EXPECT_NE(w, src->first);
    for (intptr_t i = 1; i <= 3; i++) {
        const unsigned char *wa = static_cast<unsigned char *>(list_get_attrs(wide, w, nullptr));
        const unsigned char expect_w[8] = {static_cast<unsigned char>(i), 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF};
        EXPECT_EQ(memcmp(wa, expect_w, 8), 0) << "element " << i;
        const unsigned char *na = static_cast<unsigned char *>(list_get_attrs(narrow, n, nullptr));
        EXPECT_EQ(na[0], i);
        EXPECT_EQ(na[1], 2);
        w = w->next;
        n = n->next;
    }
    // Onto itself: one copy of what was there.
    list_concat(src, src);
    EXPECT_EQ(contents(src), (std::vector<intptr_t>{1, 2, 3, 1, 2, 3}));
    list_concat(src, nullptr);
    EXPECT_EQ(list_length(src), 6u);
    EXPECT_EQ(pfm_inhibit_count(), 0);
    stg_delete_area(&area);
}

TEST(List, RemovingAStrangerChangesNothing)
{
    list_t *l = list_create(STG_AREA_HEAP, 0);
    list_t *other = list_create(STG_AREA_HEAP, 0);
    list_append(l, P(1));
    list_elem_t *stranger = list_append(other, P(2));
    list_remove(l, stranger);
    EXPECT_EQ(contents(l), (std::vector<intptr_t>{1}));
    EXPECT_EQ(contents(other), (std::vector<intptr_t>{2}));
    EXPECT_EQ(pfm_inhibit_count(), 0);
    list_destroy(l);
    list_destroy(other);
}

namespace {
list_t *watched;
volatile sig_atomic_t ticks, torn;

// Runs in the signal handler: the list must always be whole.
void check_list(int)
{
    ticks = ticks + 1;
    const list_elem_t *e = watched->first, *last = nullptr;
    for (; e; e = e->next)
        last = e;
    if (last != watched->last)
        torn = torn + 1;
}
} // namespace

TEST(List, SignalHandlersNeverSeeAHalfLinkedList)
{
    pfm_init();
    pfm_signal(SIGALRM, check_list);
    stg_area_t area = stg_create_area(4096);
    watched = list_create(area, 0);
    ticks = torn = 0;
    struct itimerval it = {{0, 20}, {0, 20}};
    setitimer(ITIMER_REAL, &it, nullptr);
    // Short lists keep the time spent walking small next to the time spent
    // linking, where a torn list could be seen.
    for (intptr_t i = 0; i < 4; i++)
        list_append(watched, P(i));
    for (long round = 0; round < 20000000 && ticks < 3000; round++) {
        list_append(watched, P(round));
        list_insert(watched, watched->last, P(round));
        list_remove(watched, watched->last);
        list_insert(watched, nullptr, P(round));
        list_remove(watched, watched->first);
        list_remove(watched, watched->last);
    }
    struct itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_GT(ticks, 0);
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(pfm_inhibit_count(), 0);
    stg_delete_area(&area);
}

TEST(ListDeathTest, AttributeOverflowPanics)
{
    EXPECT_DEATH(
        {
            list_t *l = list_create(STG_AREA_HEAP, 4);
            list_elem_t *e = list_append(l, nullptr);
            list_set_attrs(l, e, 5, "abcde");
        },
        "Attempt to store 5 attribute bytes in list providing 4 bytes\\.(.|\n)*\\*\\*\\*ABORT\\*\\*\\*  'list\\.cpp'");
}

TEST(ListDeathTest, AllocationFailurePanics)
{
    // The null area hands out nothing.
    EXPECT_DEATH(list_create(STG_AREA_NULL, 0),
                 "Unable to allocate storage(.|\n)*\\*\\*\\*ABORT\\*\\*\\*  'list\\.cpp'");
    EXPECT_DEATH(
        {
            list_t l;
            memset(&l, 0, sizeof l); // area: STG_AREA_NULL
            list_append(&l, nullptr);
        },
        "Unable to allocate storage(.|\n)*ABORT");
    EXPECT_DEATH(
        {
            list_t l;
            memset(&l, 0, sizeof l); // area: STG_AREA_NULL
            list_insert(&l, nullptr, nullptr);
        },
        "Unable to allocate storage(.|\n)*ABORT");
    EXPECT_DEATH(
        {
            list_t *src = list_create(STG_AREA_HEAP, 0);
            list_append(src, nullptr);
            list_t dst;
            memset(&dst, 0, sizeof dst);
            list_concat(&dst, src);
        },
        "Unable to allocate storage(.|\n)*ABORT");
}

TEST(LlistD, ZeroHeadIsInitialisedByTheFirstInsert)
{
    llist_d_node_t head = {nullptr, nullptr, nullptr};
    llist_d_node_t a = {}, b = {}, c = {};
    llist_d_insert(&head, P(1), &a, LLIST_D_TAIL);
    EXPECT_EQ(head.next, &a);
    EXPECT_EQ(head.prev, &a);
    EXPECT_EQ(a.next, &head);
    EXPECT_EQ(a.data, P(1));
    llist_d_insert(&head, P(2), &b, LLIST_D_TAIL);
    llist_d_insert(&head, P(0), &c, LLIST_D_FRONT);
    EXPECT_EQ(llist_contents(&head), (std::vector<intptr_t>{0, 1, 2}));
}

TEST(LlistD, OrderProcedureKeepsAscendingNewBeforeEqual)
{
    llist_d_node_t head = {};
    llist_d_node_t n[7] = {};
    const intptr_t vals[7] = {5, 1, 9, 5, 3, 9, 0};
    for (int i = 0; i < 7; i++)
        llist_d_insert(&head, P(vals[i]), &n[i], ascending);
    EXPECT_EQ(llist_contents(&head), (std::vector<intptr_t>{0, 1, 3, 5, 5, 9, 9}));
    // The second 5 went in front of the first one.
    EXPECT_EQ(head.next->next->next->next, &n[3]);
    EXPECT_EQ(head.prev, &n[2]);
    EXPECT_EQ(head.prev->next, &head);

    llist_d_node_t h2 = {}, x = {}, y = {}, z = {};
    llist_d_insert(&h2, P(1), &x, LLIST_D_TAIL);
    llist_d_insert(&h2, P(2), &y, LLIST_D_TAIL);
    llist_d_insert(&h2, P(3), &z, always_equal); // 0 for every node: goes first
    EXPECT_EQ(llist_contents(&h2), (std::vector<intptr_t>{3, 1, 2}));
}

TEST(LlistD, InsertBeforeAndRemove)
{
    llist_d_node_t head = {};
    llist_d_node_t a = {}, b = {}, c = {};
    llist_d_insert_before(&head, P(1), &a, &head); // the head: at the tail
    llist_d_insert_before(&head, P(3), &c, &head);
    llist_d_insert_before(&head, P(2), &b, &c);
    EXPECT_EQ(llist_contents(&head), (std::vector<intptr_t>{1, 2, 3}));
    EXPECT_EQ(llist_d_remove(&b), P(2));
    EXPECT_EQ(b.next, nullptr);
    EXPECT_EQ(b.prev, nullptr);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(llist_contents(&head), (std::vector<intptr_t>{1, 3}));
    llist_d_remove_list(&head);
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(head.prev, &head);
    EXPECT_EQ(a.next, nullptr);
    EXPECT_EQ(c.prev, nullptr);
    EXPECT_EQ(c.data, nullptr);
    llist_d_remove_list(&head); // an empty list stays empty
    EXPECT_EQ(head.next, &head);
}

TEST(LlistDDeathTest, RemovingAnUnlinkedNodeFailsTheAssertion)
{
    EXPECT_DEATH(
        {
            llist_d_node_t n = {};
            llist_d_remove(&n);
        },
        "PFM_ASSERT:\\(elem->next != NULL && elem->prev != NULL\\) failed: 'llist\\.cpp'");
    EXPECT_DEATH(
        {
            llist_d_node_t head = {};
            llist_d_remove_list(&head);
        },
        "PFM_ASSERT:\\(elem->next != NULL && elem->prev != NULL\\) failed");
}

TEST(Stack, PopDoesNotShortenTheList)
{
    stack_rec_t *s = stack_create(STG_AREA_HEAP, 16);
    ASSERT_NE(s, nullptr);
    int a = 1, b = 2;
    EXPECT_EQ(stack_push(s, &a), 0);
    EXPECT_EQ(stack_push(s, &b), 0);
    void *item;
    uint32_t size;
    EXPECT_EQ(stack_pop(s, &item, &size), 0);
    EXPECT_EQ(item, &b);
    EXPECT_EQ(size, 16u);
    EXPECT_EQ(stack_pop(s, &item, &size), 0);
    EXPECT_EQ(item, &a);
    item = P(5);
    size = 5;
    EXPECT_EQ(stack_pop(s, &item, &size), 1);
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(stack_depth(s), 2u); // pushes, not height
    stack_destroy(&s);
    EXPECT_EQ(s, nullptr);
}

TEST(Stack, VariableSizesInAnArea)
{
    stg_area_t area = stg_create_area(128);
    stack_rec_t *s = stack_create(area, 4);
    ASSERT_NE(s, nullptr);
    for (intptr_t i = 1; i <= 10; i++)
        EXPECT_EQ(i % 2 ? stack_push(s, P(i)) : stack_varlen_push(s, P(i), static_cast<uint32_t>(i * 100)), 0);
    for (intptr_t i = 10; i >= 6; i--) {
        void *item;
        uint32_t size;
        ASSERT_EQ(stack_pop(s, &item, &size), 0);
        EXPECT_EQ(item, P(i));
        EXPECT_EQ(size, i % 2 ? 4u : static_cast<uint32_t>(i * 100));
    }
    // Pushing again after pops continues from the right entry.
    EXPECT_EQ(stack_varlen_push(s, P(42), 7), 0);
    void *item;
    uint32_t size;
    EXPECT_EQ(stack_pop(s, &item, &size), 0);
    EXPECT_EQ(item, P(42));
    EXPECT_EQ(size, 7u);
    EXPECT_EQ(stack_pop(s, &item, &size), 0);
    EXPECT_EQ(item, P(5));
    EXPECT_EQ(stack_depth(s), 11u);
    stack_destroy(&s);
    EXPECT_EQ(s, nullptr);
    stg_delete_area(&area);
}

TEST(Stack, DestroyWithEntriesLeftFreesThem)
{
    // The leak checker of the sanitizer build holds this test to account.
    stack_rec_t *s = stack_create(STG_AREA_HEAP, 0);
    for (intptr_t i = 0; i < 5; i++)
        stack_push(s, P(i));
    void *item;
    stack_pop(s, &item, nullptr);
    stack_destroy(&s);
    EXPECT_EQ(s, nullptr);
    stack_destroy(&s); // a null handle is left alone
}

TEST(Stack, NullAreaFailsCreation)
{
    EXPECT_EQ(stack_create(STG_AREA_NULL, 4), nullptr);
}

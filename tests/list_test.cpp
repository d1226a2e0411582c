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

namespace {

using V = std::vector<intptr_t>;
const auto P = [](intptr_t v) { return reinterpret_cast<void *>(v); };

V contents(const list_t *list)
{
    V v;
    void *d;
    for (list_elem_t *e = list_next(list, nullptr, &d); e; e = list_next(list, e, &d))
        v.push_back(reinterpret_cast<intptr_t>(d));
    return v;
}

// Walks forward, checking every back link on the way.
V llist_contents(const llist_d_node_t *head)
{
    V v;
    for (const llist_d_node_t *n = head->next; n != head; n = n->next) {
        EXPECT_EQ(n->next->prev, n);
        v.push_back(reinterpret_cast<intptr_t>(n->data));
    }
    return v;
}

list_t *watched;
volatile sig_atomic_t ticks, torn;

// Runs in the signal handler: the list must always be whole.
void check_list(int)
{
    const list_elem_t *e = watched->first;
    while (e && e->next)
        e = e->next;
    ticks = ticks + 1;
    torn = torn + (e != watched->last);
}

} // namespace

// The heap list is left holding elements at destroy: the leak checker of the
// sanitizer build sees whether destroy and remove give everything back.  Area
// lists, which must not free, are edited by the signal test below.
TEST(List, EditsKeepFirstLastAndOrder)
{
    list_t *l = list_create(STG_AREA_HEAP, 0);
    void *d = P(99), *d2 = P(99);
    EXPECT_TRUE(list_is_empty(l) && list_is_empty(nullptr) && list_length(nullptr) == 0);
    EXPECT_TRUE(!list_next(l, nullptr, &d) && !d && !list_final(l, &d2) && !d2);
    list_elem_t *a = list_insert(l, nullptr, P(1)); // empty: first and last
    EXPECT_TRUE(l->first == a && l->last == a);
    list_remove(l, a); // the only one
    EXPECT_TRUE(l->first == nullptr && l->last == nullptr);
    a = list_insert(l, nullptr, P(1));
    list_elem_t *c = list_append(l, P(3)), *b = list_insert(l, a, P(2));
    list_elem_t *e = list_insert(l, c, P(4)); // after the last: becomes last
    list_insert(l, nullptr, P(0));
    list_set_data(l, b, P(22));
    EXPECT_EQ(contents(l), (V{0, 1, 22, 3, 4}));
    EXPECT_TRUE(list_final(l, &d) == e && d == P(4) && list_length(l) == 5);
    list_remove(l, e); // the last: last moves back
    EXPECT_EQ(l->last, c);
    list_remove(l, l->first);
    list_remove(l, b); // a middle one
    EXPECT_TRUE(contents(l) == (V{1, 3}) && l->first == a && list_get_data(l, a) == P(1));
    list_destroy(l);
}

TEST(List, AttributesAndConcatCopies)
{
    stg_area_t area = stg_create_area(1024); // not zeroed: fresh memory is 0xFF
    list_t *src = list_create(area, 4), *wide = list_create(area, 8), *narrow = list_create(area, 2);
    list_append(wide, P(100));
    for (unsigned char i = 1; i <= 3; i++) {
        const unsigned char full[4] = {9, 9, 3, 4}, head[2] = {i, 2};
        list_elem_t *e = list_append(src, P(i));
        list_set_attrs(src, e, 4, full); // count equal to attr_size is fine
        list_set_attrs(src, e, 2, head); // only the bytes given
    }
    uint32_t size = 0;
    void *attrs = list_get_attrs(src, src->first, &size); // right behind next and data
    EXPECT_TRUE(attrs == reinterpret_cast<char *>(src->first) + 2 * sizeof(void *) && size == 4);
    EXPECT_TRUE(list_concat(wide, src) == nullptr && list_concat(narrow, src) == nullptr);
    EXPECT_TRUE(contents(wide) == (V{100, 1, 2, 3}) && contents(narrow) == (V{1, 2, 3}) && !wide->last->next);
    list_elem_t *w = wide->first->next, *n = narrow->first;
    for (unsigned char i = 1; i <= 3; i++, w = w->next, n = n->next) {
        const unsigned char expect[8] = {i, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF};
        EXPECT_EQ(memcmp(list_get_attrs(wide, w, nullptr), expect, 8), 0) << "element " << int(i);
        EXPECT_EQ(memcmp(list_get_attrs(narrow, n, nullptr), expect, 2), 0) << "element " << int(i);
    }
    list_concat(src, src); // onto itself: one copy of what was there
    list_concat(src, nullptr);
    EXPECT_EQ(contents(src), (V{1, 2, 3, 1, 2, 3}));
    EXPECT_EQ(pfm_inhibit_count(), 0);
    stg_delete_area(&area);
}

TEST(List, SignalHandlersNeverSeeAHalfLinkedList)
{
    pfm_init();
    pfm_signal(SIGALRM, check_list);
    stg_area_t area = stg_create_area(4096);
    watched = list_create(area, 0);
    struct itimerval it = {{0, 20}, {0, 20}}, off = {};
    setitimer(ITIMER_REAL, &it, nullptr);
    // Each round ends empty: short walks, and the ends change at every step.
    for (long round = 0; round < 20000000 && ticks < 3000; round++) {
        list_append(watched, P(round));
        list_insert(watched, watched->last, P(round));
        list_remove(watched, watched->last);
        list_insert(watched, nullptr, P(round));
        list_remove(watched, watched->first);
        list_remove(watched, watched->last);
    }
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_TRUE(ticks > 0 && torn == 0) << ticks << " ticks, " << torn << " torn";
    EXPECT_EQ(pfm_inhibit_count(), 0);
    stg_delete_area(&area);
}

TEST(ListDeathTest, AllocationFailureAndAttributeOverflowPanic)
{
    const char *oom = "Unable to allocate storage(.|\n)*\\*\\*\\*ABORT\\*\\*\\*  'list\\.cpp'";
    list_t dead = {}; // area STG_AREA_NULL: hands out nothing
    list_t *src = list_create(STG_AREA_HEAP, 4);
    list_elem_t *e = list_append(src, nullptr);
    EXPECT_DEATH(list_create(STG_AREA_NULL, 0), oom);
    EXPECT_DEATH(list_append(&dead, nullptr), oom);
    EXPECT_DEATH(list_insert(&dead, nullptr, nullptr), oom);
    EXPECT_DEATH(list_concat(&dead, src), oom);
    EXPECT_DEATH(list_set_attrs(src, e, 5, "abcde"),
                 "Attempt to store 5 attribute bytes in list providing 4 bytes\\.(.|\n)*\\*\\*\\*ABORT\\*\\*\\*");
    list_destroy(src);
}

TEST(LlistD, InsertOrderFormsAndZeroHead)
{
    llist_d_node_t head = {nullptr, nullptr, nullptr}, n[4] = {}, h2 = {}, m[7] = {};
    llist_d_insert(&head, P(1), &n[0], LLIST_D_TAIL);
    llist_d_insert(&head, P(2), &n[1], LLIST_D_TAIL);
    llist_d_insert(&head, P(0), &n[2], LLIST_D_FRONT);
    llist_d_insert(&head, P(3), &n[3], [](void *, void *) { return 0; }); // 0 for all: first
    EXPECT_EQ(llist_contents(&head), (V{3, 0, 1, 2}));
    int i = 0;
    for (intptr_t v : {5, 1, 9, 5, 3, 9, 0})
        llist_d_insert(&h2, P(v), &m[i++], [](void *x, void *y) { return int(intptr_t(x) - intptr_t(y)); });
    EXPECT_EQ(llist_contents(&h2), (V{0, 1, 3, 5, 5, 9, 9}));
    EXPECT_TRUE(h2.next->next->next->next == &m[3] && h2.prev == &m[2]); // new before equal
}

TEST(LlistD, InsertBeforeAndRemoveClearNodes)
{
    llist_d_node_t head = {}, a = {}, b = {}, c = {};
    llist_d_insert_before(&head, P(1), &a, &head); // the head: at the tail
    llist_d_insert_before(&head, P(3), &c, &head);
    llist_d_insert_before(&head, P(2), &b, &c);
    EXPECT_EQ(llist_contents(&head), (V{1, 2, 3}));
    EXPECT_TRUE(llist_d_remove(&b) == P(2) && !b.next && !b.prev && !b.data);
    EXPECT_EQ(llist_contents(&head), (V{1, 3}));
    llist_d_remove_list(&head);
    EXPECT_TRUE(!a.next && !c.prev && !c.data);
    llist_d_remove_list(&head); // an empty list stays empty
    EXPECT_TRUE(head.next == &head && head.prev == &head);
}

TEST(LlistDDeathTest, RemovingAnUnlinkedNodeFailsTheAssertion)
{
    llist_d_node_t n = {};
    const char *text = "PFM_ASSERT:\\(elem->next != NULL && elem->prev != NULL\\) failed: 'llist\\.cpp'";
    EXPECT_DEATH(llist_d_remove(&n), text);
    EXPECT_DEATH(llist_d_remove_list(&n), text);
}

// In an area and on the heap, fixed and variable sizes; the heap stack is
// destroyed with entries left, for the leak checker.
TEST(Stack, PopsInReverseAndDepthCountsPushes)
{
    EXPECT_EQ(stack_create(STG_AREA_NULL, 4), nullptr);
    for (stg_area_t area : {STG_AREA_HEAP, stg_create_area(128)}) {
        SCOPED_TRACE(area == STG_AREA_HEAP ? "heap" : "area");
        stack_rec_t *s = stack_create(area, 4);
        void *item;
        uint32_t size;
        auto pops = [&](intptr_t i, uint32_t sz) { return !stack_pop(s, &item, &size) && item == P(i) && size == sz; };
        EXPECT_TRUE(!stack_push(s, P(1)) && !stack_varlen_push(s, P(2), 200) && !stack_push(s, P(3)));
        EXPECT_TRUE(pops(3, 4));
        EXPECT_EQ(stack_varlen_push(s, P(42), 7), 0); // goes on from the right entry
        EXPECT_TRUE(pops(42, 7) && pops(2, 200) && pops(1, 4));
        size = 5;
        EXPECT_TRUE(stack_pop(s, &item, &size) == 1 && item == nullptr && size == 0);
        EXPECT_EQ(stack_depth(s), 4u); // pushes, not height
        EXPECT_EQ(stack_push(s, P(7)), 0);
        stack_destroy(&s);
        stack_destroy(&s); // a null handle is left alone
        EXPECT_EQ(s, nullptr);
        if (area != STG_AREA_HEAP)
            stg_delete_area(&area);
    }
}

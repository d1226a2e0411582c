// Lists with attribute bytes, intrusive doubly linked lists and stacks.
#include <signal.h>
#include <sys/time.h>

#include <vector>

#include <gtest/gtest.h>

#include "ks/list.h"
#include "ks/pfm.h"
#include "ks/stg.h"

namespace {

using V = std::vector<intptr_t>;
void *P(intptr_t v) { return reinterpret_cast<void *>(v); }

// The data from node from up to end, along next (or another link).
template <typename T>
V walk(T *from, const T *end = nullptr, T *T::*link = &T::next)
{
    V v;
    for (T *n = from; n != end; n = n->*link)
        v.push_back(reinterpret_cast<intptr_t>(n->data));
    return v;
}

V back(llist_d_node_t *head) { return walk(head->prev, head, &llist_d_node_t::prev); }

std::string attrs(list_t *l, list_elem_t *e, size_t n) { return {static_cast<char *>(list_get_attrs(l, e, 0)), n}; }

} // namespace

// Every round edits a heap list from empty to empty while a timer's handler
// walks it: the handler must never see it half linked.  One element is left
// at destroy: the leak checker of the sanitizer build sees whether remove and
// destroy give everything back.
TEST(List, EditsKeepFirstLastAndOrderAndSignalsNeverSeeHalfLinks)
{
    static list_t *l = list_create(STG_AREA_HEAP, 0);
    static volatile sig_atomic_t ticks, torn;
    pfm_init();
    pfm_signal(SIGALRM, [](int) {
        const list_elem_t *e = l->first;
        for (; e && e->next; e = e->next) {}
        ticks = ticks + 1, torn = torn + (e != l->last);
    });
    void *d = P(99), *d2 = P(99);
    struct itimerval it = {{0, 20}, {0, 20}}, off = {};
    setitimer(ITIMER_REAL, &it, nullptr);
    for (long round = 0; round < 20000000 && ticks < 3000; round++) {
        ASSERT_TRUE(list_is_empty(l) && !list_next(l, nullptr, &d) && !d && !list_final(l, &d2) && !d2);
        list_elem_t *a = list_insert(l, nullptr, P(1)); // empty: first and last
        ASSERT_TRUE(l->first == a && l->last == a);
        list_remove(l, a); // the only one
        list_elem_t *c = list_append(l, P(3)), *b = list_insert(l, a = list_insert(l, nullptr, P(1)), P(2));
        list_elem_t *e = list_insert(l, c, P(4)); // after the last: the new last
        list_set_data(l, list_insert(l, nullptr, P(7)), P(0));
        ASSERT_TRUE(walk(l->first) == (V{0, 1, 2, 3, 4}) && list_final(l, &d) == e && d == P(4) && list_length(l) == 5);
        list_remove(l, e), list_remove(l, l->first), list_remove(l, b); // the last (last moves back), first, middle
        ASSERT_TRUE(walk(l->first) == (V{1, 3}) && l->first == a && l->last == c && list_get_data(l, a) == P(1));
        list_remove(l, c), list_remove(l, a);
    }
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_TRUE(ticks > 0 && torn == 0 && pfm_inhibit_count() == 0) << ticks << " ticks, " << torn << " torn";
    EXPECT_TRUE(list_is_empty(nullptr) && !list_length(nullptr) && list_append(l, P(5)));
    list_destroy(l);
}

// Fresh area memory is 0xFF: attribute bytes no one set show it.
TEST(List, AttributesAndConcatCopies)
{
    stg_area_t area = stg_create_area(1024);
    list_t *src = list_create(area, 4), *wide = list_create(area, 8), *narrow = list_create(area, 2);
    list_append(wide, P(100));
    for (char i = 1; i <= 3; i++) {
        list_elem_t *e = list_append(src, P(i));
        list_set_attrs(src, e, 4, "\11\11\3\4"); // count equal to attr_size is fine
        list_set_attrs(src, e, 2, std::string({i, 2}).data()); // only the bytes given
    }
    uint32_t size = 0;
    EXPECT_TRUE(list_get_attrs(src, src->first, &size) == &src->first->data + 1 && size == 4); // right behind data
    EXPECT_TRUE(!list_concat(wide, src) && !list_concat(narrow, src) && walk(wide->first) == (V{100, 1, 2, 3}));
    for (list_elem_t *w = wide->first->next, *n = narrow->first; n; w = w->next, n = n->next)
        EXPECT_EQ(attrs(wide, w, 8), attrs(narrow, n, 2) + "\3\4\xff\xff\xff\xff");
    EXPECT_EQ(attrs(narrow, narrow->last, 2), "\3\2");
    list_concat(src, src); // onto itself: one copy of what was there
    EXPECT_TRUE(!list_concat(src, nullptr) && walk(src->first) == (V{1, 2, 3, 1, 2, 3}));
    EXPECT_EQ(attrs(src, src->last, 4), "\3\2\3\4");
    list_remove(src, src->first), list_destroy(src); // the area keeps its memory
    stg_delete_area(&area);
}

TEST(ListDeathTest, AllocationFailureAttributeOverflowAndUnlinkedNodesAbort)
{
    const char *oom = "Unable to allocate storage(.|\n)*\\*\\*\\*ABORT\\*\\*\\*  'list\\.cpp'";
    list_elem_t el = {};
    list_t dead = {}, one = {&el, &el, STG_AREA_NULL, 4}; // area STG_AREA_NULL: hands out nothing
    EXPECT_DEATH(list_create(STG_AREA_NULL, 0), oom);
    EXPECT_DEATH(list_append(&dead, nullptr), oom);
    EXPECT_DEATH(list_concat(&dead, &one), oom);
    EXPECT_DEATH(list_set_attrs(&one, &el, 5, "abcde"),
                 "Attempt to store 5 attribute bytes in list providing 4 bytes\\.(.|\n)*\\*\\*\\*ABORT\\*\\*\\*");
    llist_d_node_t n = {};
    EXPECT_DEATH(llist_d_remove(&n), "\\(elem->next != NULL && elem->prev != NULL\\) failed: 'llist'");
    EXPECT_DEATH(llist_d_remove_list(&n), "\\(elem->next != NULL && elem->prev != NULL\\) failed: 'llist'");
}

TEST(LlistD, InsertInEveryOrderRemoveAndClear)
{
    llist_d_node_t head = {}, h2 = {}, n[4] = {}, m[7] = {}; // zero-filled heads: empty lists
    llist_d_insert(&head, P(1), &n[0], LLIST_D_TAIL);
    llist_d_insert(&head, P(0), &n[1], LLIST_D_FRONT);
    llist_d_insert_before(&head, P(2), &n[2], &head); // before the head: at the tail
    llist_d_insert(&head, P(3), &n[3], [](void *, void *) { return 0; }); // 0 for all: first
    EXPECT_TRUE(walk(head.next, &head) == (V{3, 0, 1, 2}) && back(&head) == (V{2, 1, 0, 3}));
    EXPECT_TRUE(llist_d_remove(&n[0]) == P(1) && !n[0].next && !n[0].prev && !n[0].data);
    EXPECT_TRUE(walk(head.next, &head) == (V{3, 0, 2}) && back(&head) == (V{2, 0, 3}));
    llist_d_remove_list(&head), llist_d_remove_list(&head); // the second finds it empty
    EXPECT_TRUE(head.next == &head && head.prev == &head && !n[3].next && !n[2].prev && !n[1].data);
    int i = 0;
    for (intptr_t v : {5, 1, 9, 5, 3, 9, 0}) // ascending; the new node before equal ones
        llist_d_insert(&h2, P(v), &m[i++], [](void *x, void *y) { return int(intptr_t(x) - intptr_t(y)); });
    EXPECT_TRUE(walk(h2.next, &h2) == (V{0, 1, 3, 5, 5, 9, 9}) && h2.next->next->next->next == &m[3]);
}

// In an area and on the heap; the heap stack is destroyed with entries left, for the leak checker.
TEST(Stack, PopsInReverseAndDepthCountsPushes)
{
    for (stg_area_t area : {STG_AREA_HEAP, stg_create_area(128)}) {
        stack_rec_t *s = stack_create(area, 4);
        void *item;
        uint32_t size = 5;
        auto pops = [&](intptr_t i, uint32_t sz) { return !stack_pop(s, &item, &size) && item == P(i) && size == sz; };
        EXPECT_TRUE(!stack_push(s, P(1)) && !stack_varlen_push(s, P(2), 200) && !stack_push(s, P(3)) && pops(3, 4));
        EXPECT_TRUE(!stack_varlen_push(s, P(42), 7) && pops(42, 7) && pops(2, 200) && pops(1, 4));
        // Popping an empty stack; the depth counts pushes, not the height; one entry left.
        EXPECT_TRUE(stack_pop(s, &item, &size) == 1 && !item && !size && stack_depth(s) == 4 && !stack_push(s, P(7)));
        stack_destroy(&s), stack_destroy(&s); // a null handle is left alone
        EXPECT_TRUE(s == nullptr && stack_create(STG_AREA_NULL, 4) == nullptr);
        stg_delete_area(&area); // nothing to do for the heap
    }
}

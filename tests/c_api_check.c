/* Compiled as C99 with -pedantic: every public header must be plain C.
 * Calls into each module through the shared library's C entry points.
 * Strict ISO C sees no POSIX names: the clean-up records need sigsetjmp. */
#define _POSIX_C_SOURCE 200809L

#include "ks_all_headers.h"
#include "ks_msg.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int failures;

#define CHECK(cond)                                                      \
    do {                                                                 \
        if (!(cond)) {                                                   \
            fprintf(stderr, "c_api_check:%d: %s\n", __LINE__, #cond);    \
            failures++;                                                  \
        }                                                                \
    } while (0)

static int ascending(void *new_data, void *old_data)
{
    return *(int *)new_data - *(int *)old_data;
}

int main(int argc, char **argv)
{
    stg_area_t area;
    char buf[1024];
    char *s;
    long n;
    time_t t;
    pfm_cleanup_t rec;
    list_t *list;
    llist_d_node_t head, a, b;
    hash_table_t *table;
    void *data;
    const char *key;
    credutl_sid_t sid;
    cl_handle_t *cl;
    int err = 0;
    static int one = 1, two = 2;
    (void)argc;

    CHECK(ks_system_init() == 1);
    imsg_set_app_name(argv[0]);
    CHECK(strcmp(imsg_get_app_name(), "c_api_check") == 0);

    area = stg_create_area(64);
    s = stg_area_strdup(area, "frame");
    CHECK(s != NULL && strcmp(s, "frame") == 0);

    CHECK(imsg_snprintf(buf, sizeof buf, &_ks_ks_msg_table, KS_MSG_OPERATION, "open", "gone") == 21);
    CHECK(strcmp(buf, "Operation open: gone\n") == 0);

    pfm_inhibit();
    CHECK(pfm_inhibit_count() == 1);
    pfm_enable();
    if (PFM_CLEANUP_START(&rec, 0) == 0) {
        pfm_raise(9);
    } else {
        CHECK(rec.value == 9);
        pfm_enable();
    }
    CHECK(pfm_inhibit_count() == 0);

    CHECK(strutl_strtol("42", 10, &n) == 0 && n == 42);
    CHECK(strutl_concat(buf, sizeof buf, 3, "a", "/", "b") == 0 && strcmp(buf, "a/b") == 0);

    CHECK(date_str_to_time("none", &t) == 0 && t == 0);

    list = list_create(area, 0);
    list_append(list, "x");
    CHECK(list_length(list) == 1);
    memset(&head, 0, sizeof head);
    llist_d_insert(&head, &two, &b, ascending);
    llist_d_insert(&head, &one, &a, ascending);
    CHECK(head.next == &a);

    table = hash_str_create(10, sizeof(int), 1);
    CHECK(hash_str_enter(table, "key", &key, &data) == 0);
    CHECK(hash_str_lookup(table, "key", &key, &data) == 1 && strcmp(key, "key") == 0);
    hash_delete_ht(&table);

    CHECK(credutl_str_to_sid("UNIX:GID-100", &sid) == 0);
    CHECK(strcmp(credutl_sid_to_str(&sid, buf), "UNIX:GID-100") == 0);

    cl = cl_parse_line("-a file", &err);
    CHECK(cl != NULL && cl_getopt(cl, "a") == 'a');
    cl_destroy(&cl);

    stg_delete_area(&area);
    CHECK(area == STG_AREA_NULL);
    if (failures == 0)
        imsg_print(IMSG_OK, "c_api_check: every module answered from C\n", -1);
    return failures != 0;
}

/* kstool glob and match: patterns expanded against the file system, and a
 * pattern's compiled form tried against names. */
#include <stdio.h>

#include "ks/stg.h"
#include "ks/wild.h"
#include "kstool.h"
#include "kstool_wild_msg.h"

/* Longest pattern "kstool match" compiles. */
#define MAX_COMPILED 4096

enum { F_PATHNAME = 1, F_PLAIN };

static const clp_flag_desc_t match_flags[] = {
    CLP_START_MUTUAL_EXCLUSION,
    {"-pa[thname]", F_PATHNAME, 0},
    {"-pl[ain]", F_PLAIN, 0},
    CLP_END_MUTUAL_EXCLUSION,
    CLP_END_OF_FLAGS,
};

static void on_match_flag(uint32_t value, clp_hdl_t *h, void *ctx)
{
    (void)h;
    *(uint32_t *)ctx = value;
}

static void print_bad_pattern(int rc, const char *pattern)
{
    int index = rc == WILD_BAD_CLASS ? KSTOOL_WILD_MSG_BAD_PATTERN : KSTOOL_WILD_MSG_NO_STORAGE;
    imsg_print(IMSG_ERROR, &_kstool_wild_msg_table, index, pattern);
}

/* Each pattern on its own: its names sorted, one a line.  Status 1 when one
 * matched nothing, 2 for a bad pattern. */
int kstool_glob(int argc, char **argv)
{
    int first, i, status = 0;
    if (kstool_parse(argc, argv, kstool_no_flags, kstool_ignore_flag, NULL, &first))
        return 2;
    if (first >= argc) {
        imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_MISSING, "PATTERN");
        return 2;
    }
    for (i = first; i < argc; i++) {
        stg_area_t area = stg_create_area(4096);
        char **names = NULL;
        int j, n = area ? wild_glob_ext(argv[i], WILD_GLOB_WHOLE, area, &names) : -3;
        if (n < 0) {
            print_bad_pattern(n, argv[i]);
            status = 2;
        } else if (n == 0) {
            imsg_print(IMSG_ERROR, &_kstool_wild_msg_table, KSTOOL_WILD_MSG_NO_MATCH, argv[i]);
            if (status == 0)
                status = 1;
        }
        for (j = 0; j < n; j++)
            imsg_print(IMSG_OK, &_kstool_wild_msg_table, KSTOOL_WILD_MSG_NAME, names[j]);
        stg_delete_area(&area);
    }
    return status;
}

/* The compiled form in hexadecimal, its NUL included. */
static void print_compiled(const char *pattern, const char *compiled, int len)
{
    static char hex[3 * MAX_COMPILED + 1];
    int i;
    for (i = 0; i < len; i++)
        sprintf(hex + 3 * i, "%02x ", (unsigned char)compiled[i]);
    if (len > 0)
        hex[3 * len - 1] = '\0';
    imsg_print(IMSG_OK, &_kstool_wild_msg_table, KSTOOL_WILD_MSG_COMPILED, pattern, len, hex);
}

/* Tries each name in plain mode, in pathname mode, or (by default) both.
 * Status 0 when every try matched, 1 otherwise, 2 for a bad pattern. */
int kstool_match(int argc, char **argv)
{
    static char compiled[MAX_COMPILED + 4];
    uint32_t which = 0;
    int first, i, mode, len, status = 0;
    if (kstool_parse(argc, argv, match_flags, on_match_flag, &which, &first))
        return 2;
    if (first + 1 >= argc) {
        imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_MISSING, first >= argc ? "PATTERN" : "NAME");
        return 2;
    }
    len = wild_compile_pattern(argv[first], sizeof compiled, compiled, NULL);
    if (len < 0) {
        if (len == WILD_NO_ROOM)
            imsg_print(IMSG_ERROR, &_kstool_wild_msg_table, KSTOOL_WILD_MSG_TOO_LONG, argv[first]);
        else
            print_bad_pattern(len, argv[first]);
        return 2;
    }
    print_compiled(argv[first], compiled, len);
    for (i = first + 1; i < argc; i++)
        for (mode = 0; mode < 2; mode++) {
            if ((mode == 0 && which == F_PATHNAME) || (mode == 1 && which == F_PLAIN))
                continue;
            if (wild_match(compiled, argv[i], mode)) {
                imsg_print(IMSG_OK, &_kstool_wild_msg_table, KSTOOL_WILD_MSG_MATCH, mode ? "pathname" : "plain", argv[i]);
            } else {
                imsg_print(IMSG_OK, &_kstool_wild_msg_table, KSTOOL_WILD_MSG_NO_MATCH_NAME, mode ? "pathname" : "plain", argv[i]);
                status = 1;
            }
        }
    return status;
}

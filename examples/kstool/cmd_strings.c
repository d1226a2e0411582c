/* kstool expand, scramble, unscramble: the string utilities. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "ks/stg.h"
#include "ks/strutl.h"
#include "kstool.h"

enum { F_ITERATE = 1 };

static const clp_flag_desc_t expand_flags[] = {
    {"-i[terate]", F_ITERATE, 0},
    CLP_END_OF_FLAGS,
};

struct expand_opts {
    int iterate;
    int max;
};

static void on_expand_flag(uint32_t value, clp_hdl_t *h, void *ctx)
{
    struct expand_opts *o = ctx;
    char *word;
    long n;
    if (value != F_ITERATE)
        return;
    o->iterate = 1;
    /* An optional pass count follows the flag. */
    if (clp_get_next_arg(h, &word) == 0) {
        if (strutl_strtol(word, 10, &n) == 0)
            o->max = (int)n;
        else
            clp_unget_arg(h);
    }
}

int kstool_expand(int argc, char **argv)
{
    struct expand_opts o = {0, 0};
    int first, i, status = 0;
    if (kstool_parse(argc, argv, expand_flags, on_expand_flag, &o, &first))
        return 2;
    if (first >= argc) {
        imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_MISSING, "TEXT");
        return 2;
    }
    for (i = first; i < argc; i++) {
        char *out = o.iterate ? strutl_expand_evs_iterate(argv[i], o.max) : strutl_expand_evs(argv[i]);
        if (out == NULL) {
            imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_CANNOT_EXPAND, argv[i], imsg_strerror(errno));
            status = 1;
            continue;
        }
        imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_LINE, out);
        stg_free(out);
    }
    return status;
}

/* Runs fn over every argument into a buffer of four symbols per three bytes. */
static int each_text(int argc, char **argv, int (*fn)(const char *, char *, size_t), int failure_msg)
{
    int first, i, status = 0;
    if (kstool_parse(argc, argv, kstool_no_flags, kstool_ignore_flag, NULL, &first))
        return 2;
    if (first >= argc) {
        imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_MISSING, "TEXT");
        return 2;
    }
    for (i = first; i < argc; i++) {
        size_t size = strlen(argv[i]) * 4 / 3 + 8;
        char *out = stg_malloc(size);
        if (out == NULL)
            return 1;
        if (fn(argv[i], out, size) == 0) {
            imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_MAPPING, argv[i], out);
        } else {
            imsg_print(IMSG_ERROR, &_kstool_msg_table, failure_msg, argv[i]);
            status = 1;
        }
        stg_free(out);
    }
    return status;
}

int kstool_scramble(int argc, char **argv)
{
    return each_text(argc, argv, strutl_extract_head, KSTOOL_MSG_CANNOT_UNSCRAMBLE);
}

int kstool_unscramble(int argc, char **argv)
{
    return each_text(argc, argv, strutl_extract_tail, KSTOOL_MSG_CANNOT_UNSCRAMBLE);
}

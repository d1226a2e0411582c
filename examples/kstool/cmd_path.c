/* kstool path: pathnames taken apart and put together, and host:path names. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "ks/cl.h"
#include "ks/fileutl.h"
#include "ks/strutl.h"
#include "kstool.h"
#include "kstool_path_msg.h"

enum { F_DOT = 1, F_FOLD, F_UP };

static const clp_flag_desc_t rel_flags[] = {
    {"-d[ot]", F_DOT, 0},
    {"-f[old]", F_FOLD, 0},
    {"-u[p]", F_UP, 0},
    CLP_END_OF_FLAGS,
};

struct rel_opts {
    int dot_ok;
    int fold;
    int max_up;
    int bad;
};

static void on_rel_flag(uint32_t value, clp_hdl_t *h, void *ctx)
{
    struct rel_opts *o = ctx;
    char *word;
    long n;
    if (value == F_DOT) {
        o->dot_ok = 1;
    } else if (value == F_FOLD) {
        o->fold = 1;
    } else if (clp_get_next_arg(h, &word) == 0) { /* -up N */
        if (strutl_strtol(word, 10, &n) == 0 && n >= 0 && n < 1024) {
            o->max_up = (int)n;
        } else {
            imsg_print(IMSG_ERROR, &_kstool_path_msg_table, KSTOOL_PATH_MSG_BAD_LEVELS, word);
            o->bad = 1;
        }
    } else {
        imsg_print(IMSG_ERROR, &_kstool_path_msg_table, KSTOOL_PATH_MSG_MISSING, "N");
        o->bad = 1;
    }
}

static int failed(const char *arg)
{
    imsg_print(IMSG_ERROR, &_kstool_path_msg_table, KSTOOL_PATH_MSG_FAILED, arg, imsg_strerror(errno));
    return 1;
}

static int result(const char *text)
{
    imsg_print(IMSG_OK, &_kstool_path_msg_table, KSTOOL_PATH_MSG_RESULT, text);
    return 0;
}

/* One argument of the operations that take each argument alone. */
static int one(const char *op, const char *arg)
{
    char a[KS_PATH_BUF], b[KS_PATH_BUF];
    if (cl_match(op, "n[ormalise]"))
        return fileutl_remove_embedded_dots(arg, a, sizeof a) != NULL ? result(a) : failed(arg);
    if (cl_match(op, "w[here]"))
        return fileutl_where(arg, a, sizeof a) == 0 ? result(a) : failed(arg);
    if (cl_match(op, "u[nwhere]"))
        return fileutl_unwhere(arg, a, sizeof a) == 0 ? result(a) : failed(arg);
    if (cl_match(op, "l[eaf]") ? fileutl_strip_leaf(arg, sizeof a, a, sizeof b, b) != 0
        : cl_match(op, "s[uffix]") ? fileutl_strip_suffix(arg, sizeof a, a, sizeof b, b) != 0
                                   : fileutl_strip_hostname(arg, sizeof a, a, sizeof b, b) != 0)
        return failed(arg);
    imsg_print(IMSG_OK, &_kstool_path_msg_table,
               cl_match(op, "l[eaf]") ? KSTOOL_PATH_MSG_LEAF
               : cl_match(op, "s[uffix]") ? KSTOOL_PATH_MSG_SUFFIX
                                          : KSTOOL_PATH_MSG_HOST,
               a, b);
    return 0;
}

static int path_abs(int argc, char **argv, int first)
{
    char cwd[KS_PATH_BUF], out[KS_PATH_BUF];
    const char *base = first + 1 < argc ? argv[first + 1] : fileutl_getcwd(cwd, sizeof cwd);
    if (base == NULL)
        return failed(".");
    return fileutl_make_abs_pn(out, sizeof out, argv[first], base) != NULL ? result(out) : failed(argv[first]);
}

static int path_rel(int argc, char **argv)
{
    struct rel_opts o = {0, 0, 0, 0};
    char out[KS_PATH_BUF];
    int first;
    if (kstool_parse(argc, argv, rel_flags, on_rel_flag, &o, &first) || o.bad)
        return 2;
    if (first + 2 > argc) {
        imsg_print(IMSG_ERROR, &_kstool_path_msg_table, KSTOOL_PATH_MSG_MISSING, first + 1 > argc ? "PATH" : "BASE");
        return 2;
    }
    errno = 0;
    fileutl_make_rel_pn(out, sizeof out, argv[first], argv[first + 1], o.dot_ok, o.fold, o.max_up);
    return errno == ENAMETOOLONG ? failed(argv[first]) : result(out);
}

int kstool_path(int argc, char **argv)
{
    static const char *const ops[] = {"n[ormalise]", "ab[s]", "r[el]", "l[eaf]", "s[uffix]", "h[ost]", "w[here]", "u[nwhere]"};
    int first, i, known = 0, status = 0;
    if (argc < 2) {
        imsg_print(IMSG_OK, &_kstool_path_msg_table, KSTOOL_PATH_MSG_USAGE);
        return 0;
    }
    for (i = 0; i < (int)(sizeof ops / sizeof ops[0]); i++)
        known |= cl_match(argv[1], ops[i]);
    if (!known) {
        imsg_print(IMSG_ERROR, &_kstool_path_msg_table, KSTOOL_PATH_MSG_UNKNOWN_OPERATION, argv[1]);
        return 2;
    }
    if (cl_match(argv[1], "r[el]"))
        return path_rel(argc - 1, argv + 1);
    if (kstool_parse(argc - 1, argv + 1, kstool_no_flags, kstool_ignore_flag, NULL, &first))
        return 2;
    first++; /* an index into argv, which holds "path" before the operation */
    if (first >= argc) {
        imsg_print(IMSG_ERROR, &_kstool_path_msg_table, KSTOOL_PATH_MSG_MISSING, "PATH");
        return 2;
    }
    if (cl_match(argv[1], "ab[s]"))
        return path_abs(argc, argv, first);
    for (i = first; i < argc; i++)
        status |= one(argv[1], argv[i]);
    return status;
}

/* kstool split: command lines split by the option scanner's or the flag
 * parser's quoting rules. */
#include "ks/cl.h"
#include "ks/stg.h"
#include "kstool.h"

enum { F_OPTION = 1, F_FLAG };

static const clp_flag_desc_t split_flags[] = {
    CLP_START_MUTUAL_EXCLUSION,
    {"-o[ption]", F_OPTION, 0},
    {"-f[lag]", F_FLAG, 0},
    CLP_END_MUTUAL_EXCLUSION,
    CLP_END_OF_FLAGS,
};

static void on_split_flag(uint32_t value, clp_hdl_t *h, void *ctx)
{
    (void)h;
    *(uint32_t *)ctx = value;
}

static void print_words(int n, char **words)
{
    int i;
    imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_WORDS, n);
    for (i = 0; i < n; i++)
        imsg_print(IMSG_OK_CONT, &_kstool_msg_table, KSTOOL_MSG_WORD, i, words[i]);
}

int kstool_split(int argc, char **argv)
{
    uint32_t which = F_OPTION;
    int first, i, status = 0;
    if (kstool_parse(argc, argv, split_flags, on_split_flag, &which, &first))
        return 2;
    if (first >= argc) {
        imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_MISSING, "LINE");
        return 2;
    }
    for (i = first; i < argc; i++) {
        if (which == F_FLAG) {
            int n;
            char **words;
            stg_area_t area = stg_create_area(1024);
            if (clp_parse_string(argv[i], area, &n, &words) == 0)
                print_words(n, words);
            else
                status = 1;
            stg_delete_area(&area);
        } else {
            int err = 0;
            cl_handle_t *h = cl_parse_line(argv[i], &err);
            char *w;
            char *words[4096];
            int n = 0;
            if (h == NULL) {
                imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_LINE, cl_strerror(err));
                status = 1;
                continue;
            }
            while (n < 4096 && (w = cl_getarg(h)) != NULL)
                words[n++] = w;
            print_words(n, words);
            cl_destroy(&h);
        }
    }
    return status;
}

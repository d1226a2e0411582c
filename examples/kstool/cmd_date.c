/* kstool date: the product's date grammar and ISO 8601, both token styles. */
#include <stdlib.h>

#include "ks/date.h"
#include "ks/strutl.h"
#include "kstool.h"

enum { F_FUTURE = 1, F_PAST, F_AT };

/* The two directions exclude one another; every flag also has a
 * double-dash spelling. */
static const clp_flag_desc_t date_flags[] = {
    CLP_START_MUTUAL_EXCLUSION,
    {"-f[uture]", F_FUTURE, 0},
    {"--f[uture]", F_FUTURE, CLP_ALIAS_FLAG},
    {"-p[ast]", F_PAST, 0},
    {"--p[ast]", F_PAST, CLP_ALIAS_FLAG},
    CLP_END_MUTUAL_EXCLUSION,
    {"-a[t]", F_AT, 0},
    {"--a[t]", F_AT, CLP_ALIAS_FLAG},
    CLP_END_OF_FLAGS,
};

struct date_opts {
    int direction;
    int at;
};

static void on_date_flag(uint32_t value, clp_hdl_t *h, void *ctx)
{
    struct date_opts *o = ctx;
    (void)h;
    if (value == F_FUTURE)
        o->direction = 1;
    else if (value == F_PAST)
        o->direction = 0;
    else if (value == F_AT)
        o->at = 1;
}

static void print_both_styles(time_t t)
{
    char *product = date_fmt_token_general(t, 0, 1, 0, 0);
    char *iso = date_fmt_token_general(t, 0, 2, 0, 0);
    imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_DATE_STYLES, product ? product : "-", iso ? iso : "-");
    free(product);
    free(iso);
}

int kstool_date(int argc, char **argv)
{
    struct date_opts o = {0, 0};
    int first, i, status = 0;
    if (kstool_parse(argc, argv, date_flags, on_date_flag, &o, &first))
        return 2;
    if (first >= argc) {
        imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_MISSING, o.at ? "SECONDS" : "TEXT");
        return 2;
    }
    for (i = first; i < argc; i++) {
        time_t t;
        imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_LINE, argv[i]);
        if (o.at) {
            long secs;
            if (strutl_strtol(argv[i], 10, &secs) != 0) {
                imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_NOT_SECONDS, argv[i]);
                status = 1;
                continue;
            }
            t = (time_t)secs;
        } else if (date_str_to_time2(argv[i], o.direction, &t) != 0) {
            imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_NOT_A_DATE, argv[i]);
            imsg_print(IMSG_ERROR_CONT, date_usage_date_time(), -1);
            status = 1;
            continue;
        }
        print_both_styles(t);
    }
    return status;
}

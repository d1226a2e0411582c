/* kstool: one subcommand per capability of the library. */
#ifndef KSTOOL_H
#define KSTOOL_H

#include "ks/clp.h"
#include "ks/imsg.h"

extern const imsg_msg_table_t _kstool_msg_table;

/* Message indices of kstool's table. */
enum {
    KT_USAGE, KT_COMMAND_LINE_ITEM, KT_UNKNOWN_COMMAND, KT_HOME, KT_TOOLDIR, KT_HOSTDATA,
    KT_NO_HOSTDATA, KT_SWITCHES, KT_REMOTE, KT_VERBOSITY, KT_SUBSYS, KT_CATALOGUE, KT_LINE,
    KT_MAPPING, KT_CANNOT_EXPAND, KT_CANNOT_UNSCRAMBLE, KT_NOT_A_DATE, KT_DATE_STYLES,
    KT_NOT_SECONDS, KT_ID_NUMERIC, KT_ID_SID, KT_ID_NAMES, KT_ID_GROUP, KT_NOT_A_SID,
    KT_SID, KT_WORDS, KT_WORD, KT_MISSING, KT_LOGGED
};

/* A subcommand: its abbreviation pattern for cl_match, a summary, its body.
 * argv[0] is the subcommand's own name. */
struct kstool_cmd {
    const char *pattern;
    const char *synopsis;
    const char *summary;
    int (*run)(int argc, char **argv);
};

/* Status with which the product's tools stop when the host data directory
 * is missing; 0 when it was found. */
extern int kstool_hostdata_status;

/* Parses argv against flags: each flag found goes to on_flag; the remaining
 * words are left at *first_arg (an index into argv).  1 after clp printed a
 * usage error. */
int kstool_parse(int argc, char **argv, const clp_flag_desc_t *flags,
                 void (*on_flag)(uint32_t value, clp_hdl_t *h, void *ctx), void *ctx, int *first_arg);

/* A table with no flags, and a flag procedure for it. */
extern const clp_flag_desc_t kstool_no_flags[];
void kstool_ignore_flag(uint32_t value, clp_hdl_t *h, void *ctx);

int kstool_info(int argc, char **argv);
int kstool_expand(int argc, char **argv);
int kstool_scramble(int argc, char **argv);
int kstool_unscramble(int argc, char **argv);
int kstool_date(int argc, char **argv);
int kstool_id(int argc, char **argv);
int kstool_sid(int argc, char **argv);
int kstool_split(int argc, char **argv);

#endif

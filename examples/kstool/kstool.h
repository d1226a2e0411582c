/* kstool: one subcommand per capability of the library. */
#ifndef KSTOOL_H
#define KSTOOL_H

#include "ks/clp.h"
#include "ks/imsg.h"
#include "kstool_msg.h" /* the table and its index names, made from kstool.msg */

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
int kstool_path(int argc, char **argv);
int kstool_log(int argc, char **argv);
int kstool_crc(int argc, char **argv);
int kstool_cmp(int argc, char **argv);
int kstool_cp(int argc, char **argv);
int kstool_rm(int argc, char **argv);
int kstool_du(int argc, char **argv);
int kstool_tac(int argc, char **argv);
int kstool_glob(int argc, char **argv);
int kstool_match(int argc, char **argv);
int kstool_compress(int argc, char **argv);
int kstool_uncompress(int argc, char **argv);
int kstool_env(int argc, char **argv);

#endif

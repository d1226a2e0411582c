/* kstool: a small command built on liborvinks, one subcommand per capability.
 * It prints only through the message layer, from its own message table. */
#include <stdlib.h>
#include <string.h>

#include "ks/cl.h"
#include "ks/ks_product.h"
#include "ks/pfm.h"
#include "kstool.h"

int kstool_hostdata_status;

static int kstool_help(int argc, char **argv);

static const struct kstool_cmd commands[] = {
    {"i[nfo]", "info", "product home, directories, switches, trace settings, catalogue", kstool_info},
    {"e[xpand]", "expand [-i[terate] [N]] TEXT...", "expand environment variable references", kstool_expand},
    {"scr[amble]", "scramble TEXT...", "scramble short strings into printable symbols", kstool_scramble},
    {"u[nscramble]", "unscramble TEXT...", "undo scramble, checking the check value", kstool_unscramble},
    {"d[ate]", "date [--f[uture]|--p[ast]] TEXT...", "parse dates, print both token styles", kstool_date},
    {"", "date --a[t] SECONDS...", "format times given in seconds", kstool_date},
    {"id", "id", "this process's credentials: numeric, SID and names", kstool_id},
    {"si[d]", "sid TEXT...", "parse SID texts: bytes and canonical text", kstool_sid},
    {"sp[lit]", "split [-o[ption]|-f[lag]] LINE...", "split command lines with either parser's rules", kstool_split},
    {"p[ath]", "path OPERATION ARGUMENT...", "normalise, abs, rel, leaf, suffix, host, where, unwhere", kstool_path},
    {"l[og]", "log FILE TEXT...", "append lines to a command log under its header", kstool_log},
    {"crc", "crc FILE...", "the library's stored checksum and size of files", kstool_crc},
    {"cmp", "cmp A B", "compare two files byte for byte", kstool_cmp},
    {"cp", "cp [-t[race]] SOURCE TARGET", "copy a file or a tree", kstool_cp},
    {"rm", "rm [-t[race]] PATH...", "remove files and trees", kstool_rm},
    {"du", "du PATH...", "disk usage of trees", kstool_du},
    {"tac", "tac FILE", "print a file's lines last first", kstool_tac},
    {"g[lob]", "glob PATTERN...", "expand wildcard patterns against the file system", kstool_glob},
    {"m[atch]", "match [-pa|-pl] PATTERN NAME...", "compile a pattern, try it against names", kstool_match},
    {"comp[ress]", "compress IN OUT", "compress a file into the library's stored format", kstool_compress},
    {"uncomp[ress]", "uncompress IN OUT", "expand a file made by compress", kstool_uncompress},
    {"env", "env [-u NAME] [-s NAME=VALUE] -- COMMAND...", "run a command in an edited private environment", kstool_env},
    {"h[elp]", "help", "this list", kstool_help},
};
#define NCOMMANDS (int)(sizeof commands / sizeof commands[0])

static int kstool_help(int argc, char **argv)
{
    int i;
    (void)argc;
    (void)argv;
    imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_USAGE);
    for (i = 0; i < NCOMMANDS; i++)
        imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_COMMAND_LINE_ITEM, commands[i].synopsis,
                   commands[i].summary);
    return 0;
}

int kstool_parse(int argc, char **argv, const clp_flag_desc_t *flags,
                 void (*on_flag)(uint32_t value, clp_hdl_t *h, void *ctx), void *ctx, int *first_arg)
{
    clp_hdl_t *h = clp_create_hdl_using_argv(argc, argv, flags, NULL);
    char *word;
    uint32_t value;
    int rc;
    if (h == NULL)
        return 1;
    clp_get_next_arg(h, &word); /* the subcommand's name */
    while ((rc = clp_get_next_flag_value(h, 0, &value)) == 0)
        on_flag(value, h, ctx);
    if (rc == 2) {
        /* Count what clp consumed: the words left are the arguments. */
        int left = 0;
        while (clp_get_next_arg(h, &word) == 0)
            left++;
        *first_arg = argc - left;
    }
    clp_destroy_hdl(&h);
    return rc == 1;
}

const clp_flag_desc_t kstool_no_flags[] = {CLP_END_OF_FLAGS};

void kstool_ignore_flag(uint32_t value, clp_hdl_t *h, void *ctx)
{
    (void)value;
    (void)h;
    (void)ctx;
}

/* A missing host data directory ends the product's tools through pfm_exit;
 * kstool turns that end into an unwind so "info" can still report. */
static void unwind_instead_of_exit(int status)
{
    pfm_raise(status);
}

static void name_this_tool(const char *argv0)
{
    pfm_cleanup_t rec;
    pfm_exit_routine_t previous = pfm_set_exit(unwind_instead_of_exit);
    if (PFM_CLEANUP_START(&rec, 0) == 0) {
        imsg_set_app_name(argv0);
        pfm_cleanup_rls(&rec);
    } else {
        kstool_hostdata_status = rec.value;
        pfm_enable(); /* leave the clean-up level the unwind entered */
    }
    pfm_set_exit(previous);
}

int main(int argc, char **argv)
{
    int i, found = -1, matches = 0;
    ks_system_init();
    name_this_tool(argv[0]);
    if (argc < 2)
        return kstool_help(0, NULL);
    for (i = 0; i < NCOMMANDS; i++)
        if (commands[i].pattern[0] != '\0' && cl_match(argv[1], commands[i].pattern)) {
            if (found < 0)
                found = i;
            matches++;
        }
    if (found < 0) {
        imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_UNKNOWN_COMMAND, argv[1]);
        return 2;
    }
    if (kstool_hostdata_status != 0) {
        if (commands[found].run != kstool_info && commands[found].run != kstool_help)
            return kstool_hostdata_status;
    } else {
        clp_log_cl_args("kstool", argc - 1, argv + 1);
    }
    return commands[found].run(argc - 1, argv + 1);
}

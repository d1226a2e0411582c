/* kstool env: runs a command in a private copy of the environment, edited by
 * -u NAME (remove) and -s NAME=VALUE (set), applied in the order given. */
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "ks/evutl.h"
#include "kstool.h"
#include "kstool_compress_msg.h"

#define COMPRESS_TABLE (&_kstool_compress_msg_table)

enum {
    F_UNSET = 1,
    F_SET
};

static const clp_flag_desc_t env_flags[] = {
    {"-u[nset]", F_UNSET, CLP_REPEATABLE},
    {"-s[et]", F_SET, CLP_REPEATABLE},
    CLP_END_OF_FLAGS,
};

struct env_edits {
    evutl_block_t *block;
    int failed;
};

static void on_env_flag(uint32_t value, clp_hdl_t *h, void *ctx)
{
    struct env_edits *e = ctx;
    char *word;
    if (e->failed)
        return;
    if (clp_get_next_arg(h, &word) != 0) {
        imsg_print(IMSG_ERROR, COMPRESS_TABLE, KSTOOL_COMPRESS_MSG_NEEDS_VALUE,
                   value == F_UNSET ? "-u" : "-s");
        e->failed = 1;
    } else if (value == F_UNSET) {
        evutl_unsetenv(e->block, word);
    } else if (strchr(word, '=') == NULL) {
        imsg_print(IMSG_ERROR, COMPRESS_TABLE, KSTOOL_COMPRESS_MSG_NOT_ASSIGNMENT, word);
        e->failed = 1;
    } else if (evutl_setenv(e->block, word) != 0) {
        e->failed = 1;
    }
}

int kstool_env(int argc, char **argv)
{
    struct env_edits e = {NULL, 0};
    int first = argc, err, bad;
    if (evutl_copy_default_environ(STG_AREA_HEAP, &e.block) != 0)
        return 1;
    bad = kstool_parse(argc, argv, env_flags, on_env_flag, &e, &first) || e.failed;
    if (!bad && first >= argc) {
        imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_MISSING, "COMMAND");
        bad = 1;
    }
    if (bad) {
        evutl_free(e.block);
        return 2;
    }
    /* The command is looked for along the edited PATH, as it will run. */
    evutl_override_default_environ(e.block);
    execvp(argv[first], argv + first);
    err = errno;
    evutl_restore_default_environ();
    imsg_print(IMSG_ERROR, COMPRESS_TABLE, KSTOOL_COMPRESS_MSG_CANNOT_RUN, argv[first],
               imsg_strerror(err));
    evutl_free(e.block);
    return err == ENOENT ? 127 : 126;
}

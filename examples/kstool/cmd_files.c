/* kstool crc, cmp, cp, rm, du, tac: the library's whole-file and tree
 * services. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "ks/fileutl.h"
#include "ks/stg.h"
#include "kstool.h"
#include "kstool_files_msg.h"

#define FILES_TABLE (&_kstool_files_msg_table)

enum { F_TRACE = 1 };

static const clp_flag_desc_t trace_flags[] = {
    {"-t[race]", F_TRACE, 0},
    CLP_END_OF_FLAGS,
};

static void on_trace_flag(uint32_t value, clp_hdl_t *h, void *ctx)
{
    (void)h;
    if (value == F_TRACE)
        *(int *)ctx |= FILEUTL_WALK_TRACE;
}

/* Parses the flags and checks the count of arguments left: at least min,
 * at most max (0: any).  1 after a message. */
static int take_args(int argc, char **argv, const clp_flag_desc_t *flags, int *walk_flags,
                     int min, int max, const char *what, int *first)
{
    if (kstool_parse(argc, argv, flags, flags == trace_flags ? on_trace_flag : kstool_ignore_flag,
                     walk_flags, first))
        return 1;
    if (argc - *first < min || (max > 0 && argc - *first > max)) {
        imsg_print(IMSG_ERROR, FILES_TABLE, KSTOOL_FILES_MSG_ARGUMENTS, argv[0], what);
        return 1;
    }
    return 0;
}

int kstool_crc(int argc, char **argv)
{
    int first, i, status = 0;
    if (take_args(argc, argv, kstool_no_flags, NULL, 1, 0, "FILE...", &first))
        return 2;
    for (i = first; i < argc; i++) {
        uint32_t crc;
        fileutl_size64_t size;
        int err = 0;
        FILE *fp = fopen(argv[i], "r");
        if (fp == NULL || fileutl_crc_fd(fileno(fp), &crc, &size, &err) != 0) {
            imsg_print(IMSG_ERROR, FILES_TABLE, KSTOOL_FILES_MSG_CANNOT_READ, argv[i],
                       imsg_strerror(fp == NULL ? errno : err));
            status = 1;
        } else {
            imsg_print(IMSG_OK, FILES_TABLE, KSTOOL_FILES_MSG_CRC, (unsigned)crc,
                       (unsigned long)size.low, argv[i]);
        }
        if (fp != NULL)
            fclose(fp);
    }
    return status;
}

int kstool_cmp(int argc, char **argv)
{
    int first, same = 0;
    if (take_args(argc, argv, kstool_no_flags, NULL, 2, 2, "two files", &first))
        return 2;
    if (fileutl_cmp(argv[first], argv[first + 1], 0, &same) != 0)
        return 2;
    imsg_print(IMSG_OK, FILES_TABLE, same ? KSTOOL_FILES_MSG_SAME : KSTOOL_FILES_MSG_DIFFER,
               argv[first], argv[first + 1]);
    return same ? 0 : 1;
}

int kstool_cp(int argc, char **argv)
{
    int first, flags = FILEUTL_WALK_DESCEND;
    if (take_args(argc, argv, trace_flags, &flags, 2, 2, "SOURCE and TARGET", &first))
        return 2;
    return fileutl_cp(argv[first], argv[first + 1], flags) == 0 ? 0 : 1;
}

int kstool_rm(int argc, char **argv)
{
    int first, i, flags = FILEUTL_WALK_DESCEND, status = 0;
    if (take_args(argc, argv, trace_flags, &flags, 1, 0, "PATH...", &first))
        return 2;
    for (i = first; i < argc; i++)
        if (fileutl_rm(argv[i], flags) != 0)
            status = 1;
    return status;
}

int kstool_du(int argc, char **argv)
{
    int first, i, status = 0;
    if (take_args(argc, argv, kstool_no_flags, NULL, 1, 0, "PATH...", &first))
        return 2;
    for (i = first; i < argc; i++) {
        fileutl_du_t du;
        if (fileutl_du(argv[i], 0, &du) != 0)
            status = 1;
        imsg_print(IMSG_OK, FILES_TABLE, KSTOOL_FILES_MSG_DU, (unsigned long long)du.bytes,
                   (unsigned long long)du.blocks, (unsigned long long)du.files,
                   (unsigned long long)du.dirs, argv[i]);
    }
    return status;
}

/* Lines longer than the buffer come in pieces, their end first: the pieces
 * are gathered in front of one another until the line is whole. */
int kstool_tac(int argc, char **argv)
{
    enum { BUF = 8192 };
    char buf[BUF];
    char *line = NULL;
    size_t len = 0;
    int first;
    FILE *fp;
    fileutl_bw_t *bw;
    if (take_args(argc, argv, kstool_no_flags, NULL, 1, 1, "FILE", &first))
        return 2;
    fp = fopen(argv[first], "r");
    if (fp == NULL || (bw = fileutl_bw_start(fp, 1)) == NULL) {
        imsg_print(IMSG_ERROR, FILES_TABLE, KSTOOL_FILES_MSG_CANNOT_READ, argv[first], imsg_strerror(errno));
        if (fp != NULL)
            fclose(fp);
        return 1;
    }
    for (;;) {
        char *piece = fileutl_bw_fgets(buf, BUF, bw);
        size_t n = piece == NULL ? 0 : strlen(piece);
        if (line != NULL && (piece == NULL || (n > 0 && piece[n - 1] == '\n'))) {
            imsg_print(IMSG_OK, FILES_TABLE, KSTOOL_FILES_MSG_LINE, line);
            stg_free(line);
            line = NULL;
            len = 0;
        }
        if (piece == NULL)
            break;
        {
            char *grown = stg_realloc(line, len + n + 1);
            if (grown == NULL)
                break;
            line = grown;
            memmove(line + n, line, len);
            memcpy(line, piece, n);
            len += n;
            line[len] = '\0';
        }
    }
    stg_free(line);
    fileutl_bw_stop(bw);
    fclose(fp);
    return 0;
}

/* kstool compress, uncompress: files through the block compressor. */
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "ks/compress_utl.h"
#include "ks/stg.h"
#include "kstool.h"
#include "kstool_compress_msg.h"

#define COMPRESS_TABLE (&_kstool_compress_msg_table)

/* A block holds at most this many bytes: its length is stored in 32 bits. */
#define MAX_BLOCK 0xFFFFFFFFu

/* The whole of path (a file, a pipe or a device) in a block of stg_malloc;
 * null after the message. */
static unsigned char *read_all(const char *path, uint32_t *len)
{
    size_t size = 65536, got = 0;
    unsigned char *buf = NULL;
    int fd = open(path, O_RDONLY);
    ssize_t n = 1;
    if (fd < 0) {
        imsg_print(IMSG_ERROR, COMPRESS_TABLE, KSTOOL_COMPRESS_MSG_CANNOT_READ, path,
                   imsg_strerror(errno));
        return NULL;
    }
    while (n > 0 && got <= MAX_BLOCK) {
        if (buf == NULL || got == size) {
            unsigned char *bigger = stg_realloc(buf, buf == NULL ? size : (size *= 2));
            if (bigger == NULL)
                break;
            buf = bigger;
        }
        n = read(fd, buf + got, size - got);
        if (n < 0 && errno == EINTR)
            n = 1;
        else if (n > 0)
            got += (size_t)n;
    }
    if (n < 0)
        imsg_print(IMSG_ERROR, COMPRESS_TABLE, KSTOOL_COMPRESS_MSG_CANNOT_READ, path,
                   imsg_strerror(errno));
    else if (got > MAX_BLOCK)
        imsg_print(IMSG_ERROR, COMPRESS_TABLE, KSTOOL_COMPRESS_MSG_TOO_LARGE, path);
    close(fd);
    if (n != 0) {
        stg_free(buf);
        return NULL;
    }
    *len = (uint32_t)got;
    return buf;
}

static int write_all(const char *path, const unsigned char *data, uint32_t len)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    size_t done = 0;
    while (fd >= 0 && done < len) {
        ssize_t n = write(fd, data + done, len - done);
        if (n < 0 && errno != EINTR)
            break;
        if (n > 0)
            done += (size_t)n;
    }
    if (fd < 0 || done < len || close(fd) != 0) {
        imsg_print(IMSG_ERROR, COMPRESS_TABLE, KSTOOL_COMPRESS_MSG_CANNOT_WRITE, path,
                   imsg_strerror(errno));
        return 1;
    }
    return 0;
}

/* Reads IN, turns it with fn, writes OUT and tells both sizes. */
static int transform(int argc, char **argv, const char *synopsis,
                     void *(*fn)(uint32_t, const void *, uint32_t *))
{
    int first, status = 1;
    uint32_t in_len = 0, out_len = 0;
    unsigned char *in, *out;
    if (kstool_parse(argc, argv, kstool_no_flags, kstool_ignore_flag, NULL, &first))
        return 2;
    if (argc - first != 2) {
        imsg_print(IMSG_ERROR, COMPRESS_TABLE, KSTOOL_COMPRESS_MSG_USAGE, synopsis);
        return 2;
    }
    in = read_all(argv[first], &in_len);
    if (in == NULL)
        return 1;
    out = fn(in_len, in, &out_len);
    if (out != NULL && write_all(argv[first + 1], out, out_len) == 0) {
        imsg_print(IMSG_OK, COMPRESS_TABLE, KSTOOL_COMPRESS_MSG_SIZES, argv[first],
                   (unsigned long)in_len, argv[first + 1], (unsigned long)out_len);
        status = 0;
    }
    stg_free(in);
    stg_free(out);
    return status;
}

int kstool_compress(int argc, char **argv)
{
    return transform(argc, argv, "compress IN OUT", compress_compress);
}

int kstool_uncompress(int argc, char **argv)
{
    return transform(argc, argv, "uncompress IN OUT", compress_uncompress);
}

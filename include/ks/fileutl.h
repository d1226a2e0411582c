/*
 * Files and pathnames.
 */
#ifndef KS_FILEUTL_H
#define KS_FILEUTL_H

#include <dirent.h>
#include <stdio.h>
#include <sys/stat.h>

#include "ks/ks_common.h"

/* Size of a pathname buffer: pathnames are limited to 1023 characters. */
#define KS_PATH_BUF 1024

KS_BEGIN_DECLS

/* 1 if path names an existing object, else 0; with no_follow a dangling
 * symbolic link counts as existing. */
KS_API int fileutl_exists(const char *path, int no_follow);
/* stat(2) of path, following symbolic links when follow is non-zero
 * (lstat(2) otherwise); retried on EINTR.  0, or -1 with errno set. */
KS_API int fileutl_stat(const char *path, int follow, struct stat *st);
/* opendir(3); null with errno set on failure. */
KS_API DIR *fileutl_opendir(const char *path);
/* The next entry of dir, null at the end (errno unchanged) or on an error
 * (errno set); the entry is valid until the next call on dir. */
KS_API struct dirent *fileutl_readdir(DIR *dir);
/* closedir(3): 0, or -1 with errno set. */
KS_API int fileutl_closedir(DIR *dir);

/* ---- Whole files and trees: walking, copying, removal, disk usage,
 * checksums, comparison, dump and load, mapping, backward reading ---- */

/* Walk flags (a bit set). */
#define FILEUTL_WALK_STOP_ON_ERROR 0x01 /* end the walk at the first error (-4) */
#define FILEUTL_WALK_DESCEND       0x02 /* walk the contents of directories */
#define FILEUTL_WALK_FOLLOW        0x04 /* take an entry's status through symbolic links */
#define FILEUTL_WALK_FOLLOW_ALSO   0x08 /* the same as FILEUTL_WALK_FOLLOW */
#define FILEUTL_WALK_QUIET         0x10 /* print no messages */
#define FILEUTL_WALK_TRACE         0x20 /* copying and removal print each operation */

/* Passes; also the flags of a callback record, naming the passes in which
 * it sees directories (non-directories are always offered once, before). */
#define FILEUTL_WALK_BEFORE 1
#define FILEUTL_WALK_AFTER  2

/* Callback results: "skip" offers the entry to no further record (and keeps
 * the walk out of a directory in the before pass), "stop" ends the walk; the
 * other bits are or'ed into the walk's result.  -4 is an error. */
#define FILEUTL_WALK_SKIP  0x1
#define FILEUTL_WALK_STOP  0x2
#define FILEUTL_WALK_ERROR (-4)

/* A callback: its data, the entry's full name, the root of the walk, the
 * directory part relative to the root ("" for the root and its entries), the
 * entry's name ("" for the root), its status, the pass, the depth (0 for the
 * root, 1 for its entries). */
typedef int (*fileutl_walk_fn)(void *data, const char *path, const char *root, const char *dir,
                               const char *name, const struct stat *st, int pass, int depth);

/* One record of a callback chain. */
typedef struct fileutl_walk_cb {
    struct fileutl_walk_cb *next;
    int flags; /* FILEUTL_WALK_BEFORE, FILEUTL_WALK_AFTER or both */
    fileutl_walk_fn fn;
    void *data;
} fileutl_walk_cb_t;

/* File-system operations for fileutl_walk_tree_any, with the conventions of
 * fileutl_stat, fileutl_opendir, fileutl_readdir and fileutl_closedir. */
typedef struct fileutl_fs_ops {
    int (*stat)(const char *path, int follow, struct stat *st);
    void *(*opendir)(const char *path);
    struct dirent *(*readdir)(void *dir);
    int (*closedir)(void *dir);
} fileutl_fs_ops_t;

/* Walks root on the real file system, offering each entry to chain.  Returns
 * the or'ed callback results, -4 after any error (each reported as
 * "%s: %s\n" unless quiet); names longer than 1023 characters fail with
 * ENAMETOOLONG. */
KS_API int fileutl_walk_tree(const char *root, const fileutl_walk_cb_t *chain, int flags);
/* fileutl_walk_tree through the caller's file-system operations. */
KS_API int fileutl_walk_tree_any(const char *root, const fileutl_walk_cb_t *chain,
                                 const fileutl_fs_ops_t *ops, int flags);
/* fileutl_walk_tree visiting the entries of each directory in the order of
 * order over their names (null: byte order); each directory is read whole
 * before its first entry is offered. */
KS_API int fileutl_scan_tree(const char *root, const fileutl_walk_cb_t *chain, int flags,
                             int (*order)(const char *a, const char *b));

/* Copies the file or tree source to target (the tree with
 * FILEUTL_WALK_DESCEND): directories, FIFOs, device nodes, symbolic links,
 * regular files (hard links kept); permission bits and times follow the
 * contents.  0, or -4 after a reported error; copying onto itself is refused
 * with EEXIST and touches nothing. */
KS_API int fileutl_cp(const char *source, const char *target, int flags);
/* Removes the file or tree path (the tree with FILEUTL_WALK_DESCEND), files
 * before their directories.  0, or -4 after a reported error. */
KS_API int fileutl_rm(const char *path, int flags);

/* Disk usage sums.  A file with several links is counted once. */
typedef struct fileutl_du {
    uint64_t bytes;  /* sizes (st_size) of the entries counted */
    uint64_t blocks; /* 512-byte blocks allocated (st_blocks) */
    uint64_t files;  /* entries other than directories */
    uint64_t dirs;   /* directories */
    void *seen;      /* files with several links already counted; start null */
} fileutl_du_t;

/* Walk callback adding one entry to the fileutl_du_t at data (directories in
 * the before pass only).  0, or -4 when out of memory. */
KS_API int fileutl_du_one(void *data, const char *path, const char *root, const char *dir,
                          const char *name, const struct stat *st, int pass, int depth);
/* Releases what fileutl_du_one kept in du->seen; the sums stay. */
KS_API void fileutl_du_release(fileutl_du_t *du);
/* Sums the tree at path into *du (zeroed first; directories are always
 * descended).  The walk's result: 0, or -4 after a reported error. */
KS_API int fileutl_du(const char *path, int flags, fileutl_du_t *du);

/* A byte count in two 32-bit words, as callers store it. */
typedef struct fileutl_size64 {
    uint32_t high;
    uint32_t low;
} fileutl_size64_t;

/* The library's stored checksum of the file at path.  0, or -4 with *err
 * set to the system error; prints nothing. */
KS_API int fileutl_crc(const char *path, uint32_t *crc, int *err);
/* Checksum of everything readable from fd; *size gets the byte count in its
 * low word (high word 0).  0, or -4 with *err; prints nothing. */
KS_API int fileutl_crc_fd(int fd, uint32_t *crc, fileutl_size64_t *size, int *err);
/* Checksum of len bytes at buf, from a fresh state. */
KS_API void fileutl_crc_buffer(const void *buf, size_t len, uint32_t *crc);
/* Continues a checksum over len more bytes; the caller keeps *counter (0 to
 * 255) and *crc between calls, both starting at 0. */
KS_API void fileutl_crc_buffer_step(const void *buf, size_t len, uint32_t *counter, uint32_t *crc);

/* Compares two files byte for byte: 0 with *same 1 or 0, or -1 after a
 * reported error (nothing printed when quiet). */
KS_API int fileutl_cmp(const char *path1, const char *path2, int quiet, int *same);
/* Writes len bytes of buf at the start of path (created 0644), in one write
 * and without truncating: bytes of a longer file past len stay.  0, or 1
 * with *err (EIO for a short write); prints nothing. */
KS_API int fileutl_dump(const void *buf, size_t len, const char *path, int *err);
/* The whole file at path in a new buffer (freed with stg_free) with a 0 byte
 * after its *len bytes; read to its end even if it changes size meanwhile.
 * Null with *err on failure; prints nothing. */
KS_API void *fileutl_load(const char *path, size_t *len, int *err);

/* Maps the whole file open on fd (read-only and private, or shared and
 * writable); *len gets its size.  The mapping stays on the process's list
 * until fileutl_unlocate.  Null with *err on failure. */
KS_API void *fileutl_locate(int fd, int writable, size_t *len, int *err);
/* fileutl_locate of the file at path (opened and closed here). */
KS_API void *fileutl_locate_pname(const char *path, int writable, size_t *len, int *err);
/* Releases the mapping at addr.  0, or -1 with EINVAL when addr is not a
 * mapping on the list. */
KS_API int fileutl_unlocate(void *addr);

/* Backward reading of a stream, line by line. */
typedef struct fileutl_bw fileutl_bw_t;
/* Starts reading fp backwards from its end (from_end) or from its current
 * position.  The handle (freed by fileutl_bw_stop), or null with errno. */
KS_API fileutl_bw_t *fileutl_bw_start(FILE *fp, int from_end);
/* The previous line, with its newline, into buf; a line longer than size - 1
 * comes in pieces, its end first.  Null at the start of the stream or with
 * errno on a read error. */
KS_API char *fileutl_bw_fgets(char *buf, int size, fileutl_bw_t *bw);
/* Frees the handle; the stream stays open. */
KS_API void fileutl_bw_stop(fileutl_bw_t *bw);

KS_END_DECLS

#endif

/*
 * Files and pathnames.
 *
 *  1. The separator is "/" alone.  Every routine that walks a name steps by
 *     whole characters when the locale has characters of more than one byte,
 *     so a byte inside a character is never taken for a separator; a byte
 *     that starts no valid character counts as a character of its own.
 *  2. Results go into caller buffers with an explicit size (the NUL
 *     included).  A result that does not fit fails with errno ENAMETOOLONG
 *     and nothing is written past the buffer.  Working buffers are
 *     KS_PATH_BUF bytes: names are limited to 1023 characters.
 *  3. The name routines (leaf, suffix, dots, relative forms) never touch the
 *     file system; the temporary and unique names, the search routines and
 *     the host-qualified names below do.
 *  4. Not thread-safe: the temporary directory, the name counter and the
 *     mount-table cache are process-wide.
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

/* ---- Taking names apart and putting them together ----------------------- */

/* Copy of path without "." components and with "name/.." pairs removed (a
 * leading relative ".." is never consumed; "/.." is "/"); doubled separators
 * stay; an empty result is "/".  out may be path.  out, or null when the
 * result would reach size bytes. */
KS_API char *fileutl_remove_embedded_dots(const char *path, char *out, size_t size);
/* path made absolute against cwd: an absolute path is copied unchanged;
 * otherwise "" and "." components are skipped and ".." never climbs above
 * the root of cwd.  A null or relative cwd gives a relative join.  out may
 * be cwd but not path.  out, or null with ENAMETOOLONG. */
KS_API char *fileutl_make_abs_pn(char *out, size_t size, const char *path, const char *cwd);
/* path relative to base ("." for base itself when dot_ok), climbing at most
 * max_up levels with ".."; with fold_seps "\" also separates and every
 * separator is written "/".  When no relative form applies, path itself
 * (cut with ENAMETOOLONG if out is too small).  Always returns out. */
KS_API char *fileutl_make_rel_pn(char *out, size_t size, const char *path, const char *base,
                                 int dot_ok, int fold_seps, int max_up);
/* Index of the first of count names of list equal to path or a parent of it
 * (fileutl_pname_equal_or_parent); -1 when none. */
KS_API int fileutl_pname_scoped_by_list(const char *const *list, int count, const char *path);
/* 1 if a and b are equal byte for byte, else 0. */
KS_API int fileutl_pname_equal(const char *a, const char *b);
/* 1 if parent is path or a directory above it: parent is a prefix of path
 * followed there by "/" or the end ("/" itself is no parent of "/a"). */
KS_API int fileutl_pname_equal_or_parent(const char *parent, const char *path);
/* Splits path at its last separator (runs count as one, trailing ones are
 * ignored) into dir ("/" at the root, "" without one) and leaf; a name of
 * separators only gives "/" and "".  Either output may be null.  0, or 1 with
 * ENAMETOOLONG (outputs then ""). */
KS_API int fileutl_strip_leaf(const char *path, size_t dir_size, char *dir, size_t leaf_size,
                              char *leaf);
/* Splits the last component (after the last separator) at its last "." into
 * base and suffix (the dot included; "" without one); base and suffix joined
 * are path.  Either output may be null.  0, or 1 with ENAMETOOLONG. */
KS_API int fileutl_strip_suffix(const char *path, size_t base_size, char *base, size_t sfx_size,
                                char *sfx);
/* Splits "host:rest" when the first ":" is not the first character and comes
 * before any "/"; otherwise host is "" and rest is path.  Either output may
 * be null.  0, or 1 with ENAMETOOLONG. */
KS_API int fileutl_strip_hostname(const char *path, size_t host_size, char *host, size_t rest_size,
                                  char *rest);
/* The first separator of path, or null. */
KS_API char *fileutl_find_pname_sep_left(const char *path);
/* Removes trailing separators of path in place, never a leading run ("/"
 * and "//" stay); returns path. */
KS_API char *fileutl_strip_pname_sep(char *path);
/* The last character of path when it is a separator, else null. */
KS_API char *fileutl_match_trailing_sep(const char *path);
/* 1 if the first len bytes of path (len SIZE_MAX: all of it) end in a
 * separator and a single dot after at least one character ("a/.", not "/."
 * nor "a/.."), else 0. */
KS_API int fileutl_ends_with_slash_dot(const char *path, size_t len);
/* Absolute path: root "/" and rel the rest after the first character; 0.
 * A relative path gives 1 with EINVAL, both "".  Asserts room for both
 * ("root_path_size >= 1 + 1", "rel_path_size >= (path_len - 1) + 1"). */
KS_API int fileutl_root_split(const char *path, char *root, size_t root_path_size, char *rel,
                              size_t rel_path_size);
/* 0 if size is at most 2147483647; else 1, after the error "File ... is
 * larger than 2GB" when name is given. */
KS_API int fileutl_chk_large_file_overflow(int64_t size, const char *name);

/* ---- Temporary and unique names ----------------------------------------- */

/* Flags of fileutl_tmpfile_ext_opt. */
#define FILEUTL_TMP_BINARY  0x1 /* open "w+b" (the same as "w+" on this platform) */
#define FILEUTL_TMP_CLOEXEC 0x2 /* close the descriptor on exec */

/* The temporary directory (no trailing separator) into out: preferred when
 * given, writable and len + 15 < size, else the process's choice made on the
 * first call (TMPDIR, "/var/tmp", "/tmp", "."); *len (optional) gets its
 * length.  0, or 2 with ENAMETOOLONG. */
KS_API int fileutl_get_tmpdir(const char *preferred, char *out, size_t size, size_t *len);
/* Creates the directory DIR/PREFIXnnnnn (prefix null: "tmp", cut to fit;
 * mode -1: 0777) with a process-wide counter, skipping names in use; its name
 * goes to out.  0, or 1 with errno (EEXIST when every number is taken). */
KS_API int fileutl_tmpdir(const char *preferred, const char *prefix, char *out, size_t size,
                          int mode);
/* Creates and opens "w+" a new file DIR/PREFIXnnnnn.EXT (ext null or "": no
 * extension; a leading "." of ext is not doubled) as fileutl_tmpdir names
 * directories; flags FILEUTL_TMP_*.  The stream (fclose it), or null. */
KS_API FILE *fileutl_tmpfile_ext_opt(const char *preferred, const char *prefix, const char *ext,
                                     char *out, size_t size, int flags);
/* fileutl_tmpfile_ext_opt with flags 0. */
KS_API FILE *fileutl_tmpfile_ext(const char *preferred, const char *prefix, const char *ext,
                                 char *out, size_t size);
/* fileutl_tmpfile_ext_opt with FILEUTL_TMP_BINARY. */
KS_API FILE *fileutl_tmpfile_ext_binary(const char *preferred, const char *prefix, const char *ext,
                                        char *out, size_t size);
/* base + suffix (null: ""), then with control 0 "." and the date and time of
 * now; with control 1, ".1" ... ".999" while the name exists.  out, or null
 * (ENAMETOOLONG, EEXIST after 999 tries, EINVAL after the internal-error
 * message for another control). */
KS_API char *fileutl_make_unique_pn(const char *base, const char *suffix, int control, size_t size,
                                    char *out);
/* Renames old to old + suffix (null: ""), adding ".1", ".2", ... while that
 * name exists (lstat: a dangling link counts); the new name goes to out and
 * errno is 0.  Null with errno (ENAMETOOLONG, or rename's) and old kept. */
KS_API char *fileutl_rename_unique(const char *old, const char *suffix, size_t size, char *out);

/* ---- Directories, locks and links --------------------------------------- */

/* Creates every missing directory of path, path included (mode -1: 0777,
 * less the umask).  0, or -1 with errno (ENOTDIR when a component or path
 * exists and is no directory). */
KS_API int fileutl_mkpath(const char *path, int mode);
/* Locks all of the open file fd with fcntl: exclusive (write) or shared
 * (read); with wait, waits (retrying on EINTR), else fails at once when
 * another process holds it.  0, or -1 with errno (EAGAIN or EACCES: held). */
KS_API int fileutl_lockfd(int fd, int exclusive, int wait);
/* Releases the lock fileutl_lockfd took.  0, or -1 with errno. */
KS_API int fileutl_unlockfd(int fd);
/* Follows path while it is a symbolic link (relative targets from the link's
 * directory, at most 32 links) and puts the name reached in out; a name that
 * is no link is copied; a dangling link gives its target.  0, or -1 with
 * errno (ENOENT for a missing path, ELOOP, ENAMETOOLONG). */
KS_API int fileutl_resolve_symlink(const char *path, char *out, size_t size);

/* ---- Finding files ---------------------------------------------------------
 * The search routines look for name in each of ndirs directories in order
 * and take the first DIR/name that access(amode) accepts (amode F_OK, R_OK,
 * X_OK ...).  A name holding a separator, or ndirs 0, is tested as it
 * stands (directory index -1).  They return 0 with the name in out, or 1
 * with errno ENOENT (or ENAMETOOLONG) and out "". */

KS_API int fileutl_resolve_pathname(const char *name, const char *const *dirs, int ndirs, int amode,
                                    char *out, size_t size);
/* As fileutl_resolve_pathname; *dir_index gets the directory's index. */
KS_API int fileutl_resolve_pathname_index(const char *name, const char *const *dirs, int ndirs,
                                          int amode, char *out, size_t size, int *dir_index);
/* In each directory, name as given, then name followed by each of the nexts
 * extensions (appended as written, so ".c" or "_old"). */
KS_API int fileutl_resolve_pathname_by_ext(const char *name, const char *const *dirs, int ndirs,
                                           const char *const *exts, int nexts, int amode, char *out,
                                           size_t size);
/* As fileutl_resolve_pathname_by_ext; *ext_index gets the extension's index
 * (-1: the name as given). */
KS_API int fileutl_resolve_pathname_index_with_ext(const char *name, const char *const *dirs,
                                                   int ndirs, const char *const *exts, int nexts,
                                                   int amode, char *out, size_t size,
                                                   int *dir_index, int *ext_index);
/* All entries of the first directory holding a leaf that matches pattern
 * (fileutl_patt_list_match's wildcards; a leading "." only matches an
 * explicit one), as DIR/leaf sorted by strcmp, in *matches (release with
 * fileutl_resolve_pattern_free).  The directory's index, or -1 with *matches
 * null and *count 0 (errno ENOENT, or ENOMEM after the storage message). */
KS_API int fileutl_resolve_pattern_index(const char *pattern, const char *const *dirs, int ndirs,
                                         char ***matches, int *count);
/* Releases what fileutl_resolve_pattern_index returned; null is ignored. */
KS_API void fileutl_resolve_pattern_free(char **matches, int count);

/* ---- Pattern lists ---------------------------------------------------------
 * A pattern matches a name exactly when it matches the whole name, and
 * scopes it when it matches a leading part that ends at a separator (the
 * name lies under what the pattern names).  Wildcards: "*" any run and "?"
 * any one character, neither crossing a separator; "\" takes the next
 * character literally; all else matches itself.  The first exact match
 * wins, else the first scoping one; *exact (optional) is 1 for an exact
 * match, else 0. */

/* 1 if a pattern of the list matches or scopes name, else 0. */
KS_API int fileutl_patt_list_match(const char *const *patterns, int count, const char *name,
                                   int *exact);
/* Index of the pattern that matched (as above), or -1. */
KS_API int fileutl_patt_list_matched_cell(const char *const *patterns, int count, const char *name,
                                          int *exact);

/* ---- The mount table -------------------------------------------------------
 * Read from "/etc/mnttab" when it exists, else from the process's own table
 * (/proc/self/mountinfo, or /proc/self/mounts), into a cache that is read
 * again when the table changes (a mount or unmount, a newer file, another
 * process or mount namespace) or after fileutl_flushmntent.  In the
 * process's table a directory mounted again elsewhere (a bind mount) shows
 * as the loopback entry the system would list: its resource is the directory
 * it shows (or host:path on a remote file system) with the option "bind".
 * A table that cannot be read gives the error "Unable to open mount table:
 * ...". */

/* One mount, as the cache holds it: valid until the walk ends. */
typedef struct fileutl_mntent {
    const char *mnt_special; /* resource: host:path, or a local device or directory */
    const char *mnt_mountp;  /* mount point */
    const char *mnt_fstype;  /* file-system type */
    const char *mnt_mntopts; /* options, separated by "," ("" when none) */
} fileutl_mntent_t;

/* A walk over the cached table. */
typedef struct fileutl_mnt_walk fileutl_mnt_walk_t;

/* Starts a walk from the first entry (reading the table if needed); end it
 * with fileutl_endmntent.  Null after the message above, or when storage
 * runs out. */
KS_API fileutl_mnt_walk_t *fileutl_setmntent(void);
/* The next entry of the walk, or null at the end (also when the cache was
 * read again since the walk started). */
KS_API const fileutl_mntent_t *fileutl_getmntent(fileutl_mnt_walk_t *walk);
/* Ends a walk; null is ignored. */
KS_API void fileutl_endmntent(fileutl_mnt_walk_t *walk);
/* The option opt of ent ("opt" or "opt=value") within its option string, or null. */
KS_API const char *fileutl_hasmntopt(const fileutl_mntent_t *ent, const char *opt);
/* Drops the cache: the next walk reads the table again. */
KS_API void fileutl_flushmntent(void);

/* ---- Host-qualified names ----------------------------------------------------
 * A local name maps to host:path on the host that really stores it, through
 * the mount table (NFS "srv:/export", and loopback mounts: type "lofs" or
 * "namefs", or the option "bind"), and back.  Host names compare leniently:
 * up to a ":", ignoring case (64 characters), by IPv4 address, and a short
 * name against its qualified form ("alpha" and "alpha.dept", not
 * "alphabet").  "alternate_hostnames" (one name a line) and
 * "automount_prefix" (first line; "/tmp_mnt" when missing) in the host
 * configuration directory are read once per process (a host without a host
 * data directory stops there, as ks_hostdata_dir does).  These routines return
 * 0, or -1 with errno (ENAMETOOLONG when out is too small, EINVAL for a size
 * 0 or a name without a host); the messages "Unable to open mount table:
 * ..." and "Operation gethostname: ..." are printed where they fail. */

/* host:path for the local name path (made absolute and resolved), from the
 * mount whose mount point holds it most closely (the first of equals;
 * automounter triggers, type "autofs", hold nothing). */
KS_API int fileutl_where(const char *path, char *out, size_t size);
/* Only the host that stores path. */
KS_API int fileutl_path_host(const char *path, char *out, size_t size);
/* The local name of hostpath: through the mount table (automounter mount
 * points skipped), else through the automounter directories "/net",
 * "/hosts", "/nfs" and the login user's home directory. */
KS_API int fileutl_unwhere(const char *hostpath, char *out, size_t size);
/* 1 if host names a and b denote the same host (the rule above), else 0;
 * an empty name matches only an empty one. */
KS_API int fileutl_hostnames_equal(const char *a, const char *b);
/* As fileutl_hostnames_equal, and also 1 when both name this host. */
KS_API int fileutl_hosts_equal(const char *a, const char *b);
/* 1 if host is this host: its own name, an alternate name, or a name of a
 * loopback address (127.0.0.0/8); else 0. */
KS_API int fileutl_is_localhost(const char *host);
/* The current directory into out; out, or null with errno (ENAMETOOLONG). */
KS_API char *fileutl_getcwd(char *out, size_t size);
/* fileutl_getcwd without the automounter prefix in front ("/" for the
 * prefix itself). */
KS_API char *fileutl_getcwd_noauto(char *out, size_t size);
/* Absolute form of the local name path with symbolic links, "." and ".."
 * resolved; a part that does not exist is kept as written, without dots. */
KS_API int fileutl_abspn(const char *path, char *out, size_t size);
/* The mount point of the file system that holds path. */
KS_API int fileutl_mount_pname(const char *path, char *out, size_t size);
/* 0 when local names a and b are stored on the same host, 1 when not, -1
 * when either cannot be located. */
KS_API int fileutl_path_host_cmp(const char *a, const char *b);
/* 1 if the file system holding path is mounted with the option "soft", 0
 * if not, -1 when it cannot be located. */
KS_API int fileutl_is_softmnt(const char *path);

/* OTTER_GPATH_HINTS (read once) lists pairs "host:path=local" separated by
 * ";" or white space: host:path is reached on this host at local.  The hints
 * come before the mount table in the following routines. */

/* The local name of hostpath: the first hint whose host matches and whose
 * path is hostpath's path or above it, else fileutl_unwhere. */
KS_API int fileutl_get_local_path(const char *hostpath, char *out, size_t size);
/* host:path of the local name path: the first hint whose local directory
 * holds it (after fileutl_abspn), else fileutl_where. */
KS_API int fileutl_get_location(const char *path, char *out, size_t size);
/* An existing local name for name, given as host:path or as a local name
 * (made absolute); -1 with ENOENT when it does not exist here. */
KS_API int fileutl_path_locate(const char *name, char *out, size_t size);
/* Index of the first of count names that fileutl_path_locate finds (its
 * local name in out), or -1. */
KS_API int fileutl_pick_path(const char *const *names, int count, char *out, size_t size);
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

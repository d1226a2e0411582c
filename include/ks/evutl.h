/*
 * Environment blocks: private, editable lists of NAME=value strings laid out
 * as the process environment (string pointers ended by a null pointer), so
 * that a program can prepare a child's environment, or install one as its
 * own for a while, without disturbing its own.
 *
 * A block, its slot array and its strings come from one storage area; a
 * block of STG_AREA_HEAP is released with evutl_free, a block of a real
 * area with the area.  A name matches an entry when the entry starts with
 * the name followed by "=" (case matters; the first such entry counts).
 * A null block is taken as one without variables: look-ups find nothing,
 * removals do nothing, and additions fail with 1.
 */
#ifndef KS_EVUTL_H
#define KS_EVUTL_H

#include "ks/ks_common.h"
#include "ks/stg.h"

KS_BEGIN_DECLS

typedef struct evutl_block {
    /* The strings, the last slot in use null: ready for execve or environ.
     * Null while the block has never held a variable. */
    char **slots;
    /* Slots in use, the terminating null one included; 0 with no array. */
    uint32_t count;
    /* Where the record, the array and the strings come from. */
    stg_area_t area;
} evutl_block_t;

/* A new empty block from area in *block.  1 when the area cannot supply the
 * record (*block then null). */
KS_API int32_t evutl_alloc(stg_area_t area, evutl_block_t **block);
/* A new block from area holding copies of the entries of env (null: none),
 * as far as the process environment is long: the slots past its length stay
 * null.  1 when the area cannot supply the record. */
KS_API int32_t evutl_copy_environ(stg_area_t area, char **env, evutl_block_t **block);
/* evutl_copy_environ of the process environment. */
KS_API int32_t evutl_copy_default_environ(stg_area_t area, evutl_block_t **block);
/* Releases a heap block, its strings and its array; a block of any other
 * area is left to its area.  Always 0. */
KS_API int32_t evutl_free(evutl_block_t *block);
/* The value of name in block (the text after "="), pointing into the block;
 * null when absent. */
KS_API char *evutl_getenv(const evutl_block_t *block, const char *name);
/* Sets or adds the variable of text, "NAME=value" (the name ends at the first
 * "=").  1 when text holds no "=" (nothing changes), or out of memory. */
KS_API int32_t evutl_setenv(evutl_block_t *block, const char *text);
/* Sets or adds name=value (a null value is empty).  1 for a null name, or
 * out of memory. */
KS_API int32_t evutl_setenv2(evutl_block_t *block, const char *name, const char *value);
/* Removes the first entry of name; its string is not released.  0, also when
 * there is none. */
KS_API int32_t evutl_unsetenv(evutl_block_t *block, const char *name);
/* Installs the block's array as the process environment, keeping the current
 * one for evutl_restore_default_environ; while a block is installed, further
 * calls change nothing.  The block must not be freed or grown meanwhile.
 * 1 for a null block, else 0. */
KS_API int32_t evutl_override_default_environ(evutl_block_t *block);
/* Puts back the process environment that evutl_override_default_environ
 * kept; nothing when none is kept.  Always 0. */
KS_API int32_t evutl_restore_default_environ(void);
/* Removes the first entry of name from the process environment itself, with
 * signals held (the string is not released).  Always 0. */
KS_API int32_t evutl_unsetenv_default_environ(const char *name);

KS_END_DECLS

#endif

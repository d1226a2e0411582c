/*
 * Compression of memory blocks: a Lempel-Ziv scheme with a 4096-byte window
 * and matches of 3 to 34 bytes, written as a bit-packed token stream behind a
 * 5-byte header (version 1, then the uncompressed length, big-endian).
 *
 * Tokens, most significant bit first, the last byte padded with 0 bits:
 *   0bbbbbbb                 literal byte 0x00 to 0x7F (8 bits)
 *   11bbbbbbb                literal byte 0x80 to 0xFF (9 bits)
 *   10 dddddddddddd lllll    match: distance - 1 (12 bits), length - 3 (5 bits)
 * A stream has no end marker: it ends when the header's length is produced.
 */
#ifndef KS_COMPRESS_UTL_H
#define KS_COMPRESS_UTL_H

#include "ks/ks_common.h"

KS_BEGIN_DECLS

/* Compressed form of the len bytes at data (data may be null when len is 0)
 * in a new block of stg_malloc (release with stg_free); *out_len gets its size.
 * Null, after the heap's report, when memory runs out. */
KS_API void *compress_compress(uint32_t len, const void *data, uint32_t *out_len);
/* The data of the len-byte compressed buffer at data, in a new block of
 * stg_malloc (release with stg_free); *out_len gets its length.  Null after
 * "Bad format number" for a buffer that is not a whole, valid stream, or
 * after "Unable to allocate storage." */
KS_API void *compress_uncompress(uint32_t len, const void *data, uint32_t *out_len);

KS_END_DECLS

#endif

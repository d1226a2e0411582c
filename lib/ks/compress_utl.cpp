// Compression of memory blocks: a hash of three bytes, short chains of earlier
// token starts, and a search that gives up early; the token stream is packed
// most significant bit first behind a 5-byte header.
#include "ks/compress_utl.h"

#include <stddef.h>
#include <string.h>

#include "ks/imsg.h"
#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks_assert.h"
#include "ks_msg.h"

namespace {

// The stored header: the format version, then the uncompressed length,
// big-endian.
struct stored_header {
    unsigned char version;
    unsigned char length[4];
};
static_assert(sizeof(stored_header) == 5, "the header is 5 bytes");
static_assert(offsetof(stored_header, version) == 0, "version at offset 0");
static_assert(offsetof(stored_header, length) == 1, "length at offset 1");

constexpr unsigned char kVersion = 1;
constexpr uint32_t kHeaderSize = sizeof(stored_header);
constexpr uint32_t kWindow = 4096;
constexpr uint32_t kMinMatch = 3;
constexpr uint32_t kMaxMatch = 34;
constexpr uint32_t kChains = 8091;
// The walk stops once its candidate counter passes 10.
constexpr int kMaxCandidates = 11;
constexpr uint32_t kWorkAreaSize = 32000;

// Token sizes in bits.
constexpr unsigned kLowLiteralBits = 8;
constexpr unsigned kHighLiteralBits = 9;
constexpr unsigned kMatchBits = 19;
constexpr unsigned kDistanceBits = 12;
constexpr unsigned kLengthBits = 5;

uint64_t load64(const unsigned char *p)
{
    uint64_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

uint64_t load_be64(const unsigned char *p)
{
    return __builtin_bswap64(load64(p));
}

void store_be32(unsigned char *p, uint32_t v)
{
    v = __builtin_bswap32(v);
    memcpy(p, &v, sizeof v);
}

// ---- Compression ---------------------------------------------------------

// Pending bits over the output pointer: the low `count` bits of `bits` wait
// to be written; whole 32-bit words go out as soon as they are complete.
struct bit_writer {
    unsigned char *out;
    uint64_t bits;
    unsigned count;
};

inline void put_bits(bit_writer *w, uint32_t value, unsigned n)
{
    w->bits = (w->bits << n) | value;
    w->count += n;
    if (w->count >= 32) {
        w->count -= 32;
        store_be32(w->out, static_cast<uint32_t>(w->bits >> w->count));
        w->out += 4;
    }
}

// Writes what is pending, the last byte padded with 0 bits.
void flush_bits(bit_writer *w)
{
    while (w->count >= 8) {
        w->count -= 8;
        *w->out++ = static_cast<unsigned char>(w->bits >> w->count);
    }
    if (w->count > 0)
        *w->out++ = static_cast<unsigned char>(w->bits << (8 - w->count));
    w->count = 0;
}

inline void output_literal(bit_writer *w, unsigned char byte)
{
    if (byte < 0x80)
        put_bits(w, byte, kLowLiteralBits);
    else
        put_bits(w, 0x100u | byte, kHighLiteralBits);
}

inline void output_match(bit_writer *w, uint32_t distance, uint32_t length)
{
    put_bits(w,
             (2u << (kDistanceBits + kLengthBits)) | ((distance - 1) << kLengthBits) |
                 (length - kMinMatch),
             kMatchBits);
}

inline uint32_t chain_of(const unsigned char *p)
{
    uint32_t b0 = p[0], b1 = p[1], b2 = p[2];
    return ((b0 + 8 * b1 + 64 * b2) * b0) % kChains;
}

// Number of equal leading bytes of a and b, at most limit (both readable
// for limit bytes).
inline uint32_t match_length(const unsigned char *a, const unsigned char *b, uint32_t limit)
{
    uint32_t n = 0;
    while (n + 8 <= limit) {
        uint64_t diff = load64(a + n) ^ load64(b + n);
        if (diff != 0)
            return n + static_cast<uint32_t>(__builtin_ctzll(diff)) / 8;
        n += 8;
    }
    while (n < limit && a[n] == b[n])
        n++;
    return n;
}

// The chains.  head[h] is the newest token start of chain h plus one (0: the
// chain is empty); a start's link to the next older one of its chain sits in
// slot (start mod 4096) of link.  A walk stops at the first start more than
// 4096 bytes back, so it never reads a link slot that a newer start has
// taken over: the slot is reused as soon as its old start leaves the window,
// and a head that left the window is simply overwritten by the new start.
struct chains {
    uint32_t head[kChains];
    uint32_t link[kWindow];
};

// Encodes len bytes at in through w.  The search at each token start is the
// one the stored format was made with: any change here changes the output.
void encode(const unsigned char *in, uint32_t len, chains *c, bit_writer *w)
{
    uint32_t p = 0;
    while (len >= kMinMatch && p <= len - kMinMatch) {
        uint32_t h = chain_of(in + p);
        uint32_t limit = len - p < kMaxMatch ? len - p : kMaxMatch;
        uint32_t best = 0;
        uint32_t best_pos = 0;
        uint32_t entry = c->head[h];
        // Newest first, 11 candidates at most, none beyond the window.  A
        // candidate whose byte at the best length differs from ours ends the
        // walk at once.  Once best is the limit nothing can beat it, and the
        // byte at the limit may lie past the input: stop there.
        for (int n = 0; n < kMaxCandidates && entry != 0 && best < limit; n++) {
            uint32_t cand = entry - 1;
            if (p - cand > kWindow || in[cand + best] != in[p + best])
                break;
            uint32_t got = match_length(in + cand, in + p, limit);
            if (got > best) {
                best = got;
                best_pos = cand;
            }
            entry = c->link[cand % kWindow];
        }
        c->link[p % kWindow] = c->head[h];
        c->head[h] = p + 1;
        if (best >= kMinMatch) {
            output_match(w, p - best_pos, best);
            p += best;
        } else {
            output_literal(w, in[p]);
            p++;
        }
    }
    for (; p < len; p++)
        output_literal(w, in[p]);
}

// Room for the worst case: every byte a 9-bit literal, plus the header.
size_t worst_case_size(uint32_t len)
{
    return static_cast<size_t>(static_cast<double>(len) * 1.25 + 32);
}

// ---- Expansion -----------------------------------------------------------

// Token reader: the top `avail` bits of `bits` are the next bits of the
// stream, and the bits below them are either 0 or the stream's following bits.
struct bit_reader {
    const unsigned char *in;
    const unsigned char *end;
    uint64_t bits;
    unsigned avail;
};

// Tops the reader up to 56 bits or more with one 8-byte load (at least 8
// bytes must remain): the partial byte below the whole ones is loaded again
// next time, so or-ing it in now is harmless.
inline void refill_fast(bit_reader *r)
{
    r->bits |= load_be64(r->in) >> r->avail;
    r->in += (63 - r->avail) >> 3;
    r->avail |= 56;
}

// Tops the reader up byte by byte, as far as the input goes.
inline void refill_slow(bit_reader *r)
{
    while (r->avail <= 56 && r->in < r->end) {
        r->bits |= static_cast<uint64_t>(*r->in++) << (56 - r->avail);
        r->avail += 8;
    }
}

inline void consume(bit_reader *r, unsigned n)
{
    r->bits <<= n;
    r->avail -= n;
}

// One token.  Returns 0 for a literal (its byte in *byte), or the match's
// length (its distance in *distance); UINT32_MAX when the stream ends inside
// the token.
inline uint32_t input_value(bit_reader *r, unsigned char *byte, uint32_t *distance)
{
    uint64_t b = r->bits;
    if ((b >> 63) == 0) {
        if (r->avail < kLowLiteralBits)
            return UINT32_MAX;
        *byte = static_cast<unsigned char>(b >> 56);
        consume(r, kLowLiteralBits);
        return 0;
    }
    if (((b >> 62) & 1) != 0) {
        if (r->avail < kHighLiteralBits)
            return UINT32_MAX;
        *byte = static_cast<unsigned char>(b >> 55);
        consume(r, kHighLiteralBits);
        return 0;
    }
    if (r->avail < kMatchBits)
        return UINT32_MAX;
    *distance = static_cast<uint32_t>((b >> (64 - 2 - kDistanceBits)) & (kWindow - 1)) + 1;
    uint32_t length =
        static_cast<uint32_t>((b >> (64 - kMatchBits)) & ((1u << kLengthBits) - 1)) + kMinMatch;
    consume(r, kMatchBits);
    return length;
}

// Copies a match of length bytes from distance back, forwards, so that an
// overlapping copy repeats the recent bytes.  The fast form may write up to
// 48 bytes: its caller keeps that much room.
inline void copy_match_fast(unsigned char *op, uint32_t distance, uint32_t length)
{
    const unsigned char *src = op - distance;
    if (distance >= 16) {
        for (uint32_t k = 0; k < length; k += 16)
            memcpy(op + k, src + k, 16);
    } else if (distance >= 8) {
        for (uint32_t k = 0; k < length; k += 8)
            memcpy(op + k, src + k, 8);
    } else if (distance == 1) {
        memset(op, *src, length);
    } else {
        for (uint32_t k = 0; k < length; k++)
            op[k] = src[k];
    }
}

constexpr ptrdiff_t kFastRoom = 48;

// Expands the stream of r into out[0, size).  Every match is checked once:
// its distance against what has been produced, its length against the room
// left.  False on a corrupt or short stream.
bool expand(bit_reader *r, unsigned char *out, uint32_t size)
{
    unsigned char *op = out;
    unsigned char *const end = out + size;
    unsigned char byte = 0;
    uint32_t distance = 0;
    // The bulk: 8 input bytes for one load and room for an over-long copy.
    while (r->end - r->in >= 8 && end - op >= kFastRoom) {
        refill_fast(r);
        uint32_t length = input_value(r, &byte, &distance);
        if (length == 0) {
            *op++ = byte;
        } else {
            if (distance > static_cast<size_t>(op - out))
                return false;
            copy_match_fast(op, distance, length);
            op += length;
        }
    }
    // The tail, exact to the byte.
    while (op < end) {
        refill_slow(r);
        uint32_t length = input_value(r, &byte, &distance);
        if (length == 0) {
            *op++ = byte;
            continue;
        }
        if (length == UINT32_MAX || distance > static_cast<size_t>(op - out) ||
            length > static_cast<size_t>(end - op))
            return false;
        for (const unsigned char *src = op - distance; length > 0; length--)
            *op++ = *src++;
    }
    return true;
}

void report_bad_format()
{
    imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_BAD_FORMAT_NUMBER, "compressed data");
}

} // namespace

void *compress_compress(uint32_t len, const void *data, uint32_t *out_len)
{
    KS_ASSERT(data != nullptr || len == 0);
    const auto *in = static_cast<const unsigned char *>(data);
    // The work area and the output never outlive an unwind through here.
    stg_area_t volatile area = STG_AREA_NULL;
    unsigned char *volatile out = nullptr;
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) != 0) {
        stg_area_t doomed = area;
        stg_delete_area(&doomed);
        stg_free(out);
        pfm_raise(rec.value);
    }
    pfm_inhibit();
    area = stg_create_area(kWorkAreaSize);
    out = static_cast<unsigned char *>(stg_malloc(worst_case_size(len)));
    pfm_enable();
    chains *c = area != STG_AREA_NULL && out != nullptr
                    ? static_cast<chains *>(stg_alloc(area, sizeof(chains)))
                    : nullptr;
    uint32_t used = 0;
    if (c != nullptr) {
        memset(c->head, 0, sizeof c->head);
        bit_writer w = {out, 0, 0};
        put_bits(&w, kVersion, 8);
        put_bits(&w, len >> 16, 16);
        put_bits(&w, len & 0xFFFF, 16);
        encode(in, len, c, &w);
        flush_bits(&w);
        used = static_cast<uint32_t>(w.out - out);
    }
    pfm_inhibit();
    pfm_cleanup_rls(&rec);
    stg_area_t done = area;
    stg_delete_area(&done);
    unsigned char *result = out;
    if (c == nullptr) {
        stg_free(result);
        result = nullptr;
    }
    pfm_enable();
    if (out_len != nullptr)
        *out_len = used;
    return result;
}

void *compress_uncompress(uint32_t len, const void *data, uint32_t *out_len)
{
    const auto *in = static_cast<const unsigned char *>(data);
    if (out_len != nullptr)
        *out_len = 0;
    if (len < kHeaderSize || in == nullptr || in[0] != kVersion) {
        report_bad_format();
        return nullptr;
    }
    uint32_t size = (static_cast<uint32_t>(in[1]) << 24) | (static_cast<uint32_t>(in[2]) << 16) |
                    (static_cast<uint32_t>(in[3]) << 8) | in[4];
    // Nothing packs more than 34 bytes into 19 bits: a longer claim can only
    // end early, and is refused before its storage is asked for.
    uint64_t stream_bits = static_cast<uint64_t>(len - kHeaderSize) * 8;
    if (size > stream_bits * kMaxMatch / kMatchBits) {
        report_bad_format();
        return nullptr;
    }
    unsigned char *volatile out = nullptr;
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) != 0) {
        stg_free(out);
        pfm_raise(rec.value);
    }
    pfm_inhibit();
    out = static_cast<unsigned char *>(stg_malloc(size));
    pfm_enable();
    bool ok = false;
    if (out == nullptr) {
        imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_NO_STORAGE);
    } else {
        bit_reader r = {in + kHeaderSize, in + len, 0, 0};
        ok = expand(&r, out, size);
    }
    pfm_inhibit();
    pfm_cleanup_rls(&rec);
    unsigned char *result = out;
    if (!ok) {
        stg_free(result);
        result = nullptr;
    }
    pfm_enable();
    if (!ok) {
        if (out != nullptr)
            report_bad_format();
        return nullptr;
    }
    if (out_len != nullptr)
        *out_len = size;
    return result;
}

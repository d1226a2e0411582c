// The library's stored checksum: a table-driven CRC of its own.
//
// For each byte: index = (value >> 24) ^ byte; an index of 0 is replaced by
// the substitution counter, which then advances (mod 256); value = (value <<
// 8) ^ table[index].  The table is the reflected CRC-32 table (0xEDB88320)
// used with a left shift, with entry 0 set to 0x7FFFFFFF; no inversion.
// Values are stored by callers, so not one bit of this may change.
//
// The fast path takes eight bytes at a time.  Without a substitution the
// update is linear over GF(2) in (value, bytes), so the value after eight
// bytes is an xor of eight table entries, one per byte of the block (with
// the value folded into the first four), as in slicing-by-8.  The same holds
// for the eight indices the byte loop would compute, so each entry also
// carries its part of them, packed one per byte: when none of the eight is
// 0, no substitution happened and the speculative value is exact; otherwise
// the block is redone byte by byte.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <array>

#include "ks/fileutl.h"

namespace {

constexpr uint32_t kEntryZero = 0x7FFFFFFF;
constexpr int kRetries = 5; // EINTR retries in a row
constexpr int kFailed = -4;
constexpr size_t kReadBlock = 8192;

// The standard reflected table, entry 0 included (0).
constexpr std::array<uint32_t, 256> make_crc_table()
{
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; i++) {
        uint32_t c = i;
        for (int k = 0; k < 8; k++)
            c = (c & 1) != 0 ? 0xEDB88320U ^ (c >> 1) : c >> 1;
        t[i] = c;
    }
    return t;
}
constexpr std::array<uint32_t, 256> kStdTable = make_crc_table();

// The checksum's own table: entry 0 altered.
constexpr std::array<uint32_t, 256> make_sum_table()
{
    std::array<uint32_t, 256> t = kStdTable;
    t[0] = kEntryZero;
    return t;
}
constexpr std::array<uint32_t, 256> kTable = make_sum_table();

// Part of one byte position of an eight-byte block: the indices it feeds
// (index j in byte j) and the value it leaves.
struct block_part {
    uint64_t indices;
    uint64_t value;
};
using block_table = std::array<std::array<block_part, 256>, 8>;

constexpr block_table make_block_table()
{
    block_table t{};
    for (int pos = 0; pos < 8; pos++)
        for (uint32_t x = 0; x < 256; x++) {
            uint32_t v = 0;
            uint64_t indices = 0;
            for (int j = 0; j < 8; j++) {
                uint32_t idx = (v >> 24) ^ (j == pos ? x : 0);
                indices |= static_cast<uint64_t>(idx) << (8 * j);
                v = (v << 8) ^ kStdTable[idx];
            }
            t[pos][x] = {indices, v};
        }
    return t;
}
constexpr block_table kBlockTable = make_block_table();

uint32_t sum_bytes(const unsigned char *p, size_t n, uint32_t value, uint32_t &counter)
{
    for (size_t i = 0; i < n; i++) {
        uint32_t idx = (value >> 24) ^ p[i];
        if (idx == 0) {
            idx = counter;
            counter = (counter + 1) & 0xFF;
        }
        value = (value << 8) ^ kTable[idx];
    }
    return value;
}

bool has_zero_byte(uint64_t x)
{
    return ((x - 0x0101010101010101ULL) & ~x & 0x8080808080808080ULL) != 0;
}

uint32_t load_be32(const unsigned char *p)
{
    uint32_t x;
    memcpy(&x, p, sizeof x);
    return __builtin_bswap32(x);
}

// The parts of four bytes of a word at positions first to first + 3.
block_part word_part(uint32_t word, int first)
{
    const block_part &a = kBlockTable[first][word >> 24];
    const block_part &b = kBlockTable[first + 1][(word >> 16) & 0xFF];
    const block_part &c = kBlockTable[first + 2][(word >> 8) & 0xFF];
    const block_part &d = kBlockTable[first + 3][word & 0xFF];
    return {(a.indices ^ b.indices) ^ (c.indices ^ d.indices),
            (a.value ^ b.value) ^ (c.value ^ d.value)};
}

uint32_t sum(const unsigned char *p, size_t n, uint32_t value, uint32_t &counter)
{
    for (; n >= 8; p += 8, n -= 8) {
        // The second half of the block does not depend on the value, so it
        // is ready before the first half's look-ups are.
        block_part late = word_part(load_be32(p + 4), 4);
        block_part early = word_part(load_be32(p) ^ value, 0);
        if (__builtin_expect(has_zero_byte(early.indices ^ late.indices), 0))
            value = sum_bytes(p, 8, value, counter);
        else
            value = static_cast<uint32_t>(early.value ^ late.value);
    }
    return sum_bytes(p, n, value, counter);
}

} // namespace

void fileutl_crc_buffer(const void *buf, size_t len, uint32_t *crc)
{
    uint32_t counter = 0;
    *crc = sum(static_cast<const unsigned char *>(buf), len, 0, counter);
}

void fileutl_crc_buffer_step(const void *buf, size_t len, uint32_t *counter, uint32_t *crc)
{
    uint32_t c = *counter & 0xFF;
    *crc = sum(static_cast<const unsigned char *>(buf), len, *crc, c);
    *counter = c;
}

int fileutl_crc_fd(int fd, uint32_t *crc, fileutl_size64_t *size, int *err)
{
    unsigned char buf[kReadBlock];
    uint32_t counter = 0;
    uint32_t value = 0;
    uint32_t count = 0; // the stored size keeps 32 bits
    int allowance = kRetries;
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n > 0) {
            value = sum(buf, static_cast<size_t>(n), value, counter);
            count += static_cast<uint32_t>(n);
            allowance = kRetries;
            continue;
        }
        if (n == 0)
            break;
        if (errno == EINTR && allowance-- > 0)
            continue;
        *err = errno;
        return kFailed;
    }
    *crc = value;
    size->high = 0;
    size->low = count;
    return 0;
}

int fileutl_crc(const char *path, uint32_t *crc, int *err)
{
    int fd;
    int allowance = kRetries;
    do
        fd = open(path, O_RDONLY | O_CLOEXEC);
    while (fd < 0 && errno == EINTR && allowance-- > 0);
    if (fd < 0) {
        *err = errno;
        return kFailed;
    }
    fileutl_size64_t size;
    int rc = fileutl_crc_fd(fd, crc, &size, err);
    close(fd);
    return rc;
}

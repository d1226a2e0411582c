// Reading a stream backwards, line by line, through one cached block and
// 64-bit seeks.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include "ks/fileutl.h"
#include "ks/stg.h"

namespace {

constexpr uint32_t kMagic = 0x62775244; // "bwRD"
constexpr size_t kBlock = 65536;

} // namespace

struct fileutl_bw {
    uint32_t magic;
    FILE *fp;
    off_t end;       // everything before end is still to be returned
    off_t blk_start; // the cached block: its offset and length (0: none)
    size_t blk_len;
    char blk[kBlock];
};

namespace {

// Makes the block holding offset at the cache's; false with errno on a
// read error.
bool load(fileutl_bw *bw, off_t at)
{
    if (bw->blk_len != 0 && at >= bw->blk_start &&
        at < bw->blk_start + static_cast<off_t>(bw->blk_len))
        return true;
    off_t start = at - at % static_cast<off_t>(kBlock);
    if (fseeko(bw->fp, start, SEEK_SET) != 0)
        return false;
    size_t n = fread(bw->blk, 1, kBlock, bw->fp);
    if (n == 0 || start + static_cast<off_t>(n) <= at) {
        if (ferror(bw->fp) == 0)
            errno = EIO; // the stream is shorter than it was
        bw->blk_len = 0;
        return false;
    }
    bw->blk_start = start;
    bw->blk_len = n;
    return true;
}

// Offset just past the last newline in [from, to), or from when none; -1
// with errno on a read error.
off_t after_last_newline(fileutl_bw *bw, off_t from, off_t to)
{
    while (to > from) {
        if (!load(bw, to - 1))
            return -1;
        off_t lo = from > bw->blk_start ? from : bw->blk_start;
        const char *base = bw->blk + (lo - bw->blk_start);
        const void *nl = memrchr(base, '\n', static_cast<size_t>(to - lo));
        if (nl != nullptr)
            return lo + (static_cast<const char *>(nl) - base) + 1;
        to = lo;
    }
    return from;
}

// Copies [from, to) into out.
bool copy_out(fileutl_bw *bw, off_t from, off_t to, char *out)
{
    while (from < to) {
        if (!load(bw, from))
            return false;
        off_t blk_end = bw->blk_start + static_cast<off_t>(bw->blk_len);
        off_t stop = to < blk_end ? to : blk_end;
        memcpy(out, bw->blk + (from - bw->blk_start), static_cast<size_t>(stop - from));
        out += stop - from;
        from = stop;
    }
    return true;
}

bool valid(const fileutl_bw *bw)
{
    return bw != nullptr && bw->magic == kMagic;
}

} // namespace

fileutl_bw_t *fileutl_bw_start(FILE *fp, int from_end)
{
    if (fp == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    if (from_end && fseeko(fp, 0, SEEK_END) != 0)
        return nullptr;
    off_t end = ftello(fp);
    if (end < 0)
        return nullptr;
    auto *bw = static_cast<fileutl_bw *>(stg_malloc(sizeof(fileutl_bw)));
    if (bw == nullptr)
        return nullptr;
    bw->magic = kMagic;
    bw->fp = fp;
    bw->end = end;
    bw->blk_start = 0;
    bw->blk_len = 0;
    return bw;
}

char *fileutl_bw_fgets(char *buf, int size, fileutl_bw_t *bw)
{
    if (!valid(bw) || buf == nullptr || size < 2) {
        errno = EINVAL;
        return nullptr;
    }
    if (bw->end == 0)
        return nullptr;
    // The line ends at end and takes its last byte whatever it is; it starts
    // after the newline before that, or as far back as buf allows.
    off_t room = size - 1;
    off_t floor = bw->end > room ? bw->end - room : 0;
    off_t start = after_last_newline(bw, floor, bw->end - 1);
    if (start < 0 || !copy_out(bw, start, bw->end, buf))
        return nullptr;
    buf[bw->end - start] = '\0';
    bw->end = start;
    return buf;
}

void fileutl_bw_stop(fileutl_bw_t *bw)
{
    if (!valid(bw))
        return;
    bw->magic = 0;
    stg_free(bw);
}

// Numbers and sizes: the C library's conversions under the module's strict
// rules (0 success, 1 failure, the value through an out parameter set to 0
// first), sizes with K/M/G suffixes, a clamped parameter and digits in any
// base from 2 to 36.
#include "ks/strutl.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

template <typename T, typename F>
uint32_t parse_extended(const char *str, T *out, char **endp, F conv)
{
    *out = 0;
    errno = 0;
    if (endp)
        *endp = const_cast<char *>(str);
    if (str == nullptr)
        return 1;
    char *end = nullptr;
    T v = conv(str, &end);
    if (endp)
        *endp = end;
    if (errno != 0 || (v == 0 && end == str))
        return 1;
    *out = v;
    return 0;
}

// The whole-string rule: as parse_extended, and text after the number fails
// (the value is still stored).
template <typename T, typename F>
uint32_t parse_whole(const char *str, T *out, F conv)
{
    char *end = nullptr;
    if (parse_extended(str, out, &end, conv) != 0)
        return 1;
    return *end != '\0' ? 1 : 0;
}

double to_double(const char *s, char **end)
{
    return strtod(s, end);
}

// A size suffix (either case) and its factors for a result in K and in bytes.
struct size_unit {
    char upper;
    double in_kilo;
    double in_bytes;
};
constexpr size_unit kSizeUnits[] = {
    {'K', 1.0, 1024.0}, {'M', 1024.0, 1048576.0}, {'G', 1048576.0, 1073741824.0}};
constexpr size_unit kNoUnit = {'\0', 0.0009765625, 1.0};
constexpr double kTwoTo63 = 9223372036854775808.0; // a long holds less than this

// The factor of the suffix at end (one letter, or none); null when bad.
const size_unit *find_unit(const char *end)
{
    if (*end == '\0')
        return &kNoUnit;
    if (end[1] != '\0')
        return nullptr;
    for (const size_unit &u : kSizeUnits)
        if (*end == u.upper || *end == u.upper - 'A' + 'a')
            return &u;
    return nullptr;
}

uint32_t size_to_long(const char *str, long *out, bool in_kilo)
{
    *out = 0;
    char *end = nullptr;
    double v;
    if (parse_extended(str, &v, &end, to_double) != 0)
        return 1;
    const size_unit *unit = find_unit(end);
    if (unit == nullptr)
        return 1;
    double p = v * (in_kilo ? unit->in_kilo : unit->in_bytes);
    // A size that a long cannot hold (or NaN) is refused rather than wrapped.
    if (!(p > -kTwoTo63 && p < kTwoTo63))
        return 1;
    long r = static_cast<long>(p);
    if (r == 0 && v != 0)
        r = 1; // a small non-zero size never becomes zero
    *out = r;
    return 0;
}

constexpr int kU32Digits = 32;
char u32_buf[kU32Digits + 1]; // shared by all callers of strutl_u32tostr

} // namespace

uint32_t strutl_strtol(const char *str, int base, long *out)
{
    return parse_whole(str, out, [base](const char *s, char **e) { return strtol(s, e, base); });
}

uint32_t strutl_strtoul(const char *str, int base, unsigned long *out)
{
    return parse_whole(str, out, [base](const char *s, char **e) { return strtoul(s, e, base); });
}

uint32_t strutl_strtod(const char *str, double *out)
{
    return parse_whole(str, out, to_double);
}

uint32_t strutl_strtol_extended(const char *str, int base, long *out, char **end)
{
    return parse_extended(str, out, end,
                          [base](const char *s, char **e) { return strtol(s, e, base); });
}

uint32_t strutl_strtoul_extended(const char *str, int base, unsigned long *out, char **end)
{
    return parse_extended(str, out, end,
                          [base](const char *s, char **e) { return strtoul(s, e, base); });
}

uint32_t strutl_strtod_extended(const char *str, double *out, char **end)
{
    return parse_extended(str, out, end, to_double);
}

uint32_t strutl_kstr_to_long(const char *str, long *out)
{
    return size_to_long(str, out, true);
}

uint32_t strutl_kstr_or_str_to_long(const char *str, long *out)
{
    return size_to_long(str, out, false);
}

long strutl_process_long_param(const char *str, long def, long min, long max)
{
    long v;
    if (str == nullptr || strutl_strtol(str, 10, &v) != 0)
        return def;
    if (v < min)
        return min;
    return v < max ? v : max;
}

char *strutl_u32tostr(uint32_t value, int base, int width)
{
    constexpr char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    if (base < 2 || base > 36)
        return nullptr;
    memset(u32_buf, '0', kU32Digits);
    u32_buf[kU32Digits] = '\0';
    int i = kU32Digits;
    auto b = static_cast<uint32_t>(base);
    while (value != 0 && i > 0) {
        u32_buf[--i] = kDigits[value % b];
        value /= b;
    }
    if (width > kU32Digits)
        return u32_buf;
    if (width >= 0)
        return u32_buf + kU32Digits - width;
    int first = 0;
    while (first < kU32Digits - 1 && u32_buf[first] == '0')
        first++; // at least one digit stays
    return u32_buf + first;
}

// Numbers and sizes: the whole-string and extended rules, size suffixes, the
// clamped parameter and digits in any base.

#include <cerrno>
#include <climits>

#include "strutl_test_util.h"

// Trailing text fails only the whole-string form (the value is kept); an
// error or nothing consumed fails both and stores 0.  strtoul and strtod go
// through the same rules.
TEST(StrutlNumbers, WholeAndExtendedRules)
{
    // text, base, whole-string result, extended result, value, where the extended form ends
    const struct { const char *in; int base; uint32_t whole, ext; long v; int end; } cases[] = {
        {"12x", 10, 1, 0, 12, 2}, {"x", 10, 1, 1, 0, 0}, {"", 10, 1, 1, 0, 0}, {"0", 10, 0, 0, 0, 1},
        {" -42", 10, 0, 0, -42, 4}, {"0x1f", 0, 0, 0, 31, 4}, {"7 ", 10, 1, 0, 7, 1}, {"99999999999999999999", 10, 1, 1, 0, 20}};
    char *end = nullptr; // set by every extended call
    for (const auto &c : cases) {
        long whole = 99, ext = 99;
        EXPECT_EQ(strutl_strtol(c.in, c.base, &whole), c.whole) << c.in;
        EXPECT_EQ(strutl_strtol_extended(c.in, c.base, &ext, &end), c.ext) << c.in;
        EXPECT_TRUE(whole == c.v && ext == c.v && end == c.in + c.end) << c.in;
    }
    unsigned long u = 0;
    double d = 9;
    const char *t = "2.5e";
    EXPECT_TRUE(strutl_strtoul("-1", 10, &u) == 0 && u == ULONG_MAX);
    EXPECT_TRUE(strutl_strtoul_extended("18446744073709551616", 10, &u, &end) == 1 && u == 0 && *end == '\0');
    EXPECT_TRUE(strutl_strtod(t, &d) == 1 && d == 2.5 && strutl_strtod_extended(t, &d, &end) == 0 && end == t + 3);
    EXPECT_TRUE(strutl_strtod("1e999", &d) == 1 && d == 0);
    long v = 5;
    EXPECT_TRUE(strutl_strtol_extended(nullptr, 10, &v, &end) == 1 && v == 0 && end == nullptr);
    errno = EINVAL; // cleared before converting
    EXPECT_EQ(strutl_strtol("1", 10, &v), 0u);
}

TEST(StrutlNumbers, SizesWithSuffixes)
{
    // In K a non-zero size below 1K is raised to 1 (in bytes -0.5 too: the
    // raise looks only at "not 0"); 1kb has two characters after the number.
    const auto k = strutl_kstr_to_long, b = strutl_kstr_or_str_to_long;
    const struct { uint32_t (*fn)(const char *, long *); const char *in; uint32_t rc; long v; } cases[] = {
        {k, "100", 0, 1}, {k, "2M", 0, 2048}, {k, "2048", 0, 2}, {k, "3k", 0, 3}, {k, "1g", 0, 1048576}, {k, "0", 0, 0},
        {k, "-2048", 0, -2}, {k, "1kb", 1, 0}, {k, "5Z", 1, 0}, {k, "K", 1, 0}, {k, "1e400", 1, 0}, {b, "1g", 0, 1073741824},
        {b, "1.5K", 0, 1536}, {b, "2m", 0, 2097152}, {b, "0.25", 0, 1}, {b, "77", 0, 77}, {b, "-0.5", 0, 1},
        {b, "1T", 1, 0}, {b, "1e30G", 1, 0}, {b, "nan", 1, 0}};
    for (const auto &c : cases) {
        long v = -1;
        EXPECT_TRUE(c.fn(c.in, &v) == c.rc && v == c.v) << c.in << (c.fn == k ? " in K: " : " in bytes: ") << v;
    }
}

TEST(StrutlNumbers, ProcessLongParamAndDigits)
{
    const struct { const char *in; long want; } params[] = {{"7", 6}, {"4x", 3}, {"1", 5}, {nullptr, 3}, {"", 3}};
    for (const auto &c : params)
        EXPECT_EQ(strutl_process_long_param(c.in, 3, 5, 6), c.want) << (c.in ? c.in : "null");
    const std::string b5 = std::string(29, '0') + "101";
    const struct { uint32_t v; int base, width; std::string want; } digits[] = {
        {255, 16, 4, "00ff"}, {255, 16, 1, "f"}, {255, 16, 0, ""}, {255, 16, -1, "ff"}, {0, 10, -5, "0"},
        {5, 2, 33, b5}, {5, 2, 32, b5}, {0xFFFFFFFFu, 2, -1, std::string(32, '1')}, {0xFFFFFFFFu, 36, -1, "1z141z3"},
        {123456, 10, 3, "456"}, {1, 1, 4, "(null)"}, {1, 37, 4, "(null)"}};
    for (const auto &c : digits) {
        const char *got = strutl_u32tostr(c.v, c.base, c.width);
        EXPECT_EQ(got ? got : "(null)", c.want) << c.v << " " << c.base << " " << c.width;
    }
    EXPECT_EQ(strutl_u32tostr(1, 10, -1), strutl_u32tostr(2, 10, -1)); // one shared buffer
}

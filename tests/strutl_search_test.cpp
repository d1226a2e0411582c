// Searches and case: matches only at character boundaries in Shift_JIS,
// white space, case conversion of whole characters, case-blind collation and
// names.

#include "strutl_test_util.h"

TEST(StrutlSearch, ShiftJisBoundaries)
{
    use_locale("ja_JP.SJIS");
    // a SO b PO c \\ d | e HYO: the real '\\' is at 7 and the real '|' at 9;
    // "\\b" would be inside SO + "b", "|c" inside PO + "c".
    std::string s = "a" + kSo + "b" + kPo + "c\\d|e" + kHyo;
    const char *p = s.c_str(), *list[] = {"one", "two", nullptr};
    const char *found[] = {strutl_find_char(p, '\\'), strutl_find_char(p, '|'), strutl_find_char(p, '\0'),
                           strutl_find_char_from(p, 8, '\\'), strutl_find_last_char(p, '\\'), strutl_strrpbrk(p, "\\|"),
                           strutl_strrpbrk(p, kSo.c_str()), strutl_right_char(p), strutl_find_str(p, "\\d"),
                           strutl_find_str(p, "\\b"), strutl_find_str(p, "|c"), strutl_find_str_range(p, 8, "\\d"),
                           strutl_find_str_range(p, 9, "\\d")};
    const int at[] = {7, 9, 13, -1, 7, 9, 1, 11, 7, -1, -1, -1, 7};
    for (size_t i = 0; i < sizeof at / sizeof at[0]; i++)
        EXPECT_EQ(found[i], at[i] < 0 ? nullptr : p + at[i]) << i;
    EXPECT_EQ(strutl_match_last_char(p, '\\') * 2 + strutl_match_last_char("ab\\", '\\'), 1);
    EXPECT_EQ(strutl_match_prefix(p, "a") * 10 + strutl_match_prefix(p, "b"), 10u);
    EXPECT_EQ(strutl_str_in_list("two", list) * 2 + strutl_str_in_list("three", list), 2);
}

TEST(StrutlSearch, WhiteSpace)
{
    char ws[] = " \t in the middle \n ", none[] = "   ", sjis[] = "\x81\x40\x82\x81 \x81\x40";
    EXPECT_STREQ(strutl_strip_whitespace(ws), "in the middle");
    EXPECT_STREQ(strutl_strip_whitespace(none), "");
    EXPECT_EQ(strutl_cmp_ignore_whitespace("a b\tc", "abc"), 0);
    EXPECT_LT(strutl_cmp_ignore_whitespace("a b", "a c"), 0);
    use_locale("ja_JP.SJIS");
    // Full-width a (0x82 0x81) then '@': its trailing byte and the '@' read
    // together would be the ideographic space 0x81 0x40.
    EXPECT_EQ(strutl_cmp_ignore_whitespace(" \x82\x81 @ ", "\x82\x81\x81\x40@"), 0);
    EXPECT_LT(strutl_cmp_ignore_whitespace("\x82\x81", "\x82\x81@"), 0);
    EXPECT_STREQ(strutl_strip_whitespace(sjis), "\x82\x81");
}

TEST(StrutlCase, ConvertsWholeCharactersOnly)
{
    use_locale("ja_JP.SJIS");
    // Second bytes 0x5C, 0x7C and the letters a..z range (0x83 0x61 is a
    // katakana) are not case-converted as bytes; full-width a (0x82 0x81)
    // becomes full-width A (0x82 0x60).
    std::string s = "ab" + kSo + kPo + "\x83\x61\x82\x81" + "z|\\";
    char out[64];
    EXPECT_EQ(strutl_cvt_case_string(out, sizeof out, s.c_str(), STRUTL_CASE_UPPER), 0);
    EXPECT_EQ(std::string(out), "AB" + kSo + kPo + "\x83\x61\x82\x60" + "Z|\\");
    EXPECT_EQ(strutl_cvt_case_string(out, sizeof out, out, STRUTL_CASE_LOWER), 0);
    EXPECT_EQ(std::string(out), s);
    EXPECT_EQ(strutl_cvt_case_char("\x82\x81", out, STRUTL_CASE_UPPER), 2);
    EXPECT_STREQ(out, "\x82\x60");
    use_locale("de_DE.UTF-8");
    EXPECT_EQ(strutl_cvt_case_string(out, sizeof out, "\xC3\xA4pfel \xC3\x9F", STRUTL_CASE_UPPER), 0);
    EXPECT_STREQ(out, "\xC3\x84PFEL \xC3\x9F"); // sharp s has no single upper case
    // U+0130 (2 bytes) lowers to 'i' (1 byte): kept when converting in place.
    strcpy(out, "\xC4\xB0X");
    EXPECT_EQ(strutl_cvt_case_string(out, sizeof out, out, STRUTL_CASE_LOWER), 0);
    EXPECT_STREQ(out, "\xC4\xB0x");
    EXPECT_EQ(strutl_cvt_case_string(out, 3, "a\xC3\xA4", STRUTL_CASE_UPPER), 1);
    EXPECT_STREQ(out, "A");
    EXPECT_EQ(strutl_stricoll("\xC3\x84PFEL", "\xC3\xA4pfel"), 0);
    EXPECT_LT(strutl_stricoll("apple", "BANANA"), 0);
    EXPECT_EQ(strutl_stricoll(std::string(1000, 'A').c_str(), std::string(1000, 'a').c_str()), 0);
}

TEST(StrutlSearch, Names)
{
    const struct { const char *loc, *name, *first, *other; int want; } names[] = {
        {"C", "abc_1", nullptr, nullptr, 1}, {"C", "_x", nullptr, nullptr, 1}, {"C", "1abc", nullptr, nullptr, 0},
        {"C", "", nullptr, nullptr, 0}, {"C", "a-b", nullptr, nullptr, 0}, {"C", "a-b.c", nullptr, "-.", 1},
        {"C", "1abc", "0123456789", nullptr, 1}, {"C.UTF-8", "\xC3\xA9t\xC3\xA9", nullptr, nullptr, 1},
        {"C.UTF-8", "ab\xC3", nullptr, nullptr, 0}};
    for (const auto &c : names)
        EXPECT_EQ((use_locale(c.loc), strutl_is_ok_name(c.name, c.first, c.other)), c.want) << c.name;
}

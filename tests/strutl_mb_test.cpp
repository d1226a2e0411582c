// Multibyte walking: classes, characters taken one at a time, lengths, whole
// conversions to and from wide characters with their messages, Shift_JIS to
// EUC-JP, and the module's assertions.

#include "strutl_test_util.h"

TEST(StrutlMb, CharTypeAndClasses)
{
    for (const char *loc : {"C", "ja_JP.SJIS", "C.UTF-8"})
        EXPECT_EQ((use_locale(loc), strutl_get_sys_char_type()), loc[1] == 0 ? 1 : 0) << loc;
    const uint32_t alpha = STRUTL_CT_ALPHA, upper = STRUTL_CT_UPPER, space = STRUTL_CT_SPACE;
    const struct { const char *loc, *s; uint32_t classes; int want, len; } cases[] = {
        {"C", "a", alpha | STRUTL_CT_LOWER, 1, 1}, {"C", "a", alpha | upper, 0, 1}, {"C", " ", STRUTL_CT_GRAPH, 0, 1},
        {"C", "7", STRUTL_CT_DIGIT | STRUTL_CT_XDIGIT | STRUTL_CT_ALNUM, 1, 1}, {"C", " ", space, 1, 1},
        {"C", "!", STRUTL_CT_PUNCT | STRUTL_CT_PRINT, 1, 1}, {"C", "", STRUTL_CT_PRINT, 0, 0},
        {"de_DE.UTF-8", "\xC3\x84x", alpha | upper, 1, 2}, {"de_DE.UTF-8", "\xC3", alpha, 0, 1},
        {"de_DE.UTF-8", "\xE2\x80\x83", space, 1, 3}}; // em space
    int len = -1; // set by every call
    for (const auto &c : cases)
        EXPECT_TRUE((use_locale(c.loc), strutl_test_char(c.s, c.classes, &len)) == c.want && len == c.len) << c.s;
}

TEST(StrutlMb, WalkersAndConversions)
{
    use_locale("ja_JP.SJIS");
    std::string s = "a" + kSo + "b" + kPo + "c\\d|e" + kHyo;
    EXPECT_EQ(strutl_mb_strlen(s.c_str()), 10u);
    EXPECT_EQ(strutl_mblen(s.c_str() + 1) * 10 + strutl_mblen(s.c_str() + 2), 21); // a trailing byte alone: 1
    EXPECT_EQ(strutl_mb_strlen("a\xFF" "b"), 3u); // an invalid byte is a character of its own
    use_locale("C.UTF-8");
    const char *tail = "\xC3\xA9z";
    wchar_t wc = 0;
    char ch[8];
    EXPECT_TRUE(strutl_wide_char_from_str(&wc, &tail) == 2 && wc == 0xE9 && strcmp(tail, "z") == 0);
    EXPECT_EQ(strutl_wide_char_from_str(&wc, &tail) * 10 + strutl_wide_char_from_str(&wc, &tail), 10);
    tail = "\xE2\x82\xAC!";
    EXPECT_TRUE(strutl_mb_char_from_str(ch, &tail) == 3 && strcmp(ch, "\xE2\x82\xAC") == 0 && strcmp(tail, "!") == 0);
    tail = "";
    EXPECT_TRUE(strutl_mb_char_from_str(ch, &tail) == 0 && *ch == '\0');
    stg_area_t area = stg_create_area(512);
    wchar_t *w = strutl_cvt_str_to_wide_str(area, "a\xC3\xA9\xE2\x82\xAC");
    EXPECT_TRUE(w && strutl_wide_strlen(w) == 3 && w[1] == 0xE9 && w[2] == 0x20AC);
    EXPECT_STREQ(strutl_cvt_wide_str_to_str(area, w), "a\xC3\xA9\xE2\x82\xAC");
    stg_delete_area(&area);
    // One character for each branch of the conversion to EUC-JP: second byte
    // below 0x7F, from 0x7F, from 0x9F (the next, even row), and a first byte
    // from 0xE0.
    const struct { uint32_t b1, b2, euc; } sjis[] = {
        {0x81, 0x40, 0xA1A1}, {0x81, 0x80, 0xA1E0}, {0x88, 0x9E, 0xAFFE}, {0x88, 0x9F, 0xB0A1}, {0xE0, 0x40, 0xDFA1}};
    for (const auto &c : sjis) {
        unsigned char hi = 0, lo = 0;
        EXPECT_TRUE(strutl_cvt_sjis_to_euc(c.b1, c.b2, &hi, &lo) == c.euc && static_cast<uint32_t>(hi << 8 | lo) == c.euc) << std::hex << c.b1;
    }
}

// Messages 4 to 7: an invalid character is named where it starts.
TEST(StrutlMb, ReportedTexts)
{
    auto res = ks_test::run_in_child([] {
        const char *tail = "\xFF";
        wchar_t wc = 0, w[] = {0x3042, 0};
        int refused = (strutl_cvt_str_to_wide_str(STG_AREA_HEAP, nullptr) == nullptr) +
                      (strutl_cvt_str_to_wide_str(STG_AREA_HEAP, "a\xFF") == nullptr) + // C: message 6
                      (strutl_cvt_wide_str_to_str(STG_AREA_HEAP, w) == nullptr);
        setlocale(LC_ALL, "C.UTF-8");
        refused += (strutl_cvt_str_to_wide_str(STG_AREA_HEAP, "ok\xFFrest") == nullptr) +
                   (strutl_wide_char_from_str(&wc, &tail) == -1 && *tail == '\xFF');
        return refused == 5 ? 0 : 1;
    });
    EXPECT_EQ(res.exit_code(), 0);
    for (const char *text : {"The string to be converted is null.\n", "Error converting string to wide char string: ",
                             "Error converting wide char string to string.\n", "Invalid multibyte character: \xFFrest\n",
                             "Invalid multibyte character: \xFF\n"})
        EXPECT_NE(res.err.find(text), std::string::npos) << text << "\n" << res.err;
}

// The message names the source by its short name, never a build path.
TEST(StrutlDeathTest, NullArgumentsAbort)
{
    char ch[8];
    wchar_t wc = 0;
    EXPECT_DEATH(strutl_mb_strlen(nullptr), "\\(s != NULL\\) failed: 'strutl_mb':[0-9]");
    EXPECT_DEATH(strutl_strip_whitespace(nullptr), "s != NULL");
    EXPECT_DEATH(strutl_expand_evs(nullptr), "s != NULL");
    EXPECT_DEATH(strutl_mb_char_from_str(ch, nullptr), "s_tail != NULL");
    EXPECT_DEATH(strutl_wide_char_from_str(&wc, nullptr), "s_tail != NULL");
    EXPECT_DEATH(strutl_wide_strlen(nullptr), "ws != NULL");
    EXPECT_DEATH(strutl_cvt_str_to_wide_str(STG_AREA_NULL, "x"), "area != STG_AREA_NULL");
    EXPECT_DEATH(strutl_cvt_wide_str_to_str(STG_AREA_NULL, L"x"), "area != STG_AREA_NULL");
    EXPECT_DEATH(strutl_concat_area(STG_AREA_NULL, 1, "x"), "area != STG_AREA_NULL");
}

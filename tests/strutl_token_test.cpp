// Flags and the tokenizer, with the other readers of structured text: flag
// words, tokens and matching delimiters in Shift_JIS and UTF-8, printf
// directives and C string literals.

#include "strutl_test_util.h"

const strutl_flag_entry_t flag_table[] = {{"A", 1}, {"B", 2}, {"AB", 3}, {"Long", 8}};

TEST(StrutlFlags, ToAndFromText)
{
    EXPECT_STREQ(strutl_flags_to_str(5, nullptr, flag_table, 2), "A UNKNOWN(0x4)");
    EXPECT_STREQ(strutl_flags_to_str(3, "|", flag_table, 4), "A|B"); // AB overlaps: not printed
    EXPECT_STREQ(strutl_flags_to_str(0x18, ",", flag_table, 4), "Long UNKNOWN(0x10)");
    EXPECT_STREQ(strutl_flags_to_str(0, "", flag_table, 4), "");
    // Cut at 1023 characters, in the same buffer each time.
    std::string name(40, 'n');
    std::vector<strutl_flag_entry_t> many(32, {name.c_str(), 0});
    for (int i = 0; i < 32; i++)
        many[i].mask = 1u << i;
    const char *r = strutl_flags_to_str(0xFFFFFFFFu, "--", many.data(), 32);
    EXPECT_EQ(strlen(r), 1023u);
    EXPECT_EQ(strutl_flags_to_str(1, nullptr, flag_table, 1), r);
    const char *unknown = "a,LONG,zz", *lower = "a";
    const struct { const char *in; int cs; const char *sep; uint32_t want; const char *bad; } cases[] = {
        {"A Long", 1, nullptr, 9, nullptr}, {unknown, 0, ",", 0, unknown + 7}, {"a,LONG", 0, ",", 9, nullptr},
        {"", 1, nullptr, 0, nullptr}, {"AB::B", 1, "::", 3, nullptr}, {lower, 1, nullptr, 0, lower}};
    for (const auto &c : cases) {
        const char *bad = "x";
        EXPECT_TRUE(strutl_flags_from_str(c.in, c.cs, c.sep, flag_table, 4, &bad) == c.want && bad == c.bad) << c.in;
    }
}

TEST(StrutlTokens, TokensAndDelimitersInShiftJisAndUtf8)
{
    const struct { const char *loc; std::string in; const char *delims; std::vector<std::string> tokens; } cases[] = {
        {"ja_JP.SJIS", "  a" + kSo + "b\\c " + kPo + "|" + kHyo, " \\|", {"a" + kSo + "b", "c", kPo, kHyo}},
        {"C", ",,x,,y", ",", {"x", "y"}}, {"C.UTF-8", "\xC3\xA9|x||", "|", {"\xC3\xA9", "x"}}};
    for (auto c : cases) {
        use_locale(c.loc);
        std::vector<std::string> got; // and once more at the end: still none
        for (char *t = strutl_tokenize(&c.in[0], c.delims); t; t = strutl_tokenize(nullptr, c.delims))
            got.push_back(t);
        EXPECT_TRUE(got == c.tokens && strutl_tokenize(nullptr, c.delims) == nullptr) << c.loc;
    }
    // The second bytes of PO ('|') and SO ('\\') are neither opening nor
    // closing; a real '|' nests one level.
    int pos = -1, end = -1;
    std::string open = "[" + kPo + kSo + "|x\\", closed = "[" + kPo + "|" + kSo + "\\\\";
    EXPECT_TRUE(strutl_find_end_delim(open.c_str(), 1, '|', '\\', &end) == 0 && end == 8);
    EXPECT_TRUE(strutl_find_end_delim(closed.c_str(), 1, '|', '\\', &pos) == 1 && pos == 7);
}

// Each escape form, and each way a literal or a directive is refused (a
// literal then unchanged), with the place named in message 1.
TEST(StrutlTokens, PrintfDirectivesAndCStringLiterals)
{
    size_t len = 0;
    char conv = 0;
    const char *fmt = "100%% of %-08.3lld and %*.*s", *p = strutl_find_printf_directive(fmt, &len, &conv);
    EXPECT_TRUE(p == fmt + 9 && len == 9 && conv == 'd');
    p = strutl_find_printf_directive(p + len, &len, &conv);
    EXPECT_EQ(std::string(p, len), "%*.*s");
    EXPECT_EQ(strutl_find_printf_directive(p + len, &len, &conv), nullptr);
    char ok[] = "\"a\\tb\\n\\\\\\\"\\x41\\101\\?\"", plain[] = "\\x4g\\0101\\r";
    EXPECT_EQ(strutl_cstr_to_str(ok) + strutl_cstr_to_str(plain), 0);
    EXPECT_STREQ(ok, "a\tb\n\\\"AA?");
    EXPECT_STREQ(plain, "\x04g\x08" "1\r");
    const char *bad[] = {"bad \\q escape", "\"open", "\"in\"side\"", "\\x00", "\\400", "\\xg", "end\\"};
    auto res = ks_test::run_in_child([&] {
        for (const char *b : bad)
            if (std::string s = b; strutl_cstr_to_str(&s[0]) != 1 || s != b)
                return 1;
        return strutl_find_printf_directive("%5", nullptr, nullptr) == nullptr ? 0 : 1;
    });
    EXPECT_EQ(res.exit_code(), 0) << res.err;
    for (const char *where : {"\\q escape", "\"open", "\"side\"", "\\x00", "\\400", "\\xg", "\\", "%5"})
        EXPECT_NE(res.err.find(std::string("Bad format in control string at or near \"") + where + "\".\n"),
                  std::string::npos) << where << res.err;
}

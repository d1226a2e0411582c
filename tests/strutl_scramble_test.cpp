// Codes made from a string's bytes: the string hash, and the scrambling of
// short strings (pinned codes, the round trip at every start and length, and
// tampering).

#include <random>

#include "ks_testing.h"
#include "strutl_test_util.h"

TEST(StrutlHash, RotateAndAdd)
{
    EXPECT_EQ(strutl_str_to_hash32(0, "ab"), 0xC82u);
    EXPECT_EQ(strutl_str_to_hash32(1234, ""), 1234u);
    EXPECT_EQ(strutl_str_to_hash32(0x80000000u, "\xff"), 0x10u + 0xFFu); // rotates, bytes unsigned
}

static std::string scramble(const std::string &plain)
{
    std::vector<char> out(plain.size() * 2 + 8);
    EXPECT_EQ(strutl_extract_head(plain.c_str(), out.data(), out.size()), 0);
    return out.data();
}

// Every start index (the clock's low bits) and every length: printable, four
// more symbols for three more bytes, different for each start, and back to
// the plain text; one byte short of room fails both ways.  At start 0, worked
// by hand (keys 52 30 54 46): "a" gives the symbols 0x61 >> 2 = 24 and
// (1 << 4) | filler 0 = 16, keyed 44 and 14, then the check 44 ^ 14 = 34;
// "abc" gives 24, 22, 9 and 35, keyed 44 8 63 13, check 22.
TEST(StrutlScramble, RoundTripEveryLengthAndStart)
{
    std::mt19937 rng(99);
    std::string plain[41] = {"", "a", "xy", "abc"}, previous[41];
    const size_t short_len[] = {0, 3, 4, 5, 7, 8, 9};
    for (size_t len = 1; len <= 40; len++)
        while (plain[len].size() < len)
            plain[len] += static_cast<char>(1 + rng() % 255);
    for (time_t t = 0; t < 64; t++) {
        ks::clock_fix_for_testing(1700000000 - 1700000000 % 64 + t, 0);
        for (size_t len = 0; len <= 40; len++) {
            std::string coded = scramble(plain[len]);
            ASSERT_EQ(coded.size(), len < 7 ? short_len[len] : previous[len - 3].size() + 4);
            ASSERT_TRUE(t != 0 || (len == 1 ? coded == "WdP" : len != 3 || coded == "Wjruo")) << coded;
            ASSERT_TRUE(std::all_of(coded.begin(), coded.end(), [](char c) { return isprint(c & 0xFF); }));
            ASSERT_TRUE(len == 0 || coded != previous[len]) << t << " " << len;
            previous[len] = coded;
            std::vector<char> back(len + 1, 'x'), small(coded.size());
            ASSERT_EQ(strutl_extract_tail(coded.c_str(), back.data(), back.size()), 0) << t << " " << len;
            ASSERT_EQ(std::string(back.data()), plain[len]);
            ASSERT_EQ(strutl_extract_tail(coded.c_str(), back.data(), len), 1);
            ASSERT_EQ(strutl_extract_head(plain[len].c_str(), small.data(), small.size()), 1);
        }
    }
    ks::clock_release_for_testing();
}

// Refused: a foreign symbol, impossible lengths (5 or 1 data symbols plus the
// final one, or the final one alone), filler that disagrees with the start
// (worked by hand: "WdP" with filler 1 in its second symbol, keyed 17 ^ 30 =
// 15, and the check 44 ^ 15 = 35 kept in step, which would read back as
// "a"), and a NUL byte (symbols 0 and 0 at start 0, keyed 52 and 30).
TEST(StrutlScramble, TamperingRefused)
{
    ks::clock_fix_for_testing(1234567, 0);
    char out[64];
    std::string c = scramble("password");
    for (std::string t : {c.substr(0, 2) + "\x80" + c.substr(3), c.substr(0, 6), c.substr(0, 2), c.substr(0, 1),
                          std::string("WRA"), std::string("Ol5")})
        EXPECT_EQ(strutl_extract_tail(t.c_str(), out, sizeof out), 1) << t;
    ks::clock_release_for_testing();
}

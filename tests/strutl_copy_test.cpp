// Copying and joining: every bounded copy at every size against a guard
// region in single-byte and Shift_JIS text, joins, replacements,
// translations and snprintf.

#include <cstdlib>
#include <functional>
#include <set>

#include "strutl_test_util.h"

// Each copy at every size from 0 up: nothing lands past the size, the result
// is terminated, is a prefix of the uncut result ending on a whole
// character, and is reported cut exactly when it is shorter.
TEST(StrutlCopy, NeverPastTheSize)
{
    const std::string src = "ab" + kSo + "c" + kHyo + "de"; // 9 bytes
    const std::pair<const char *, std::function<int(char *, size_t)>> ops[] = {
        {"cpy_buf", [&](char *b, size_t n) { return strutl_cpy_buf(b, n, src.c_str()); }},
        {"ncpy_buf", [&](char *b, size_t n) { return strutl_ncpy_buf(b, n, src.c_str(), 5); }},
        {"ccpy_buf", [&](char *b, size_t n) { return strutl_ccpy_buf(b, n, src.c_str(), 'd', nullptr); }},
        {"concat", [&](char *b, size_t n) { return strutl_concat(b, n, 3, "12", src.c_str(), "xyz"); }},
        {"cpy_and_advance", [&](char *b, size_t n) {
             char *pos = b;
             return strutl_cpy_and_advance(&pos, b + n, "hello"), strutl_cpy_and_advance(&pos, b + n, src.c_str());
         }},
        {"prepend", [&](char *b, size_t n) { return strutl_cpy_buf(b, n, "tail"), strutl_prepend(b, n, src.c_str()); }}};
    for (const char *loc : {"C", "ja_JP.SJIS"}) {
        use_locale(loc);
        for (const auto &op : ops) {
            std::string full(64, '\0');
            op.second(&full[0], full.size());
            full.resize(strlen(full.c_str()));
            std::set<size_t> ends; // where a whole character ends
            for (size_t k = 0; k <= full.size(); k += std::max(1, mblen(&full[k], MB_CUR_MAX)))
                ends.insert(k);
            for (size_t size = 0; size <= full.size() + 2; size++) {
                SCOPED_TRACE(std::string(loc) + " " + op.first + " size " + std::to_string(size));
                std::string mem(size + 32, '\x5A');
                int cut = op.second(&mem[0], size);
                EXPECT_EQ(mem.find_first_not_of('\x5A', size), std::string::npos);
                ASSERT_TRUE(size == 0 ? cut == 1 : memchr(mem.data(), 0, size) != nullptr);
                std::string got = size ? mem.c_str() : "";
                EXPECT_EQ(full.compare(0, got.size(), got), 0);
                EXPECT_EQ(cut, got.size() < full.size() ? 1 : 0); // size 0: nothing, so cut
                EXPECT_EQ(ends.count(got.size()), 1u);
            }
        }
    }
}

// Joins, replacements and translations; too small a buffer gives message 2
// and leaves it unchanged, or cut before a character.
TEST(StrutlCopy, JoinsAndEdits)
{
    char buf[16], slide[16] = "abcdef", pn[] = "a\\b/c", copy[6], *none = static_cast<char *>(malloc(1)) + 1;
    auto text = [&buf](int rc) { return std::to_string(rc) + " " + buf; }; // a result and what buf holds
    EXPECT_EQ(text(strutl_concat(buf, sizeof buf, 3, "ab", nullptr, "cd")), "0 abcd");
    EXPECT_EQ(text(strutl_concat(buf, sizeof buf, 2, buf, "ef")), "0 abcdef"); // the first part kept in place
    char *h = strutl_concat_heap(3, "x", "-", "y");
    EXPECT_STREQ(h, "x-y");
    stg_free(h);
    stg_area_t area = stg_create_area(256);
    EXPECT_STREQ(strutl_concat_area(area, 2, "left", "right"), "leftright");
    stg_delete_area(&area);
    EXPECT_EQ(strutl_prepend(none, 0, "") * 2 + strutl_prepend(none, 0, "x"), 1); // no byte of none is read
    free(none - 1);
    EXPECT_EQ(text(strutl_ncpy(buf, "abcdef", 3)), "1 abc"); // buf holds n + 1 bytes
    EXPECT_EQ(text(strutl_ncpy(buf, "ab", 3)), "0 ab");
    const char *stop = nullptr;
    EXPECT_TRUE(strutl_ccpy_buf(buf, 3, "key=value", '=', &stop) == 1 && strcmp(stop, "y=value") == 0);
    char *pos = buf;
    strutl_cpy_and_advance(&pos, buf + 8, "abc");
    EXPECT_TRUE(strutl_cpy_and_advance(&pos, buf + 8, "defgh") == 1 && pos == buf + 7);
    EXPECT_EQ(text(strutl_snprintf(buf, 5, "%s-%d", "abc", 42)) + buf[5], "6 abc-f");
    strcpy(buf, "hello world");
    EXPECT_EQ(text(strutl_replace_substr(buf, sizeof buf, 0, 5, "hi")), "0 hi world");
    EXPECT_EQ(text(strutl_replace_substr(buf, sizeof buf, 2, 99, nullptr)), "0 hi");
    EXPECT_EQ(text(strutl_find_replace_substr(buf, sizeof buf, "a-b-c", "-", "+=")), "2 a+=b+=c");
    EXPECT_EQ(text(strutl_find_replace_substr(buf, sizeof buf, "aaa", "aa", "b")), "1 ba");
    EXPECT_STREQ(strutl_slide_tail(slide + 3, 2), "def");
    EXPECT_STREQ(strutl_slide_tail(slide + 5, -2), "def");
    EXPECT_STREQ(slide, "abcdef");
    const char *strings[] = {"&lt;", "&gt;", nullptr};
    char *x = strutl_xlate_chars_to_strings("<a>-b", "<>-", strings);
    EXPECT_STREQ(x, "&lt;a&gt;b");
    stg_free(x);
    EXPECT_STREQ(strutl_xlate_pname_sep(pn, "\\/", ':', copy, sizeof copy), "a:b:c");
    EXPECT_STREQ(pn, "a\\b/c");
    use_locale("ja_JP.SJIS");
    std::string path = "d" + kSo + "\\e/f", two = "a" + kSo; // "bb" fits, SO after it does not
    EXPECT_EQ(strutl_xlate_pname_sep(&path[0], "\\", '/', nullptr, 0), path.c_str());
    EXPECT_EQ(path, "d" + kSo + "/e/f");
    auto res = ks_test::run_in_child([&] {
        bool ok = strutl_replace_substr(slide, 7, 0, 0, "x") == 1 && strcmp(slide, "abcdef") == 0 &&
                  strutl_find_replace_substr(copy, 4, two.c_str(), "a", "bb") == -1 && strcmp(copy, "bb") == 0;
        return ok && strutl_xlate_pname_sep(pn, "/", ':', copy, 5) == nullptr ? 0 : 1;
    });
    std::string line = "noname: Error: Supplied buffer too small.\n";
    EXPECT_TRUE(res.exit_code() == 0 && res.err == line + line + line) << res.err;
}

// Block compression: streams worked out by hand, round trips, and corrupt
// buffers that must be refused without reading or writing outside them.
#include <glob.h>
#include <unistd.h> // ualarm

#include <random>

#include <gtest/gtest.h>

#include "ks/compress_utl.h"
#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks_test_util.h"
#include "stg_testing.h"

namespace {

using S = std::string;

S pack(const S &in)
{
    uint32_t n = 0;
    std::unique_ptr<char, void (*)(void *)> c(static_cast<char *>(compress_compress(static_cast<uint32_t>(in.size()), in.data(), &n)), stg_free);
    return S(c.get(), n);
}

// Expands a copy of buf in a block of exactly its size, so that the sanitizer
// sees any read past its end; "refused" when no data comes back.
S unpack(const S &buf)
{
    std::vector<char> exact(buf.begin(), buf.end());
    uint32_t n = 0;
    std::unique_ptr<char, void (*)(void *)> d(static_cast<char *>(compress_uncompress(static_cast<uint32_t>(exact.size()), exact.data(), &n)), stg_free);
    return d ? S(d.get(), n) : "refused";
}

unsigned bits(const S &b, size_t &i, int n)
{
    unsigned v = 0;
    for (; n > 0; n--, i++)
        v = v * 2 + ((static_cast<unsigned char>(b.at(i / 8)) >> (7 - i % 8)) & 1);
    return v;
}

// The stream read by hand: literals as themselves when letters, digits, + or
// -, else as '.'; matches as <distance,length>.
S tokens(const S &b)
{
    S t;
    for (size_t i = 8, out = 0, len = bits(b, i, 32), c, l = 0; out < len; out += t.back() == '>' ? l : 1)
        if (bits(b, i, 1) == 0 || bits(b, i, 1) == 1) // 0bbbbbbb or 1 1bbbbbbb
            t += isalnum(static_cast<int>(c = bits(b, --i, 8))) || c == '-' || c == '+' ? static_cast<char>(c) : '.';
        else
            c = bits(b, i, 12) + 1, l = bits(b, i, 5) + 3, t += "<" + std::to_string(c) + "," + std::to_string(l) + ">";
    return t;
}

// n bytes of pattern over and over; by default bytes whose triples never
// repeat: 0x80 + k / 127 and 1 + k % 127 in turn.
S filler(size_t n, const S &pattern = "")
{
    S f;
    for (size_t k = 0; f.size() < n; k++)
        f += pattern.empty() ? S{static_cast<char>(0x80 + k / 127), static_cast<char>(1 + k % 127)} : pattern;
    return f.substr(0, n);
}

} // namespace

// Streams worked out by hand from the chains of the hash ((b0 + 8 b1 + 64 b2) b0) mod 8091.
TEST(Compress, StreamsWorkedOutByHand)
{
    // 40 times 'a': 01100001, 10 000000000000 11111 (<1,34>), 10 000000100001 00010 (<34,5>), 00.
    const std::pair<S, S> exact[] = {{S(), S("\1\0\0\0\0", 5)}, {"A", S("\1\0\0\0\1A", 6)}, {"\xFF", S("\1\0\0\0\1\xFF\x80", 7)},
                                     {S(40, 'a'), S("\1\0\0\0\x28\x61\x80\x03\xF0\x10\x88", 11)}, {"aaaa", S("\1\0\0\0\4\x61\x80\0\0", 9)}};
    for (const auto &[in, out] : exact)
        EXPECT_TRUE(pack(in) == out && unpack(out) == in);
    const std::pair<S, S> search[] = {
        // "abc" is chain 4223.  At 11 the candidate at 6 gives 3 and the one at 0 differs at offset 3:
        // the walk ends.  So at 16, though 0 would give 5.
        {"abcde1abcf2abcg3abcde", "abcde1<6,3>f2<5,3>g3<5,3>de"},
        // At 72, 66 gives 4; 60 down to 6 pass the test at offset 4 but give 3; the 12th (0, 5 bytes) is never seen.
        {"abcdE0abcfE1abcgE2abchE3abciE4abcjE5abckE6abclE7abcmE8abcnE9abcoE-abcdX+abcdE",
         "abcdE0<6,3>fE1<6,3>gE2<6,3>hE3<6,3>iE4<6,3>jE5<6,3>kE6<6,3>lE7<6,3>mE8<6,3>nE9<6,3>oE-<6,3>dX+<6,4>E"},
        // "aac" and "bbc" share chain 3447: at 6 the head (3) fails the test at offset 0 before "aac" at 0.
        // Triples starting with 0 are chain 0: at 6, 3 gives 1, and 0 passes the test at offset 1 and gives 3.
        {"aacbbcaac", "aacbbcaac"}, {S("\0ab\0xy\0ab", 9), ".ab.xy<6,3>"},
        // A search needs 3 bytes; a tie at the longest allowed keeps the newer.  1 MiB of zeros: 40 + 8 + 30841 * 19 bits.
        {"abcabc", "abc<3,3>"}, {"abcab", "abcab"}, {S(1 << 20, '\0'), ".<1,34>" + filler(30839 * 7, "<34,34>") + "<34,15>"}};
    for (const auto &[in, want] : search)
        EXPECT_TRUE(tokens(pack(in)) == want) << in.substr(0, 80);
    // 4096 bytes back is in the window, 4097 is not (the filler shares no chain with the triples); 34 bytes at
    // 4096 are 10, twelve 1 bits, five 1 bits.
    S block = "0123456789ABCDEFGHIJKLMNOPQRSTUVWX";
    EXPECT_TRUE(pack(S(1 << 20, '\0')).size() == 73254 && tokens(pack(block + filler(4062) + block)).substr(4096) == "<4096,34>" &&
                tokens(pack("\xFA\xFB\xFC" + filler(4093) + "\xFA\xFB\xFC")).substr(4096) == "<4096,3>" &&
                tokens(pack("\xFA\xFB\xFC" + filler(4094) + "\xFA\xFB\xFC")).find('<') == S::npos);
}

TEST(Compress, RoundTripsTextBinaryRandomAndDegenerate)
{
    glob_t gl{};
    glob("/usr/share/common-licenses/*", 0, nullptr, &gl), glob(KS_SOURCE_DIR "/lib/ks/*", GLOB_APPEND, nullptr, &gl);
    std::vector<S> in;
    std::transform(gl.gl_pathv, gl.gl_pathv + gl.gl_pathc, std::back_inserter(in), ks_test::read_file), globfree(&gl);
    S rnd(1 << 20, 0), bin = ks_test::read_file("/proc/self/exe").substr(0, 1 << 20), text;
    std::generate(rnd.begin(), rnd.end(), std::mt19937(13));
    for (size_t n : {0, 1, 2, 3, 4, 5, 33, 34, 35, 36, 37, 68, 69, 4095, 4096, 4097, 4098, 8192, 8193, 1 << 20})
        for (const S &p : {rnd, bin, in.at(0), S(1, '\0'), S("\xFF"), S("ab"), rnd.substr(0, 4096), rnd.substr(0, 4097)})
            in.push_back(filler(n, p));
    for (const S &s : in)
        EXPECT_TRUE(pack(s).size() <= s.size() * 1.25 + 32 && unpack(pack(s)) == s) << s.size();
    // Sizes pinned when the streams were checked against a plain transcription of the search.
    const char *w[] = {"the ", "data ", "block ", "window ", "of ", "and ", "compress", "ed ", "\n", "4096 ", "a", "b"};
    for (std::mt19937 g(5); text.size() < 300000;)
        text += w[g() % 12];
    EXPECT_TRUE(pack(text).size() == 121725 && unpack(pack(text)) == text) << pack(text).size();
}

// Too short; versions 2 and 0; <1,3> with nothing produced; "a<2,3>"; 3 bytes declared for "a<1,3>"; 2 declared
// and 1 given; 4 GiB claimed by one byte; 48 as <1,34><1,14> with nothing before; then a tail ignored.  Every cut
// of a valid buffer is refused; a flipped bit gives a refusal or as many bytes as the header (flipped or not)
// claims.  The sanitizer build watches every read and write.  An interrupt unwinds through the compressor, which
// lets its work area go.
TEST(Compress, BadBuffersAndInterruptsFailCleanly)
{
    auto r = ks_test::run_in_child([] {
        for (const S &b : {S(), S("\1\0\0\0", 4), S("\2\0\0\0\0", 5), S("\0\0\0\0\0", 5), S("\1\0\0\0\3\x80\0\0", 8),
                           S("\1\0\0\0\4\x61\x80\x04\0", 9), S("\1\0\0\0\3\x61\x80\0\0", 9), S("\1\0\0\0\2\x61", 6),
                           S("\1\xFF\xFF\xFF\xFF\x61", 6), S("\1\0\0\0\x30\x80\x03\xF0\0\x2C", 10) + S(8, '\0'), S("\1\0\0\0\1A\xAA", 7)})
            printf("%s,", unpack(b).c_str());
        int wrong = 0;
        for (const S &s : {S(40, 'a'), S("abcde1abcf2abcg3abcde"), ks_test::read_file(KS_SOURCE_DIR "/README.md").substr(0, 3000), filler(300)}) {
            S c = pack(s), f;
            for (size_t n = 0; n < c.size(); n++)
                wrong += unpack(c.substr(0, n)) != "refused";
            for (size_t i = 0, at; i < c.size() * 8; i++) // f: c with bit i flipped
                wrong += (f = c, f[i / 8] = static_cast<char>(f[i / 8] ^ 1 << i % 8), unpack(f)) != "refused" && unpack(f).size() != bits(f, at = 8, 32);
        }
        S big = filler(1 << 20);
        pfm_cleanup_t rec;
        pfm_signal(SIGALRM, [](int) { pfm_raise(PFM_INTERRUPT); });
        if (PFM_CLEANUP_START(&rec, 0) == 0)
            for (ualarm(20000, 0);;)
                stg_free(compress_compress(static_cast<uint32_t>(big.size()), big.data(), nullptr));
        return wrong + (rec.value != PFM_INTERRUPT || ks::stg_area_count_for_testing() != 0);
    });
    EXPECT_TRUE(r.exit_code() == 0 && r.out == filler(80, "refused,") + "A," &&
                r.err.substr(0, 550) == filler(550, "noname: Error: Bad format number for \"compressed data\"\n")) << r.out;
}

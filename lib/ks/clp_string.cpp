// Command strings: the splitter behind clp_parse_string and the string
// handles, and the builder that joins words back into one quoted string.
#include "ks/clp.h"

#include <string.h>

#include <string_view>

#include "ks/imsg.h"
#include "ks/stg.h"
#include "clp_msg.h"
#include "cmdline_internal.h"

namespace {

// imsg_print's index for a table that is the format itself.

// The splitter builds each word here before copying it into the area.
char token_buf[CLP_MAX_TOKEN + 1];

// Appends n bytes to the token; false (reported) when the token gets too long.
bool put(size_t *len, const char *src, int n)
{
    if (*len + static_cast<size_t>(n) > CLP_MAX_TOKEN) {
        imsg_print(IMSG_ERROR, "Bad command line: a word is longer than %d bytes\n", IMSG_LITERAL,
                   CLP_MAX_TOKEN);
        return false;
    }
    memcpy(token_buf + *len, src, static_cast<size_t>(n));
    *len += static_cast<size_t>(n);
    return true;
}

bool escapable(char c)
{
    return c == '\'' || c == '"' || c == '\\';
}

// Takes the next token of *pp into token_buf.  Returns its length (0: the
// list is over) or -1 on an unterminated quote or an over-long word.
long get_next_token(const char **pp)
{
    const char *p = *pp;
    int sl = 1;
    while (*p != '\0' && ks::cmdline_is_space(p, &sl))
        p += sl;
    size_t len = 0;
    char quote = 0;
    for (;;) {
        char c = *p;
        if (quote == 0) {
            if (c == '\0' || ks::cmdline_is_space(p, &sl))
                break;
            if (c == '\\' && escapable(p[1])) {
                if (!put(&len, p + 1, 1))
                    return -1;
                p += 2;
                continue;
            }
            if (c == '\'' || c == '"') {
                quote = c;
                p++;
                continue;
            }
        } else {
            if (c == '\0') {
                imsg_print(IMSG_ERROR, &_clp_ks_msg_table, CLP_MSG_UNTERMINATED);
                return -1;
            }
            if (c == quote) {
                // A closing quote ends the token, whatever follows it.
                p++;
                break;
            }
            if (c == '\\' && escapable(p[1])) {
                if (!put(&len, p, 2))
                    return -1;
                p += 2;
                continue;
            }
        }
        int have = ks::cmdline_char_len(p);
        // Ordinary characters that follow need no decision: take them together.
        while (ks::cmdline_kind(p + have) == ks::CMDLINE_PLAIN)
            have++;
        if (!put(&len, p, have))
            return -1;
        p += have;
    }
    token_buf[len] = '\0';
    *pp = p;
    return static_cast<long>(len);
}

// Blocks of no area and of the heap pseudo-area are the caller's to free one by
// one, so a failure or a grown array must give them back.
bool on_heap(stg_area_t area)
{
    return area == STG_AREA_NULL || area == STG_AREA_HEAP;
}

void *area_alloc(stg_area_t area, size_t size)
{
    return area ? stg_alloc(area, size) : stg_malloc(size);
}

// The vector of words being split: its blocks from the area (or the heap).
struct word_vector {
    stg_area_t area;
    int cap;
    char **argv = nullptr;
    int n = 0;

    // Gives the heap blocks back; area blocks go with the area.
    void release()
    {
        if (on_heap(area)) {
            for (int i = 0; i < n; i++)
                stg_free(argv[i]);
            stg_free(argv);
        }
    }

    bool start()
    {
        argv =
            static_cast<char **>(area_alloc(area, sizeof(char *) * (static_cast<size_t>(cap) + 1)));
        return argv != nullptr;
    }

    // A closing quote ends a token, so a run of non-space characters can hold
    // several and the estimate may be passed.
    bool grow()
    {
        int ncap = cap * 2;
        char **grown = static_cast<char **>(
            area_alloc(area, sizeof(char *) * (static_cast<size_t>(ncap) + 1)));
        if (grown == nullptr)
            return false;
        memcpy(grown, argv, sizeof(char *) * static_cast<size_t>(n));
        if (on_heap(area))
            stg_free(argv);
        argv = grown;
        cap = ncap;
        return true;
    }

    // Appends a copy of the len bytes of the token.
    bool push(size_t len)
    {
        if (n == cap && !grow())
            return false;
        char *word = static_cast<char *>(area_alloc(area, len + 1));
        if (word == nullptr)
            return false;
        memcpy(word, token_buf, len);
        word[len] = '\0';
        argv[n++] = word;
        return true;
    }
};

// Splits text; area null puts everything on the heap.
int split(const char *text, stg_area_t area, int *argc_out, char ***argv_out)
{
    *argc_out = 0;
    *argv_out = nullptr;
    if (text == nullptr)
        return 0;
    word_vector words{area, ks::cmdline_count_runs(text)};
    if (words.cap == 0)
        return 0;
    if (!words.start())
        return 1;
    const char *p = text;
    long len;
    while ((len = get_next_token(&p)) > 0) {
        if (!words.push(static_cast<size_t>(len))) {
            words.release();
            return 1;
        }
    }
    if (len < 0) {
        words.release();
        return 1;
    }
    words.argv[words.n] = nullptr;
    if (words.n == 0) { // an empty first token: no words and no vector
        words.release();
        return 0;
    }
    *argc_out = words.n;
    *argv_out = words.argv;
    return 0;
}

// Characters that make the builder quote a word.
bool is_special(char c)
{
    return c != '\0' && std::string_view(" \t\r\n?*~[]").find(c) != std::string_view::npos;
}

// By whole characters: a trail byte that looks like "[" or "~" is no reason to quote.
bool needs_quotes(const char *word)
{
    for (const char *p = word; *p != '\0'; p += ks::cmdline_char_len(p))
        if (is_special(*p))
            return true;
    return false;
}

// Appends word (of n bytes) to out, quoted as the builder wants; null
// (reported) for a word that opens a quote it does not close.
char *put_word(char *out, const char *w, size_t n, int escape)
{
    if (w[0] != '"' && w[0] != '\'') {
        bool quote = needs_quotes(w);
        if (quote)
            *out++ = '"';
        memcpy(out, w, n);
        out += n;
        if (quote)
            *out++ = '"';
        return out;
    }
    if (n < 2 || w[n - 1] != w[0]) {
        imsg_print(IMSG_ERROR, &_clp_ks_msg_table, CLP_MSG_UNTERMINATED);
        return nullptr;
    }
    if (escape != 0)
        *out++ = static_cast<char>(escape);
    memcpy(out, w, n - 1);
    out += n - 1;
    if (escape != 0)
        *out++ = static_cast<char>(escape);
    *out++ = w[0];
    return out;
}

} // namespace

int clp_parse_string(const char *text, stg_area_t area, int *argc, char ***argv)
{
    int n = 0;
    char **v = nullptr;
    int rc = split(text, area, &n, &v);
    if (argc)
        *argc = n;
    if (argv)
        *argv = v;
    return rc;
}

int clp_argv_to_string(int argc, char **argv, stg_area_t area, int escape, char **text)
{
    if (text)
        *text = nullptr;
    if (argv == nullptr || argc < 0)
        argc = 0;
    // Each word with a blank and two quotes or escapes at most.
    size_t total = 1;
    for (int i = 0; i < argc; i++)
        total += strlen(argv[i] ? argv[i] : "") + 3;
    char *buf = static_cast<char *>(area_alloc(area, total));
    if (buf == nullptr)
        return 1;
    char *out = buf;
    for (int i = 0; i < argc && out != nullptr; i++) {
        const char *w = argv[i] ? argv[i] : "";
        if (i > 0)
            *out++ = ' ';
        out = put_word(out, w, strlen(w), escape);
    }
    if (out == nullptr) {
        if (on_heap(area))
            stg_free(buf);
        return 1;
    }
    *out = '\0';
    if (text)
        *text = buf;
    else if (on_heap(area))
        stg_free(buf);
    return 0;
}

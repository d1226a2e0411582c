// The message layer's styled writing: imsg_fputs turns the style sequences of
// a text (0x01 0x01, a state digit, a letter) into the terminal's bold,
// standout and underline capabilities, or drops them where the output is not
// a styled terminal.
#include "ks/imsg.h"

#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>
#include <wchar.h>

#include "imsg_internal.h"

// The terminal library last: its headers define many short macros.
#include <curses.h>
#include <term.h>

namespace {

enum class term_state {
    UNTRIED,
    READY,
    UNAVAILABLE
};
term_state state = term_state::UNTRIED;

// The capabilities in the order of style_index: on and off of bold, standout
// and underline.
constexpr const char *kCapNames[6] = {"bold", "sgr0", "smso", "rmso", "smul", "rmul"};
const char *style_caps[6];
struct termios saved_modes;
FILE *putchar_stream;

// The capability of a style sequence's digit and letter, -1 if none.
int style_index(char digit, char letter)
{
    int base = 0;
    switch (letter) {
    case 'B': base = 0; break;
    case 'I': base = 2; break;
    case 'U': base = 4; break;
    default: return -1;
    }
    if (digit == '1')
        return base;
    if (digit == '0')
        return base + 1;
    return -1;
}

bool stream_is_tty(FILE *stream)
{
    int fd = fileno(stream);
    return fd >= 0 && isatty(fd) != 0;
}

void reset_term(int /*status*/, void * /*arg*/)
{
    tcsetattr(1, TCSADRAIN, &saved_modes);
}

// The terminal reset's registration when no fault manager is wired.
void reset_term_at_exit()
{
    reset_term(0, nullptr);
}

// A background process that touches the terminal during the set-up gets
// SIGTTOU: it is raised as a fault so that the process stops cleanly instead
// of hanging.
void sigttou_handler(int sig)
{
    ks::imsg_services_in_use().raise(sig);
}

// The set-up proper: save the modes (restored at exit), load the terminal
// description, fetch the six capabilities.
void load_terminal(void *term)
{
    const ks::imsg_services &s = ks::imsg_services_in_use();
    if (tcgetattr(1, &saved_modes) == 0) {
        if (s.on_exit != nullptr)
            s.on_exit(reset_term, nullptr);
        else
            atexit(reset_term_at_exit);
    }
    int err = 0;
    if (setupterm(static_cast<const char *>(term), 1, &err) != OK)
        return;
    for (int i = 0; i < 6; i++) {
        const char *cap = tigetstr(kCapNames[i]);
        style_caps[i] = cap != nullptr && reinterpret_cast<intptr_t>(cap) != -1 ? cap : nullptr;
    }
    state = term_state::READY;
}

struct sigaction saved_sigttou;

void restore_sigttou(void * /*arg*/)
{
    sigaction(SIGTTOU, &saved_sigttou, nullptr);
}

// Loads the terminal description and the style capabilities, once, when the
// output is a terminal, TERM is set and the no-bold switch is off.
void setup_terminal()
{
    const ks::imsg_services &s = ks::imsg_services_in_use();
    const char *term = getenv("TERM");
    state = term_state::UNAVAILABLE;
    if (term == nullptr || *term == '\0' || (s.no_bold != nullptr && s.no_bold() != 0))
        return;
    if (s.raise == nullptr) {
        load_terminal(const_cast<char *>(term));
        return;
    }
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = sigttou_handler;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTTOU, &sa, &saved_sigttou);
    if (s.run_guarded != nullptr)
        s.run_guarded(load_terminal, restore_sigttou, const_cast<char *>(term));
    else
        load_terminal(const_cast<char *>(term));
    restore_sigttou(nullptr);
}

// Writes the capability of a style sequence when the stream is a styled terminal.
void write_style(int cap, FILE *stream)
{
    if (state == term_state::UNTRIED && stream_is_tty(stream))
        setup_terminal();
    if (state != term_state::READY || style_caps[cap] == nullptr || !stream_is_tty(stream))
        return;
    putchar_stream = stream;
    tputs(style_caps[cap], 1, imsg_putchar);
    putchar_stream = nullptr;
}

// Length of the character at p for the walk of imsg_fputs: a sequence that
// starts no valid character counts as one byte and starts the state afresh.
size_t walk_step(const char *p, bool multibyte, mbstate_t *mbs)
{
    if (!multibyte)
        return 1;
    size_t n = mbrlen(p, MB_CUR_MAX, mbs);
    if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2)) {
        memset(mbs, 0, sizeof *mbs);
        return 1;
    }
    return n > 1 ? n : 1;
}

} // namespace

int imsg_putchar(int c)
{
    return putc(c, putchar_stream != nullptr ? putchar_stream : stdout);
}

int imsg_fputs(const char *text, FILE *stream)
{
    imsg_initialize();
    if (text == nullptr || stream == nullptr)
        return EOF;
    bool interleave = ks::imsg_io_interleave();
    if (interleave) {
        // Keeps the two streams in the order things were said.
        FILE *out = ks::imsg_out_stream();
        FILE *err = ks::imsg_err_stream();
        FILE *other = stream == err ? out : err;
        if (other != nullptr && other != stream)
            fflush(other);
    }
    bool multibyte = MB_CUR_MAX > 1;
    mbstate_t mbs;
    memset(&mbs, 0, sizeof mbs);
    const char *run = text;
    const char *p = text;
    while (*p != '\0') {
        int cap = p[0] == '\001' && p[1] == '\001' && p[2] != '\0' && p[3] != '\0'
                      ? style_index(p[2], p[3])
                      : -1;
        if (cap >= 0) {
            fwrite(run, 1, static_cast<size_t>(p - run), stream);
            write_style(cap, stream);
            p += 4;
            run = p;
        } else if (interleave && p[0] == '|' && p[1] == '|') {
            // A flush point of its own, not written.
            fwrite(run, 1, static_cast<size_t>(p - run), stream);
            fflush(stream);
            p += 2;
            run = p;
        } else {
            p += walk_step(p, multibyte, &mbs);
        }
    }
    fwrite(run, 1, static_cast<size_t>(p - run), stream);
    if (interleave)
        fflush(stream);
    return ferror(stream) != 0 ? EOF : 0;
}

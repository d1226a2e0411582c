// The current command text, the command-history log with its data lines, and
// the stack of nested command names.
#include "ks/clp.h"

#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "ks/fileutl.h"
#include "ks/ks_product.h"
#include "ks_assert.h"
#include "ks_internal.h"

namespace {

constexpr int kCmdTextMax = 256;
constexpr int kStackDepth = 10;

char cmd_text[kCmdTextMax + 1] = "No command";

char cmd_stack[kStackDepth][CLP_MAX_STACK_STRING + 1];
int cmd_count;
int cmd_level;
uint32_t clp_generation = 1;
uint32_t built_generation;
char clp_cmd_string[CLP_MAX_STACK_STRING + 1];

// Whether each data-line function found "collect_history": -1 not asked yet.
int collect_checked_i = -1;
int collect_checked_s = -1;

// "%Y:%m:%d:%H:%M:%S." of now into ts; the milliseconds are returned.
int time_stamp(char *ts, size_t size)
{
    struct timeval tv;
    ks::clock_gettimeofday(&tv);
    time_t sec = tv.tv_sec;
    struct tm tm;
    localtime_r(&sec, &tm);
    if (strftime(ts, size, "%Y:%m:%d:%H:%M:%S.", &tm) == 0)
        ts[0] = '\0';
    return static_cast<int>(tv.tv_usec / 1000);
}

bool collecting()
{
    char path[KS_PATH_BUF];
    ks_host_config_dir(path, "collect_history");
    return fileutl_exists(path, 0) != 0;
}

FILE *open_history()
{
    char path[KS_PATH_BUF];
    ks_hostdata_dir(path, "log", "ottermere_history");
    return fopen(path, "a");
}

void log_history(const char *text)
{
    if (!collecting())
        return;
    FILE *f = open_history();
    if (f == nullptr)
        return;
    char ts[64];
    int ms = time_stamp(ts, sizeof ts);
    fprintf(f, "%s%03d ", ts, ms);
    fprintf(f, "(%d) %s ", static_cast<int>(getpid()), text);
    char cwd[KS_PATH_BUF];
    if (getcwd(cwd, sizeof cwd) != nullptr)
        fprintf(f, "in %s ", cwd);
    fputc('\n', f);
    fclose(f);
}

void data_line(const char *first, const char *data)
{
    FILE *f = open_history();
    if (f == nullptr)
        return;
    char ts[64];
    auto ms = static_cast<unsigned>(time_stamp(ts, sizeof ts));
    fprintf(f, "%s%03u %s ", ts, ms, first ? first : "");
    fprintf(f, "'%s': ", data ? data : "");
    fputc('\n', f);
    fclose(f);
}

} // namespace

void clp_log_cl_args(const char *command, int argc, char **argv)
{
    const char *c = command ? command : "";
    size_t len = strlen(c);
    if (len > static_cast<size_t>(kCmdTextMax))
        len = kCmdTextMax;
    memcpy(cmd_text, c, len);
    cmd_text[len] = '\0';
    for (int i = 0; argv && i < argc; i++) {
        const char *a = argv[i] ? argv[i] : "";
        size_t alen = strlen(a);
        if (len + alen + 3 > static_cast<size_t>(kCmdTextMax))
            break;
        snprintf(cmd_text + len, sizeof cmd_text - len, " '%s'", a);
        len += alen + 3;
    }
    log_history(cmd_text);
}

const char *clp_get_command(void)
{
    return cmd_text;
}

void clp_collectdatai(const char *text, int number)
{
    if (collect_checked_i < 0)
        collect_checked_i = collecting() ? 1 : 0;
    if (!collect_checked_i)
        return;
    if (number != 0) {
        char data[1100];
        snprintf(data, sizeof data, "%.1000s %20d", text ? text : "", number);
        data_line(text, data);
    } else {
        data_line(text, text);
    }
}

void clp_collectdatas(const char *tag, const char *text)
{
    if (collect_checked_s < 0)
        collect_checked_s = collecting() ? 1 : 0;
    if (!collect_checked_s)
        return;
    data_line(tag, text);
}

void clp_collectdata_cleanup(void) {}

void clp_push_cmd(const char *name)
{
    cmd_level++;
    if (cmd_count < kStackDepth) {
        const char *n = name ? name : "";
        size_t len = strlen(n);
        if (len > CLP_MAX_STACK_STRING)
            len = CLP_MAX_STACK_STRING;
        memcpy(cmd_stack[cmd_count], n, len);
        cmd_stack[cmd_count][len] = '\0';
        cmd_count++;
        clp_generation++;
    }
}

void clp_pop_cmd(void)
{
    if (cmd_level <= kStackDepth && cmd_count > 0) {
        cmd_count--;
        clp_generation++;
    }
    cmd_level--;
}

namespace {

// The stack string must stay shorter than CLP_MAX_STACK_STRING.
void check_stack_room(size_t ptr)
{
    // The text is spelled out: the one-argument form would print the macro's value.
    KS_ASSERT(ptr < CLP_MAX_STACK_STRING, "ptr < CLP_MAX_STACK_STRING");
}

} // namespace

const char *clp_get_cmd_stack(uint32_t *generation)
{
    if (generation && *generation == clp_generation)
        return nullptr;
    if (built_generation != clp_generation) {
        size_t ptr = 0;
        for (int i = 0; i < cmd_count; i++) {
            for (const char *p = cmd_stack[i]; *p; p++) {
                check_stack_room(ptr);
                clp_cmd_string[ptr++] = *p;
            }
            check_stack_room(ptr);
            clp_cmd_string[ptr++] = ':';
        }
        check_stack_room(ptr);
        clp_cmd_string[ptr] = '\0';
        built_generation = clp_generation;
    }
    if (generation)
        *generation = clp_generation;
    return clp_cmd_string;
}

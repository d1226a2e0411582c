// The message layer's look-up: the two-slot catalogue cache behind
// cat_extractmsg, the capture log of catalogued messages, and the search for
// a message's text that printing and the memory formatters share.
#include "ks/imsg.h"

#include <nl_types.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include "imsg_internal.h"
#include "imsg_msg.h"
#include "imsg_testing.h"
#include "ks_internal.h"

namespace {

// Two open catalogues, chosen by recency, so that a tool alternating between
// the library's catalogue and its own reopens neither.
struct cat_slot {
    nl_catd catd;        // valid only while open
    bool open;           // false: never opened, or the open failed
    char *name;          // heap copy, or null
    struct timeval used; // last successful look-up
};
cat_slot slots[2];
bool cache_ready;
int last_used_slot = -1;
int round_robin;
unsigned catalog_opens;

// The capture log: every catalogued message found, one line each.
bool capture_enabled;
char capture_name[1024];

const imsg_msg_table_t *as_table(const void *table)
{
    return static_cast<const imsg_msg_table_t *>(table);
}

bool valid_index(const imsg_msg_table_t *t, int index)
{
    return t != nullptr && index >= 0 && index < t->count;
}

void clear_cache()
{
    for (cat_slot &s : slots) {
        s.open = false;
        s.name = nullptr;
        s.used.tv_sec = 0;
        s.used.tv_usec = 0;
    }
    last_used_slot = -1;
    round_robin = 0;
    cache_ready = true;
}

bool slot_holds(int slot, const char *catalog)
{
    return slots[slot].name != nullptr && strcmp(slots[slot].name, catalog) == 0;
}

// The slot to (re)open when no slot holds the catalogue: a free or failed
// one (the round-robin slot first when it failed), else the least recently used.
int slot_to_reopen()
{
    int candidate = -1;
    for (int i = 0; i < 2; i++)
        if (slots[i].name == nullptr || (candidate < 0 && !slots[i].open))
            candidate = i;
    if (candidate >= 0) {
        int use = !slots[round_robin].open ? round_robin : candidate;
        round_robin = 1 - round_robin;
        return use;
    }
    const struct timeval &a = slots[0].used;
    const struct timeval &b = slots[1].used;
    bool zero_later = a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_usec > b.tv_usec);
    return zero_later ? 1 : 0;
}

void reopen_slot(int use, const char *catalog)
{
    cat_slot &s = slots[use];
    if (s.open)
        catclose(s.catd);
    s.open = false;
    free(s.name);
    s.name = strdup(catalog);
    if (s.name != nullptr) {
        s.catd = catopen(s.name, 0);
        s.open = reinterpret_cast<intptr_t>(s.catd) != -1;
        catalog_opens++;
    }
}

// The slot of catalog: the one used last, another that holds it, or one
// reopened for it.  It becomes the slot used last.
int slot_for(const char *catalog)
{
    if (last_used_slot >= 0 && slot_holds(last_used_slot, catalog))
        return last_used_slot;
    int use = slot_holds(0, catalog) ? 0 : slot_holds(1, catalog) ? 1 : -1;
    if (use < 0) {
        use = slot_to_reopen();
        reopen_slot(use, catalog);
    }
    last_used_slot = use;
    return use;
}

void append_capture_line(const imsg_msg_table_t *t, int index)
{
    FILE *f = fopen(capture_name, "a+");
    if (f == nullptr)
        return;
    fprintf(f, "%s : %s : %d : %s\n", t->catalog, t->subsys, t->numbers[index], t->texts[index]);
    fclose(f);
}

} // namespace

namespace ks {

unsigned imsg_catalog_open_count_for_testing()
{
    return catalog_opens;
}

const char *imsg_catalog_slot_name_for_testing(int slot)
{
    return (slot == 0 || slot == 1) && cache_ready ? slots[slot].name : nullptr;
}

void imsg_start_capture_log()
{
    const char *v = getenv("OTTERMERE_IMSG_CAPTURE_LOG");
    if (v == nullptr || *v == '\0')
        return;
    capture_enabled = true;
    snprintf(capture_name, sizeof capture_name, "%s.%d", v, static_cast<int>(getpid()));
    // An unopenable file is ignored here and at every message.
    FILE *f = fopen(capture_name, "a+");
    if (f != nullptr) {
        fputs("## library : subsys : msg ID : msg text\n", f);
        fclose(f);
    }
}

void imsg_report_bad_table(const char *what, const void *table, int index)
{
    imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, IMSG_MSG_BAD_TABLE, what,
               static_cast<long>(reinterpret_cast<intptr_t>(table)), index);
}

const char *imsg_table_subsys(const void *table, int index)
{
    return index != -1 && table != nullptr ? as_table(table)->subsys : "";
}

const char *imsg_find_text(const void *table, int index, const char *what)
{
    if (index == -1) {
        if (table == nullptr)
            imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, IMSG_MSG_NULL_MESSAGE, "vsprintf/NOMSG");
        return static_cast<const char *>(table);
    }
    const imsg_msg_table_t *t = as_table(table);
    if (!valid_index(t, index)) {
        imsg_report_bad_table(what, table, index);
        return nullptr;
    }
    if (capture_enabled)
        append_capture_line(t, index);
    return cat_extractmsg(t, index);
}

} // namespace ks

const char *cat_extractmsg(const void *table, int index)
{
    const imsg_msg_table_t *t = as_table(table);
    if (!valid_index(t, index)) {
        ks::imsg_report_bad_table("cat_extractmsg", table, index);
        return "";
    }
    if (!cache_ready)
        clear_cache();
    cat_slot &s = slots[slot_for(t->catalog)];
    // A catalogue that could not be opened is tried again only when its slot
    // is chosen again.
    if (!s.open)
        return t->texts[index];
    ks::clock_gettimeofday(&s.used);
    return catgets(s.catd, t->set, t->numbers[index], t->texts[index]);
}

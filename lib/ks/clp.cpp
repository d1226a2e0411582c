// The flag-descriptor command-line parser: descriptor tables with
// abbreviations, aliases and exclusive groups, and the handles that read
// flags, arguments and sub-arguments from a command line.
#include "ks/clp.h"

#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "ks/imsg.h"
#include "ks/stg.h"
#include "clp_msg.h"

namespace {

struct clp_constraint {
    int32_t used;    // flag seen; for a group start: some flag of the group seen
    int32_t partner; // alias: its non-alias; used group start: the flag seen
};

// What OTTERMERE_OBSO_SYN makes of an obsolete flag.
enum class obso_policy : int32_t {
    IGNORE,
    WARN,
    FAIL
};

} // namespace

struct clp_hdl {
    uint32_t magic;
    stg_area_t owned; // area made for the handle itself, or none
    int32_t argc;
    char **argv;
    int32_t index;        // next word to read
    char *next;           // argv[index], or the pending sub-argument
    int32_t end_of_flags; // "--" was read
    int32_t ndesc;
    const clp_flag_desc_t *desc;
    clp_constraint *cons;
    obso_policy obso_mode;
    const char *last_flag;
    stg_area_t home; // area the handle lives in
};

const clp_flag_desc_t start_mutex_list = CLP_START_MUTUAL_EXCLUSION;
const clp_flag_desc_t end_mutex_list = CLP_END_MUTUAL_EXCLUSION;

namespace {

constexpr uint32_t kMagic = 0x17171717u;
constexpr size_t kAreaSize = 1000;
// The value a flag read answers with when it finds no flag.
constexpr uint32_t kNoValue = 0xFFFFFFFFu;

KS_NORETURN void fatal(int index)
{
    imsg_print(IMSG_ERROR, &_clp_ks_msg_table, index);
    abort();
}

void check_handle(const clp_hdl *h)
{
    if (h == nullptr)
        fatal(CLP_MSG_NULL_HANDLE);
    if (h->magic != kMagic)
        fatal(CLP_MSG_BAD_MAGIC);
}

bool is_start(const clp_flag_desc_t &d)
{
    return d.value == CLP_START_MUTEX_VALUE;
}

bool is_end(const clp_flag_desc_t &d)
{
    return d.value == CLP_END_MUTEX_VALUE;
}

bool is_alias(const clp_flag_desc_t &d)
{
    return (d.flags & CLP_ALIAS_FLAG) != 0;
}

bool named(const clp_flag_desc_t &d, const char *name)
{
    return d.name != nullptr && strcmp(d.name, name) == 0;
}

obso_policy obsolete_mode()
{
    const char *v = getenv("OTTERMERE_OBSO_SYN");
    if (v == nullptr || strcasecmp(v, "WARN") == 0)
        return obso_policy::WARN;
    if (strcasecmp(v, "FAIL") == 0)
        return obso_policy::FAIL;
    return obso_policy::IGNORE;
}

int32_t count_descriptors(const clp_flag_desc_t *desc)
{
    int32_t n = 0;
    if (desc)
        while (desc[n].name != nullptr)
            n++;
    return n;
}

// Groups do not nest and every end closes a start: otherwise the table is
// wrong beyond repair and the process ends.
void check_nesting(const clp_flag_desc_t *desc, int32_t n)
{
    bool in_group = false;
    for (int32_t i = 0; i < n; i++) {
        if (is_start(desc[i])) {
            if (in_group)
                fatal(CLP_MSG_NESTED_START);
            in_group = true;
        } else if (is_end(desc[i])) {
            if (!in_group)
                fatal(CLP_MSG_STRAY_END);
            in_group = false;
        }
    }
}

// Whether every non-alias flag has a value of its own (reported when not).
// The group markers share their values from group to group: they are not flags.
bool values_unique(const clp_flag_desc_t *desc, int32_t n)
{
    for (int32_t i = 0; i < n; i++) {
        if (is_alias(desc[i]) || is_start(desc[i]) || is_end(desc[i]))
            continue;
        for (int32_t j = i + 1; j < n; j++) {
            if (is_alias(desc[j]) || is_end(desc[j]) || is_start(desc[j]))
                continue;
            if (desc[i].value == desc[j].value) {
                imsg_print(IMSG_ERROR, &_clp_ks_msg_table, CLP_MSG_SAME_VALUE, desc[i].name,
                           desc[j].name);
                return false;
            }
        }
    }
    return true;
}

// The non-alias with the value of alias i: backwards up to its group start,
// then forwards, never past a group end.  None ends the process.
int32_t partner_of(const clp_flag_desc_t *desc, int32_t n, int32_t i)
{
    for (int32_t j = i - 1; j >= 0 && !named(desc[j], CLP_START_MUTEX_NAME); j--)
        if (!is_alias(desc[j]) && desc[j].value == desc[i].value)
            return j;
    for (int32_t j = i + 1; j < n && !named(desc[j], CLP_END_MUTEX_NAME); j++)
        if (!is_alias(desc[j]) && desc[j].value == desc[i].value)
            return j;
    imsg_print(IMSG_ERROR, &_clp_ks_msg_table, CLP_MSG_LONE_ALIAS, desc[i].name);
    abort();
}

// Checks a descriptor table and fills the constraint table (n + 1 pairs).
// Structural errors abort; two flags of one value return false.
bool check_table(const clp_flag_desc_t *desc, int32_t n, clp_constraint *cons)
{
    check_nesting(desc, n);
    if (!values_unique(desc, n))
        return false;
    for (int32_t i = 0; i <= n; i++)
        cons[i] = {0, -1};
    for (int32_t i = 0; i < n; i++)
        if (is_alias(desc[i]))
            cons[i].partner = partner_of(desc, n, i);
    return true;
}

// Index of the start marker of the group holding descriptor i, or -1.
int32_t group_of(const clp_flag_desc_t *desc, int32_t i)
{
    for (int32_t j = i - 1; j >= 0; j--) {
        if (is_end(desc[j]))
            return -1;
        if (is_start(desc[j]))
            return j;
    }
    return -1;
}

clp_constraint *new_constraints(stg_area_t area, const clp_flag_desc_t *desc, int32_t n)
{
    auto *cons = static_cast<clp_constraint *>(
        stg_alloc(area, sizeof(clp_constraint) * (static_cast<size_t>(n) + 1)));
    if (cons == nullptr || !check_table(desc, n, cons))
        return nullptr;
    return cons;
}

void set_next(clp_hdl *h)
{
    h->next = (h->argv && h->index < h->argc) ? h->argv[h->index] : nullptr;
}

clp_hdl *make_handle(int argc, char **argv, const clp_flag_desc_t *desc, stg_area_t home,
                     stg_area_t owned)
{
    int32_t n = count_descriptors(desc);
    clp_constraint *cons = new_constraints(home, desc, n);
    if (cons == nullptr)
        return nullptr;
    auto *h = static_cast<clp_hdl *>(stg_alloc(home, sizeof(clp_hdl)));
    if (h == nullptr)
        return nullptr;
    memset(h, 0, sizeof *h);
    h->magic = kMagic;
    h->owned = owned;
    h->argc = argc < 0 ? 0 : argc;
    h->argv = argv;
    h->index = 0;
    set_next(h);
    h->end_of_flags = 0;
    h->ndesc = n;
    h->desc = desc;
    h->cons = cons;
    h->obso_mode = obsolete_mode();
    h->last_flag = nullptr;
    h->home = home;
    return h;
}

// An area for a new handle: the caller's, or one the handle will own.
stg_area_t handle_area(stg_area_t area, stg_area_t *owned)
{
    *owned = area == STG_AREA_NULL ? stg_create_area(kAreaSize) : STG_AREA_NULL;
    return area == STG_AREA_NULL ? *owned : area;
}

// Prints the obsolete notice for name; false when the mode makes it an error.
bool obsolete_ok(obso_policy mode, const char *name)
{
    if (mode == obso_policy::IGNORE)
        return true;
    int type = mode == obso_policy::FAIL ? IMSG_ERROR : IMSG_WARNING;
    if (name)
        imsg_print(type, &_clp_ks_msg_table, CLP_MSG_OBSOLETE_FLAG, name);
    else
        imsg_print(type, &_clp_ks_msg_table, CLP_MSG_OBSOLETE_SYNTAX);
    return mode != obso_policy::FAIL;
}

// The handle's tables and words, checked before every flag read.
void check_parse_state(const clp_hdl *h)
{
    check_handle(h);
    if (h->desc == nullptr)
        fatal(CLP_MSG_BAD_FLAGS);
    if (h->cons == nullptr)
        fatal(CLP_MSG_BAD_CONSTRAINTS);
    if (h->argv == nullptr)
        fatal(CLP_MSG_BAD_ARGV);
}

// The first descriptor that word matches, in table order (markers never do), or -1.
int32_t find_flag(const clp_hdl *h, const char *word)
{
    for (int32_t i = 0; i < h->ndesc; i++)
        if (!is_start(h->desc[i]) && !is_end(h->desc[i]) && clp_match(word, h->desc[i].name))
            return i;
    return -1;
}

// Whether flag t (matched through descriptor m, an alias of it or itself)
// may be taken now, in group g (-1: none); reports why not.
bool flag_allowed(const clp_hdl *h, int32_t m, int32_t t, int32_t g)
{
    const clp_flag_desc_t *desc = h->desc;
    bool repeatable = (desc[t].flags & CLP_REPEATABLE) != 0;
    if (!repeatable && h->cons[t].used) {
        imsg_print(IMSG_ERROR, &_clp_ks_msg_table, CLP_MSG_DUPLICATE, desc[t].name);
        return false;
    }
    // The obsolete test asks the matched descriptor's own bits.
    if ((desc[m].flags & CLP_OBSOLETE) != 0 && !obsolete_ok(h->obso_mode, desc[t].name))
        return false;
    // The first flag of a group excludes the others; a repeatable one may follow itself.
    if (g >= 0 && h->cons[g].used && !(repeatable && h->cons[g].partner == t)) {
        imsg_print(IMSG_ERROR, &_clp_ks_msg_table, CLP_MSG_EXCLUSIVE, desc[t].name,
                   desc[h->cons[g].partner].name);
        return false;
    }
    return true;
}

} // namespace

clp_hdl_t *clp_create_hdl_using_argv(int argc, char **argv, const clp_flag_desc_t *descriptors,
                                     stg_area_t area)
{
    stg_area_t owned;
    area = handle_area(area, &owned);
    if (area == STG_AREA_NULL)
        return nullptr;
    clp_hdl *h = make_handle(argc, argv, descriptors, area, owned);
    if (h == nullptr && owned != STG_AREA_NULL)
        stg_delete_area(&owned);
    return h;
}

clp_hdl_t *clp_create_hdl_using_string(const char *text, const clp_flag_desc_t *descriptors,
                                       stg_area_t area)
{
    stg_area_t owned;
    area = handle_area(area, &owned);
    if (area == STG_AREA_NULL)
        return nullptr;
    int argc = 0;
    char **argv = nullptr;
    clp_hdl *h = nullptr;
    if (clp_parse_string(text, area, &argc, &argv) == 0) {
        // A text without words still gets a (null-terminated) vector, so that
        // the handle reads as "no more words" rather than as a broken one.
        if (argv == nullptr)
            argv = static_cast<char **>(stg_alloc(area, sizeof(char *)));
        if (argv != nullptr) {
            argv[argc] = nullptr;
            h = make_handle(argc, argv, descriptors, area, owned);
        }
    }
    if (h == nullptr && owned != STG_AREA_NULL)
        stg_delete_area(&owned);
    return h;
}

void clp_destroy_hdl(clp_hdl_t **handle)
{
    if (handle == nullptr || *handle == nullptr)
        return;
    clp_hdl *h = *handle;
    check_handle(h);
    stg_area_t owned = h->owned;
    h->magic = 0;
    if (owned != STG_AREA_NULL)
        stg_delete_area(&owned);
    *handle = nullptr;
}

clp_hdl_t *clp_save_hdl(clp_hdl_t *h)
{
    check_handle(h);
    stg_area_t area = h->owned != STG_AREA_NULL ? h->owned : h->home;
    auto *copy = static_cast<clp_hdl *>(stg_alloc(area, sizeof(clp_hdl)));
    if (copy)
        memcpy(copy, h, sizeof *copy);
    return copy;
}

void clp_restore_hdl(clp_hdl_t *h, const clp_hdl_t *saved)
{
    check_handle(h);
    check_handle(saved);
    if (h != saved)
        memcpy(h, saved, sizeof *h);
}

int clp_switch_flags(clp_hdl_t *h, const clp_flag_desc_t *descriptors, stg_area_t area)
{
    check_handle(h);
    if (area == STG_AREA_NULL)
        area = h->owned;
    if (area == STG_AREA_NULL) {
        imsg_print(IMSG_ERROR, &_clp_ks_msg_table, CLP_MSG_NULL_AREA);
        return 1;
    }
    int32_t n = count_descriptors(descriptors);
    clp_constraint *cons = new_constraints(area, descriptors, n);
    if (cons == nullptr)
        return 1;
    h->desc = descriptors;
    h->ndesc = n;
    h->cons = cons;
    h->last_flag = nullptr;
    return 0;
}

int clp_get_next_flag_value(clp_hdl_t *h, int quiet, uint32_t *value)
{
    check_parse_state(h);
    if (value)
        *value = kNoValue;
    if (h->index >= h->argc || h->end_of_flags)
        return 2;
    const char *word = h->argv[h->index];
    if (word == nullptr)
        fatal(CLP_MSG_BAD_ARGV_ARRAY);
    if (strcmp(word, "--") == 0) {
        h->end_of_flags = 1;
        h->index++;
        set_next(h);
        return 2;
    }
    int32_t m = find_flag(h, word);
    if (m < 0) {
        if (word[0] != '-')
            return 2;
        if (!quiet)
            imsg_print(IMSG_ERROR, &_clp_ks_msg_table, CLP_MSG_UNRECOGNIZED, word);
        return 1;
    }
    h->last_flag = h->desc[m].name;
    // An alias stands for its partner in everything that follows.
    int32_t t = is_alias(h->desc[m]) ? h->cons[m].partner : m;
    if (t < 0 || t >= h->ndesc)
        fatal(CLP_MSG_BAD_CONSTRAINTS);
    int32_t g = group_of(h->desc, t);
    if (!flag_allowed(h, m, t, g))
        return 1;
    h->cons[t].used = 1;
    if (g >= 0 && !h->cons[g].used)
        h->cons[g] = {1, t};
    h->index++;
    set_next(h);
    if (value)
        *value = h->desc[t].value;
    return 0;
}

int clp_get_next_arg(clp_hdl_t *h, char **arg)
{
    check_handle(h);
    if (h->argv == nullptr || h->index >= h->argc) {
        if (arg)
            *arg = nullptr;
        return 2;
    }
    if (arg)
        *arg = h->argv[h->index];
    h->index++;
    set_next(h);
    return 0;
}

int clp_unget_arg(clp_hdl_t *h)
{
    check_handle(h);
    if (h->index <= 0)
        return 2;
    h->index--;
    set_next(h);
    return 0;
}

int clp_get_next_subarg(clp_hdl_t *h, char **sub)
{
    check_handle(h);
    if (h->next == nullptr) {
        set_next(h);
        if (sub)
            *sub = nullptr;
        return 2;
    }
    char *piece = h->next;
    if (h->argv && h->index < h->argc && piece == h->argv[h->index])
        h->index++;
    char *comma = strchr(piece, ',');
    if (comma) {
        *comma = '\0';
        h->next = comma + 1;
    } else {
        h->next = nullptr;
    }
    if (sub)
        *sub = piece;
    return 0;
}

int clp_get_last_flag_name(clp_hdl_t *h, int strip, char *buf, int size)
{
    check_handle(h);
    if (buf == nullptr || size < 1)
        return h->last_flag ? 0 : 2;
    buf[0] = '\0';
    if (h->last_flag == nullptr)
        return 2;
    int n = 0;
    for (const char *p = h->last_flag; *p && n < size - 1; p++) {
        if (strip && (*p == '[' || *p == ']'))
            continue;
        buf[n++] = *p;
    }
    buf[n] = '\0';
    return 0;
}

int clp_get_command_name(clp_hdl_t *h, char **name)
{
    check_handle(h);
    if (name)
        *name = (h->argv && h->argc > 0) ? h->argv[0] : nullptr;
    return 0;
}

int clp_get_argc(clp_hdl_t *h)
{
    check_handle(h);
    return h->argc;
}

int clp_match(const char *word, const char *name)
{
    if (word == nullptr || name == nullptr)
        return 0;
    bool skipped = false;
    const char *w = word;
    const char *n = name;
    while (*w) {
        if (*w == *n) {
            w++;
            n++;
            continue;
        }
        if (*n != '[')
            return 0;
        while (*n == '[')
            n++;
        skipped = true;
    }
    return (*n == '\0' || *n == '[' || skipped) ? 1 : 0;
}

int clp_check_obsolete(void)
{
    switch (obsolete_mode()) {
    case obso_policy::WARN:
        imsg_print(IMSG_WARNING, &_clp_ks_msg_table, CLP_MSG_OBSOLETE_SYNTAX);
        return 0;
    case obso_policy::FAIL:
        imsg_print(IMSG_ERROR, &_clp_ks_msg_table, CLP_MSG_OBSOLETE_SYNTAX);
        return 1;
    default: return 0;
    }
}

void clp_log_command(const char *command, clp_hdl_t *h)
{
    check_handle(h);
    if (h->argv && h->argc > 1)
        clp_log_cl_args(command, h->argc - 1, h->argv + 1);
    else
        clp_log_cl_args(command, 0, nullptr);
}

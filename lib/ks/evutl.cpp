// Environment blocks: slot arrays of NAME=value strings taken from one
// storage area, edited in place and handed to children or to environ.
#include "ks/evutl.h"

#include <stddef.h>
#include <string.h>
#include <unistd.h>

#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks/strutl.h"

namespace {

// What a slot array carries ahead of its first slot.
struct slot_array {
    uint32_t capacity;  // slots
    uint32_t slot_size; // bytes per slot: one pointer
    stg_area_t area;    // where the array was taken from
};
static_assert(offsetof(slot_array, capacity) == 0, "capacity first");
static_assert(offsetof(slot_array, slot_size) == 4, "slot size second");
static_assert(offsetof(slot_array, area) == 8, "area third");
static_assert(sizeof(slot_array) % sizeof(char *) == 0, "the slots follow aligned");

// A new block's first array.
constexpr uint32_t kFirstCapacity = 32;

// The process environment as it was before a block was installed.
char **save_environ;
bool installed;

slot_array *array_of(char **slots)
{
    return reinterpret_cast<slot_array *>(slots) - 1;
}

// A slot array of capacity slots from area; null when out of memory.
char **new_array(stg_area_t area, uint32_t capacity)
{
    auto *a = static_cast<slot_array *>(
        stg_alloc(area, sizeof(slot_array) + static_cast<size_t>(capacity) * sizeof(char *)));
    if (a == nullptr)
        return nullptr;
    a->capacity = capacity;
    a->slot_size = sizeof(char *);
    a->area = area;
    return reinterpret_cast<char **>(a + 1);
}

bool matches(const char *entry, const char *name, size_t n)
{
    return entry != nullptr && strncmp(entry, name, n) == 0 && entry[n] == '=';
}

// The slot of the first entry of the n-byte name; -1 when none.
int64_t find(const evutl_block_t *block, const char *name, size_t n)
{
    if (block == nullptr || name == nullptr)
        return -1;
    for (uint32_t i = 0; i + 1 < block->count; i++)
        if (matches(block->slots[i], name, n))
            return i;
    return -1;
}

// Puts copy into the slot before the terminator, growing the array (to
// twice its capacity, or the new count plus one if more) as soon as the
// capacity is no longer above the new count.  False when out of memory.
bool append(evutl_block_t *block, char *copy)
{
    if (block->slots == nullptr) {
        char **slots = new_array(block->area, kFirstCapacity);
        if (slots == nullptr)
            return false;
        slots[0] = nullptr;
        block->slots = slots;
        block->count = 1;
    }
    uint32_t count = block->count + 1;
    slot_array *old = array_of(block->slots);
    if (old->capacity <= count) {
        uint32_t capacity = 2 * old->capacity > count + 1 ? 2 * old->capacity : count + 1;
        char **slots = new_array(block->area, capacity);
        if (slots == nullptr)
            return false;
        memcpy(slots, block->slots, block->count * sizeof(char *));
        if (old->area == STG_AREA_HEAP)
            stg_free(old);
        block->slots = slots;
    }
    block->slots[count - 2] = copy;
    block->slots[count - 1] = nullptr;
    block->count = count;
    return true;
}

// Sets the variable of the n-byte name: nothing when same(stored entry),
// else a copy made by make() replaces the entry or is appended.  In a heap
// block the replaced string goes; in an area it stays with the area.
template <typename Same, typename Make>
int32_t set_entry(evutl_block_t *block, const char *name, size_t n, Same same, Make make)
{
    int64_t i = find(block, name, n);
    if (i >= 0 && same(block->slots[i]))
        return 0;
    char *copy = make();
    if (copy == nullptr)
        return 1;
    bool heap = block->area == STG_AREA_HEAP;
    if (i >= 0) {
        if (heap)
            stg_free(block->slots[i]);
        block->slots[i] = copy;
        return 0;
    }
    if (append(block, copy))
        return 0;
    if (heap)
        stg_free(copy);
    return 1;
}

// Moves the slots after slot i, terminator included, down by one.
void close_slot(char **slots, size_t i, size_t used)
{
    memmove(slots + i, slots + i + 1, (used - i - 1) * sizeof(char *));
}

} // namespace

int32_t evutl_alloc(stg_area_t area, evutl_block_t **block)
{
    auto *b = static_cast<evutl_block_t *>(stg_alloc(area, sizeof(evutl_block_t)));
    if (block != nullptr)
        *block = b;
    if (b == nullptr)
        return 1;
    b->slots = nullptr;
    b->count = 0;
    b->area = area;
    return 0;
}

int32_t evutl_copy_environ(stg_area_t area, char **env, evutl_block_t **block)
{
    evutl_block_t *b = nullptr;
    if (block == nullptr || evutl_alloc(area, &b) != 0) {
        if (block != nullptr)
            *block = nullptr;
        return 1;
    }
    uint32_t n = 0;
    while (env != nullptr && env[n] != nullptr)
        n++;
    // Entry i is copied only where the process environment has an entry i:
    // a source longer than environ is cut at environ's length.
    uint32_t live = 0;
    while (environ != nullptr && environ[live] != nullptr)
        live++;
    char **slots = new_array(area, n + 1);
    if (slots != nullptr) {
        for (uint32_t i = 0; i <= n; i++)
            slots[i] = i < live && env != nullptr ? stg_area_strdup(area, env[i]) : nullptr;
        b->slots = slots;
        b->count = n + 1;
    }
    *block = b;
    return 0;
}

int32_t evutl_copy_default_environ(stg_area_t area, evutl_block_t **block)
{
    return evutl_copy_environ(area, environ, block);
}

int32_t evutl_free(evutl_block_t *block)
{
    if (block == nullptr || block->area != STG_AREA_HEAP)
        return 0;
    if (block->slots != nullptr) {
        for (uint32_t i = 0; i < block->count; i++)
            stg_free(block->slots[i]);
        stg_free(array_of(block->slots));
    }
    stg_free(block);
    return 0;
}

char *evutl_getenv(const evutl_block_t *block, const char *name)
{
    size_t n = name != nullptr ? strlen(name) : 0;
    int64_t i = find(block, name, n);
    return i >= 0 ? block->slots[i] + n + 1 : nullptr;
}

int32_t evutl_setenv(evutl_block_t *block, const char *text)
{
    const char *eq = block != nullptr && text != nullptr ? strutl_find_char(text, '=') : nullptr;
    if (eq == nullptr)
        return 1;
    return set_entry(
        block, text, static_cast<size_t>(eq - text),
        [text](const char *entry) { return strcmp(entry, text) == 0; },
        [block, text] { return stg_area_strdup(block->area, text); });
}

int32_t evutl_setenv2(evutl_block_t *block, const char *name, const char *value)
{
    if (block == nullptr || name == nullptr)
        return 1;
    size_t n = strlen(name);
    const char *v = value != nullptr ? value : "";
    return set_entry(
        block, name, n, [n, v](const char *entry) { return strcmp(entry + n + 1, v) == 0; },
        [block, name, v] { return strutl_concat_area(block->area, 3, name, "=", v); });
}

int32_t evutl_unsetenv(evutl_block_t *block, const char *name)
{
    int64_t i = find(block, name, name != nullptr ? strlen(name) : 0);
    if (i >= 0) {
        close_slot(block->slots, static_cast<size_t>(i), block->count);
        block->count--;
    }
    return 0;
}

int32_t evutl_override_default_environ(evutl_block_t *block)
{
    if (block == nullptr)
        return 1;
    if (!installed) {
        save_environ = environ;
        environ = block->slots;
        installed = true;
    }
    return 0;
}

int32_t evutl_restore_default_environ(void)
{
    if (installed) {
        environ = save_environ;
        save_environ = nullptr;
        installed = false;
    }
    return 0;
}

int32_t evutl_unsetenv_default_environ(const char *name)
{
    if (name == nullptr || environ == nullptr)
        return 0;
    size_t n = strlen(name);
    // No signal handler may see the array half moved.
    pfm_inhibit();
    size_t used = 0;
    while (environ[used] != nullptr)
        used++;
    for (size_t i = 0; i < used; i++)
        if (matches(environ[i], name, n)) {
            close_slot(environ, i, used + 1);
            break;
        }
    pfm_enable();
    return 0;
}

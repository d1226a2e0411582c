// Files mapped into memory, with the process's list of live mappings.
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ks/fileutl.h"
#include "ks/list.h"
#include "ks/stg.h"

namespace {

struct mapping {
    llist_d_node_t node; // on the list of live mappings
    void *addr;
    size_t map_len; // an empty file gets one page of its own, so it has an address
};

llist_d_node_t live; // all null: empty until the first mapping

mapping *find(void *addr)
{
    if (live.next == nullptr)
        return nullptr;
    for (llist_d_node_t *n = live.next; n != &live; n = n->next) {
        auto *m = static_cast<mapping *>(n->data);
        if (m->addr == addr)
            return m;
    }
    return nullptr;
}

} // namespace

void *fileutl_locate(int fd, int writable, size_t *len, int *err)
{
    struct stat st;
    if (fstat(fd, &st) != 0) {
        *err = errno;
        return nullptr;
    }
    auto *m = static_cast<mapping *>(stg_malloc(sizeof(mapping)));
    if (m == nullptr) {
        *err = ENOMEM;
        return nullptr;
    }
    size_t size = static_cast<size_t>(st.st_size);
    int prot = writable ? PROT_READ | PROT_WRITE : PROT_READ;
    void *addr;
    if (size == 0) {
        m->map_len = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        addr = mmap(nullptr, m->map_len, prot, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    } else {
        m->map_len = size;
        addr = mmap(nullptr, size, prot, writable ? MAP_SHARED : MAP_PRIVATE, fd, 0);
    }
    if (addr == MAP_FAILED) {
        *err = errno;
        stg_free(m);
        return nullptr;
    }
    m->addr = addr;
    llist_d_insert(&live, m, &m->node, LLIST_D_TAIL);
    *len = size;
    return addr;
}

void *fileutl_locate_pname(const char *path, int writable, size_t *len, int *err)
{
    int fd;
    do
        fd = open(path, (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        *err = errno;
        return nullptr;
    }
    void *addr = fileutl_locate(fd, writable, len, err);
    close(fd);
    return addr;
}

int fileutl_unlocate(void *addr)
{
    mapping *m = find(addr);
    if (m == nullptr) {
        errno = EINVAL;
        return -1;
    }
    llist_d_remove(&m->node);
    int rc = munmap(m->addr, m->map_len);
    stg_free(m);
    return rc;
}

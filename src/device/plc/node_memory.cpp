#include "device/plc/node_memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <mutex>

namespace {

constexpr size_t SLAB_SIZE = 64 * 1024;
// Blocks of 8, 16, 24, ... 256 bytes: a list cell or an index entry of
// 24 bytes would waste a third of a 32-byte block, once per node.
constexpr size_t GRAIN = 8;
constexpr size_t CLASSES = 32;
constexpr size_t SMALL_MAX = GRAIN * CLASSES;

// At the start of each slab, which is aligned to its own size so that a
// block finds its slab by masking its address.
struct slab {
    slab *prev;
    slab *next;
    void *free_list; // blocks given back, linked through their first word
    char *fresh;     // the first block never handed out
    char *end;
    size_t live;
    bool listed; // on its class's list of slabs with room
};

// Blocks whose size is a multiple of 16 stay aligned to 16.
constexpr size_t HEADER = (sizeof(slab) + 15) / 16 * 16;

struct size_class {
    slab *with_room = nullptr;
    // One emptied slab is kept, so that adding and deleting one node in
    // turn does not map and unmap a slab each time.
    slab *spare = nullptr;
};

std::mutex memory_mutex;
size_t mapped = 0;

#if !defined(__SANITIZE_ADDRESS__)
size_class classes[CLASSES];

size_t page_rounded(size_t n)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (n + page - 1) / page * page;
}

void *map(size_t n)
{
    void *p = mmap(nullptr, n, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

slab *map_slab(size_t block)
{
    // Twice the size, then the ends cut off, for the alignment.
    auto *raw = static_cast<char *>(map(2 * SLAB_SIZE));
    if (raw == nullptr)
        return nullptr;
    const auto addr = reinterpret_cast<uintptr_t>(raw);
    auto *start = reinterpret_cast<char *>((addr + SLAB_SIZE - 1) & ~(SLAB_SIZE - 1));
    if (start != raw)
        munmap(raw, static_cast<size_t>(start - raw));
    munmap(start + SLAB_SIZE, static_cast<size_t>(raw + 2 * SLAB_SIZE - (start + SLAB_SIZE)));
    auto *s = reinterpret_cast<slab *>(start);
    s->prev = s->next = nullptr;
    s->free_list = nullptr;
    s->fresh = start + HEADER;
    s->end = start + HEADER + (SLAB_SIZE - HEADER) / block * block;
    s->live = 0;
    s->listed = false;
    mapped += SLAB_SIZE;
    return s;
}

void unmap_slab(slab *s)
{
    munmap(s, SLAB_SIZE);
    mapped -= SLAB_SIZE;
}

void list_push(size_class &c, slab *s)
{
    s->prev = nullptr;
    s->next = c.with_room;
    if (c.with_room != nullptr)
        c.with_room->prev = s;
    c.with_room = s;
    s->listed = true;
}

void list_remove(size_class &c, slab *s)
{
    if (s->prev != nullptr)
        s->prev->next = s->next;
    else
        c.with_room = s->next;
    if (s->next != nullptr)
        s->next->prev = s->prev;
    s->prev = s->next = nullptr;
    s->listed = false;
}

bool full(const slab *s, size_t block)
{
    return s->free_list == nullptr && s->fresh + block > s->end;
}

void *take(size_class &c, size_t block)
{
    slab *s = c.with_room;
    if (s == nullptr) {
        s = c.spare != nullptr ? c.spare : map_slab(block);
        c.spare = nullptr;
        if (s == nullptr)
            return nullptr;
        list_push(c, s);
    }
    void *p;
    if (s->free_list != nullptr) {
        p = s->free_list;
        s->free_list = *static_cast<void **>(p);
    } else {
        p = s->fresh;
        s->fresh += block;
    }
    ++s->live;
    if (full(s, block))
        list_remove(c, s);
    return p;
}

void give(size_class &c, void *p)
{
    auto *s = reinterpret_cast<slab *>(reinterpret_cast<uintptr_t>(p) & ~(SLAB_SIZE - 1));
    *static_cast<void **>(p) = s->free_list;
    s->free_list = p;
    if (!s->listed)
        list_push(c, s);
    if (--s->live != 0)
        return;
    list_remove(c, s);
    if (c.spare != nullptr) {
        unmap_slab(s);
        return;
    }
    s->free_list = nullptr;
    s->fresh = reinterpret_cast<char *>(s) + HEADER;
    c.spare = s;
}
#endif

} // namespace

// AddressSanitizer sees into heap blocks only: under it the node table
// stays on the heap, so that a record used after its free is still caught.
#if defined(__SANITIZE_ADDRESS__)
void *node_memory_alloc(size_t size)
{
    return ::operator new(size);
}

void node_memory_free(void *p, size_t) noexcept
{
    ::operator delete(p);
}
#else
void *node_memory_alloc(size_t size)
{
    if (size == 0)
        size = 1;
    std::lock_guard<std::mutex> lock(memory_mutex);
    void *p;
    if (size <= SMALL_MAX) {
        const size_t cls = (size - 1) / GRAIN;
        p = take(classes[cls], (cls + 1) * GRAIN);
    } else {
        p = map(page_rounded(size));
        if (p != nullptr)
            mapped += page_rounded(size);
    }
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

void node_memory_free(void *p, size_t size) noexcept
{
    if (p == nullptr)
        return;
    if (size == 0)
        size = 1;
    std::lock_guard<std::mutex> lock(memory_mutex);
    if (size <= SMALL_MAX) {
        const size_t cls = (size - 1) / GRAIN;
        give(classes[cls], p);
        return;
    }
    munmap(p, page_rounded(size));
    mapped -= page_rounded(size);
}
#endif

size_t node_memory_mapped()
{
    std::lock_guard<std::mutex> lock(memory_mutex);
    return mapped;
}

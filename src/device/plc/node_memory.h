// Memory of the node table (records, list cells, index) kept apart from the
// process heap. A bulk request's message is parsed into tens of megabytes of
// small temporaries on the heap, and the records made from it used to land
// among and above them: once the message was gone the heap could not shrink
// past the records, and every later allocation of the reading cycle touched
// pages anew in the holes left below them. Here records live in mapped slabs
// of their own, a slab goes back to the system when its last block is freed,
// and the heap falls back to its size before the call.
#pragma once

#include <cstddef>
#include <new>

// A block of `size` bytes, aligned to 16 if `size` is a multiple of 16 and
// to 8 otherwise (what any object of that size needs); throws std::bad_alloc when no
// memory is left. Blocks up to 256 bytes come from slabs, larger ones are
// mapped whole.
void *node_memory_alloc(size_t size);
// `size` is the one the block was allocated with; null is accepted.
void node_memory_free(void *p, size_t size) noexcept;
// Bytes mapped for the node table (slabs and large blocks).
size_t node_memory_mapped();

// For the index's container.
template <typename T> struct node_memory_allocator {
    using value_type = T;
    node_memory_allocator() = default;
    template <typename U> node_memory_allocator(const node_memory_allocator<U> &) noexcept {}
    T *allocate(size_t n) { return static_cast<T *>(node_memory_alloc(n * sizeof(T))); }
    void deallocate(T *p, size_t n) noexcept { node_memory_free(p, n * sizeof(T)); }
    template <typename U> bool operator==(const node_memory_allocator<U> &) const noexcept
    {
        return true;
    }
};

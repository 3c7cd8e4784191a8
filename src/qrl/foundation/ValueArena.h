// Memory for the containers of a document that is read in one go (a JSON
// text, a preferences file). Readers make thousands of small arrays and
// dictionaries at a time; taking each from the heap and giving each back
// one by one is most of the cost of reading. While a ValueArena is open,
// containers made with its allocator take their memory from blocks of
// 256 KiB instead, piece after piece. Released blocks are kept for the
// next arena, up to 32 MiB; releaseKeptBlocks() hands them back.
//
// Lifetime: the blocks go back to the heap when the last piece carved from
// them is released, wherever the containers have gone by then (other
// threads, other owners); nothing else has to outlive them. A container
// kept from a large document keeps all of its blocks.
//
// Closing the arena (its destructor) ends the carving: whatever the same
// containers allocate afterwards (they grow, they are edited for years)
// comes from the heap and goes back to it as usual, so a document that is
// kept and edited never grows the blocks, and any thread may do so.
//
// One arena is open per thread at a time (an inner one hides an outer one
// until it closes); only the thread that opened it carves from it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>

namespace qrl {

namespace detail {

struct ArenaBlocks;

// Every piece handed out by an arena-bound allocator carries one word in
// front of it: the blocks it was carved from, or null for a piece taken
// from the heap. Freeing needs nothing else.
void* arenaAllocate(ArenaBlocks* arena, size_t bytes, size_t prefix);
void arenaRelease(void* piece, size_t bytes, size_t prefix) noexcept;

}  // namespace detail

template <class T>
class ValueAllocator;

class ValueArena {
public:
    ValueArena();
    ~ValueArena();
    ValueArena(const ValueArena&) = delete;
    ValueArena& operator=(const ValueArena&) = delete;

    template <class T>
    ValueAllocator<T> allocator() const noexcept {
        return ValueAllocator<T>(blocks_);
    }

    // Hands the blocks kept for later arenas back to the kernel (after a
    // burst of large documents, or when memory is short); answers their
    // size in bytes.
    static size_t releaseKeptBlocks() noexcept;

    // Bytes carved so far, and bytes of blocks taken for this arena.
    size_t bytesUsed() const noexcept;
    size_t bytesReserved() const noexcept;

private:
    detail::ArenaBlocks* blocks_;
    detail::ArenaBlocks* outer_;  // the arena this one hides, reopened on close
};

// The allocator of qrl::Array and of a dictionary's entries. A default one
// is the heap's, with no cost beyond a null test. One bound to an arena
// carves while that arena is open on the calling thread and uses the heap
// otherwise. Copies of a container are the heap's (an arena is for what is
// being read, not for what is made from it later); moves and swaps take
// the allocator along.
template <class T>
class ValueAllocator {
public:
    using value_type = T;
    using propagate_on_container_copy_assignment = std::false_type;
    using propagate_on_container_move_assignment = std::true_type;
    using propagate_on_container_swap = std::true_type;
    using is_always_equal = std::false_type;

    ValueAllocator() noexcept = default;
    explicit ValueAllocator(detail::ArenaBlocks* arena) noexcept : arena_(arena) {}
    template <class U>
    ValueAllocator(const ValueAllocator<U>& other) noexcept : arena_(other.arena_) {}

    T* allocate(size_t n) {
        if (arena_ == nullptr) return std::allocator<T>().allocate(n);
        if (n > (static_cast<size_t>(-1) - kPrefix) / sizeof(T)) throw std::bad_array_new_length();
        return static_cast<T*>(detail::arenaAllocate(arena_, n * sizeof(T), kPrefix));
    }
    void deallocate(T* p, size_t n) noexcept {
        if (arena_ == nullptr) std::allocator<T>().deallocate(p, n);
        else detail::arenaRelease(p, n * sizeof(T), kPrefix);
    }

    ValueAllocator select_on_container_copy_construction() const noexcept { return ValueAllocator(); }

    // Arena-bound allocators free each other's pieces (the prefix says
    // where a piece came from); the heap's cannot free theirs.
    template <class U>
    friend bool operator==(const ValueAllocator& a, const ValueAllocator<U>& b) noexcept {
        return (a.arena_ == nullptr) == (b.arena_ == nullptr);
    }

private:
    template <class U>
    friend class ValueAllocator;
    static_assert(alignof(T) <= alignof(std::max_align_t), "over-aligned values are not carved");
    static constexpr size_t kPrefix = alignof(T) > sizeof(void*) ? alignof(T) : sizeof(void*);

    // Only compared with the thread's open arena, and handed to it: never
    // read through once that arena has closed.
    detail::ArenaBlocks* arena_ = nullptr;
};

}  // namespace qrl

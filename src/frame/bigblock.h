// Large working blocks (a whole configuration file's text, its items, a key
// index) that one call fills and drops.  A fresh block of many megabytes
// costs the kernel one zeroed page per 4 KiB touched, more than the work on
// it, so:
//   - a large block is mapped with transparent huge pages advised (2 MiB
//     pages: a few hundred times fewer faults);
//   - a dropped large block is kept for the next call that needs one (at most
//     kKeptBlocks blocks and kKeptBytes bytes, the largest kept), so that
//     repeated calls reuse memory already mapped.
// A block's bytes are not cleared: they hold whatever its last user left.
#pragma once

#include <cstddef>
#include <new>
#include <string>

namespace qmx {

// Blocks of this size and above come from the recycler; smaller ones from
// operator new.
inline constexpr std::size_t kBigBlockBytes = std::size_t(1) << 20;

// A block of at least `bytes` (its size is recorded with it).  Null when the
// memory cannot be had.
void *takeBigBlock(std::size_t bytes) noexcept;
// Gives back a block of takeBigBlock.
void dropBigBlock(void *block) noexcept;

// Advises huge pages on the 2 MiB-aligned interior of memory that malloc
// gave (for blocks handed to a caller who frees them with free()).
void adviseHugePages(void *p, std::size_t bytes) noexcept;

// The alignment of every buffer a file is read into.  The kernel copies a
// read with string moves, which on some processors run several times slower
// into a destination that is not aligned to a cache line (a 190 KB read into
// a block malloc gives, 16 bytes past a page, measured 5x slower than into an
// aligned one).  Big blocks are aligned so already.
inline constexpr std::align_val_t kReadAlign{64};

// std::vector allocator over the recycler (operator new below kBigBlockBytes).
template <class T>
struct BigAllocator {
    using value_type = T;
    BigAllocator() noexcept = default;
    template <class U>
    BigAllocator(const BigAllocator<U> &) noexcept {}
    T *allocate(std::size_t n) {
        if (n > std::size_t(-1) / sizeof(T)) throw std::bad_alloc();
        std::size_t bytes = n * sizeof(T);
        void *p = bytes < kBigBlockBytes ? ::operator new(bytes, kReadAlign) : takeBigBlock(bytes);
        if (p == nullptr) throw std::bad_alloc();
        return static_cast<T *>(p);
    }
    void deallocate(T *p, std::size_t n) noexcept {
        if (n * sizeof(T) < kBigBlockBytes)
            ::operator delete(p, kReadAlign);
        else
            dropBigBlock(p);
    }
    template <class U>
    bool operator==(const BigAllocator<U> &) const noexcept { return true; }
};

// A text of many megabytes (a whole file's new or old text).
using BigText = std::basic_string<char, std::char_traits<char>, BigAllocator<char>>;

}  // namespace qmx

// The recycler of large working blocks (see bigblock.h).
#include "frame/bigblock.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <utility>

namespace qmx {

namespace {

constexpr std::size_t kHugePage = std::size_t(2) << 20;
// The block's mapped size, kept in front of the bytes handed out.
constexpr std::size_t kHeader = 64;
// What stays mapped between calls: the text, items and index of the binding
// rewrite at the driver's maximum configuration (about 20 MiB together), no
// more, so that a long-running tool does not carry more than this after its
// largest call.
constexpr int kKeptBlocks = 4;
constexpr std::size_t kKeptBytes = std::size_t(32) << 20;

struct Kept {
    void *base = nullptr;
    std::size_t size = 0;
};

// The one table of kept blocks of the process.
std::mutex keptLock;
Kept kept[kKeptBlocks];

std::size_t mappedSize(void *block) noexcept {
    std::size_t size;
    std::memcpy(&size, static_cast<char *>(block) - kHeader, sizeof size);
    return size;
}

// A fresh mapping of `size` bytes (a multiple of kHugePage) aligned to a
// huge page, with huge pages advised.
void *mapAligned(std::size_t size) noexcept {
    void *raw = mmap(nullptr, size + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) return nullptr;
    auto at = reinterpret_cast<std::uintptr_t>(raw);
    std::uintptr_t base = (at + kHugePage - 1) & ~(kHugePage - 1);
    if (base > at) munmap(raw, base - at);
    std::uintptr_t tail = base + size, end = at + size + kHugePage;
    if (end > tail) munmap(reinterpret_cast<void *>(tail), end - tail);
    madvise(reinterpret_cast<void *>(base), size, MADV_HUGEPAGE);
    return reinterpret_cast<void *>(base);
}

}  // namespace

void *takeBigBlock(std::size_t bytes) noexcept {
    if (bytes > std::size_t(1) << 40) return nullptr;
    std::size_t size = (bytes + kHeader + kHugePage - 1) & ~(kHugePage - 1);
    void *base = nullptr;
    {
        std::lock_guard<std::mutex> hold(keptLock);
        Kept *best = nullptr;
        for (Kept &k : kept)
            if (k.base != nullptr && k.size >= size && (best == nullptr || k.size < best->size)) best = &k;
        if (best != nullptr) {
            base = best->base;
            size = best->size;
            *best = Kept{};
        }
    }
    if (base == nullptr && (base = mapAligned(size)) == nullptr) return nullptr;
    std::memcpy(base, &size, sizeof size);
    return static_cast<char *>(base) + kHeader;
}

void dropBigBlock(void *block) noexcept {
    if (block == nullptr) return;
    void *base = static_cast<char *>(block) - kHeader;
    std::size_t size = mappedSize(block);
    {
        std::lock_guard<std::mutex> hold(keptLock);
        // Keep the largest blocks within the bounds; the smallest kept one
        // makes room for a larger one.
        std::size_t total = size;
        Kept *smallest = nullptr;
        for (Kept &k : kept) {
            total += k.size;
            if (smallest == nullptr || k.size < smallest->size) smallest = &k;
        }
        if (smallest->base != nullptr && smallest->size < size &&
            (total - smallest->size <= kKeptBytes)) {
            std::swap(smallest->base, base);
            std::swap(smallest->size, size);
        } else if (smallest->base == nullptr && total <= kKeptBytes) {
            *smallest = Kept{base, size};
            base = nullptr;
        }
    }
    if (base != nullptr) munmap(base, size);
}

void adviseHugePages(void *p, std::size_t bytes) noexcept {
    auto at = reinterpret_cast<std::uintptr_t>(p);
    std::uintptr_t from = (at + kHugePage - 1) & ~(kHugePage - 1);
    std::uintptr_t to = (at + bytes) & ~(kHugePage - 1);
    if (to > from) madvise(reinterpret_cast<void *>(from), to - from, MADV_HUGEPAGE);
}

}  // namespace qmx

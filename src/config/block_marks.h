// The marks of a configuration line's bytes, 64 bytes a block, one bit a
// byte (":" and "=", a tag byte, the line's end): the key list walks
// (keylist.cpp) find the items with bit operations on them, without a
// branch per byte.  The marks of a run of blocks are made by a kernel chosen
// once for the processor: 32-byte compares where it has AVX2, 16-byte ones
// (or plain words) elsewhere.
#pragma once
#include <cstddef>
#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define QMX_MARKS_AVX2 1
#endif

#define QMX_MARKS_INLINE __attribute__((always_inline)) inline

namespace qmx {

// The marks of a block of 64 bytes, one bit a byte.
constexpr std::size_t kBlock = 64;
struct Marks {
    uint64_t colons = 0, eqs = 0;
    uint64_t tags = 0;  // a filtered walk's: the bytes equal to its tag
    uint64_t ends = 0;  // newlines and NULs: the first ends the line
};

#if defined(__SSE2__)
// The bytes of a block equal to `c`, sixteen bytes a compare.
QMX_MARKS_INLINE uint64_t maskOf(const char *p, char c) noexcept {
    const __m128i cc = _mm_set1_epi8(c);
    auto mask = [&](int k) __attribute__((always_inline)) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 16 * k));
        return uint64_t(uint16_t(_mm_movemask_epi8(_mm_cmpeq_epi8(v, cc)))) << (16 * k);
    };
    return mask(0) | mask(1) | mask(2) | mask(3);
}
#else
// Eight bytes a word: the high bit of every byte of `w` that equals `c`,
// exactly (no borrow from one byte into the next), gathered into 8 bits.
QMX_MARKS_INLINE uint64_t byteMask(const char *p, char c) noexcept {
    constexpr uint64_t kOnes = 0x0101010101010101ULL, kLow7 = 0x7f7f7f7f7f7f7f7fULL;
    uint64_t w = 0;
    for (int k = 0; k < 8; ++k) w |= uint64_t(uint8_t(p[k])) << (8 * k);
    uint64_t x = w ^ (kOnes * uint8_t(c));
    uint64_t high = ~(((x & kLow7) + kLow7) | x | kLow7);
    // Byte k's high bit to bit k.
    return ((high >> 7) * 0x0102040810204080ULL) >> 56;
}
// The bytes of a block equal to `c`.
QMX_MARKS_INLINE uint64_t maskOf(const char *p, char c) noexcept {
    uint64_t m = 0;
    for (int k = 0; k < 8; ++k) m |= byteMask(p + 8 * k, c) << (8 * k);
    return m;
}
#endif

// The marks of `count` whole blocks from `p`, one Marks a block into `out`;
// the tags only when `tag` is not 0.
using MarkKernel = void (*)(const char *p, std::size_t count, char tag, Marks *out) noexcept;

inline void marksOf(const char *p, std::size_t count, char tag, Marks *out) noexcept {
    for (std::size_t j = 0; j < count; ++j, p += kBlock) {
        out[j].colons = maskOf(p, ':');
        out[j].eqs = maskOf(p, '=');
        out[j].tags = tag != 0 ? maskOf(p, tag) : 0;
        out[j].ends = maskOf(p, '\n') | maskOf(p, '\0');
    }
}

#if defined(QMX_MARKS_AVX2)
// marksOf with 32-byte compares, on processors that have them.  (Written
// without helpers: code called from here is not built for AVX2.)
__attribute__((target("avx2"))) inline void marksOfAvx2(const char *p, std::size_t count, char tag, Marks *out) noexcept {
    const __m256i colon = _mm256_set1_epi8(':'), eq = _mm256_set1_epi8('='), tg = _mm256_set1_epi8(tag);
    const __m256i nl = _mm256_set1_epi8('\n'), nul = _mm256_setzero_si256();
    for (std::size_t j = 0; j < count; ++j, p += kBlock) {
        const __m256i lo = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
        const __m256i hi = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p + 32));
        out[j].colons = uint64_t(uint32_t(_mm256_movemask_epi8(_mm256_cmpeq_epi8(lo, colon)))) |
                        uint64_t(uint32_t(_mm256_movemask_epi8(_mm256_cmpeq_epi8(hi, colon)))) << 32;
        out[j].eqs = uint64_t(uint32_t(_mm256_movemask_epi8(_mm256_cmpeq_epi8(lo, eq)))) |
                     uint64_t(uint32_t(_mm256_movemask_epi8(_mm256_cmpeq_epi8(hi, eq)))) << 32;
        out[j].tags = tag != 0 ? uint64_t(uint32_t(_mm256_movemask_epi8(_mm256_cmpeq_epi8(lo, tg)))) |
                                     uint64_t(uint32_t(_mm256_movemask_epi8(_mm256_cmpeq_epi8(hi, tg)))) << 32
                               : 0;
        out[j].ends =
            uint64_t(uint32_t(_mm256_movemask_epi8(_mm256_or_si256(_mm256_cmpeq_epi8(lo, nl), _mm256_cmpeq_epi8(lo, nul))))) |
            uint64_t(uint32_t(_mm256_movemask_epi8(_mm256_or_si256(_mm256_cmpeq_epi8(hi, nl), _mm256_cmpeq_epi8(hi, nul)))))
                << 32;
    }
}
#endif

// The kernel for this processor, chosen once.
inline MarkKernel markKernel() noexcept {
#if defined(QMX_MARKS_AVX2)
    static const MarkKernel kernel = [] {
        __builtin_cpu_init();  // also when first asked before the constructors ran
        return __builtin_cpu_supports("avx2") ? &marksOfAvx2 : &marksOf;
    }();
    return kernel;
#else
    return &marksOf;
#endif
}

}  // namespace qmx

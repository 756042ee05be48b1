// On x86-64, foreach_target.h includes this file once for each set of vector instructions, and
// libhwy chooses the best set at run time. On 64-bit Arm, the file is compiled for one set only
// (NEON), without libhwy.
#include "protocol/run_ends.h"

#include <array>

#define HWY_DISABLED_TARGETS (HWY_SSSE3 | HWY_AVX3)  // these do not make this code faster
#define HWY_WANT_AVX3_DL  // the AVX-512 variant that can compress 16-bit lanes
#ifdef __aarch64__
#define HWY_COMPILE_ONLY_STATIC  // the set that the compiler itself may use
#endif
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "protocol/run_ends.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#ifndef GUILINK_RUN_ENDS_ONCE
#define GUILINK_RUN_ENDS_ONCE

namespace {

// Returns byte indices that shuffle eight 16-bit lanes. Row `bits` moves those lanes to the front
// whose bit is 1. The tables of Highway (hwy) are not used, because GCC 12 copies them to the stack
// for every use.
constexpr auto make_compress_table() {
    std::array<std::array<uint16_t, 8>, 256> table{};
    for (unsigned bits = 0; bits < table.size(); ++bits) {
        size_t next = 0;
        for (unsigned lane = 0; lane < 8; ++lane) {
            if ((bits >> lane & 1) != 0) {
                table[bits][next++] = static_cast<uint16_t>(2 * lane | (2 * lane + 1) << 8);
            }
        }
    }
    return table;
}

alignas(16) constexpr auto COMPRESS = make_compress_table();

}  // namespace

#endif

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {

#if HWY_TARGET == HWY_SCALAR || HWY_TARGET == HWY_EMU128

size_t find_in_vectors(const uint16_t*, size_t, uint16_t*, uint16_t*, size_t&) {
    return 0;
}

#else

namespace hn = hwy::HWY_NAMESPACE;

const hn::ScalableTag<uint16_t> WIDE;
const hn::Full128<uint16_t> EIGHT;
constexpr size_t LANES = hn::MaxLanes(WIDE);
constexpr size_t BLOCK = 32;  // pixels; a block in which no run ends is skipped as a whole
static_assert(BLOCK % LANES == 0 && LANES <= RUN_ENDS_SLACK);

template <class Tag>
HWY_INLINE auto opaque(Tag tag, hn::Vec<Tag> pixels) {
    return hn::Ne(hn::And(pixels, hn::Set(tag, 0xFFFF - TRANSPARENT_MAX)), hn::Zero(tag));
}

// Returns a mask of the lanes in which the two pixels belong to different runs.
template <class Tag>
HWY_INLINE auto differ(Tag tag, hn::Vec<Tag> pixels, hn::Vec<Tag> others) {
    return hn::And(hn::Ne(pixels, others), opaque(tag, hn::Or(pixels, others)));
}

// Returns whether all pixels of a block and the pixel after the block belong to one run.
HWY_INLINE bool one_run(const uint16_t* block) {
    const auto first = hn::Set(WIDE, block[0]);
    auto other = differ(WIDE, first, hn::LoadU(WIDE, block + 1));
    for (size_t i = LANES; i < BLOCK; i += LANES) {
        other = hn::Or(other, differ(WIDE, first, hn::LoadU(WIDE, block + 1 + i)));
    }
    return hn::AllFalse(WIDE, other);
}

template <class Tag>
HWY_INLINE auto value_at(Tag tag, const uint16_t* pixels) {
    const auto pixel = hn::LoadU(tag, pixels);
    return hn::IfThenElseZero(opaque(tag, pixel), pixel);
}

// Handles all whole blocks, and sets `done` to the number of their pixels.
size_t find_in_vectors(const uint16_t* HWY_RESTRICT pixels, size_t count,
                       uint16_t* HWY_RESTRICT ends, uint16_t* HWY_RESTRICT values, size_t& done) {
    size_t found = 0;
    for (; done + BLOCK <= count; done += BLOCK) {
        if (one_run(pixels + done)) continue;
        for (size_t i = done; i < done + BLOCK; i += LANES) {
            const auto mask =
                differ(WIDE, hn::LoadU(WIDE, pixels + i), hn::LoadU(WIDE, pixels + i + 1));
#if HWY_TARGET == HWY_AVX3_DL
            const auto end = hn::Iota(WIDE, static_cast<uint16_t>(i + 1));
            // Do not use CompressStore, because it needs a hundred cycles on some processors.
            hn::StoreU(hn::Compress(end, mask), WIDE, ends + found);
            hn::StoreU(hn::Compress(value_at(WIDE, pixels + i), mask), WIDE, values + found);
            found += hn::CountTrue(WIDE, mask);
#else
            uint8_t bits[8];  // StoreMaskBits needs room for 8 bytes
            hn::StoreMaskBits(WIDE, mask, bits);
            for (size_t j = 0; j < LANES; j += 8) {
                const auto end = hn::Iota(EIGHT, static_cast<uint16_t>(i + j + 1));
                const auto front = hn::Load(EIGHT, COMPRESS[bits[j / 8]].data());
                hn::StoreU(hn::TableLookupBytes(end, front), EIGHT, ends + found);
                hn::StoreU(hn::TableLookupBytes(value_at(EIGHT, pixels + i + j), front), EIGHT,
                           values + found);
                found += hwy::PopCount(bits[j / 8]);
            }
#endif
        }
    }
    return found;
}

#endif

size_t find_run_ends(const uint16_t* pixels, size_t count, uint16_t* ends, uint16_t* values) {
    size_t done = 0;
    size_t found = find_in_vectors(pixels, count, ends, values, done);
    for (; done < count; ++done) {
        const uint16_t pixel = pixels[done];
        const uint16_t next = pixels[done + 1];
        ends[found] = static_cast<uint16_t>(done + 1);
        values[found] = pixel > TRANSPARENT_MAX ? pixel : uint16_t{0};
        if (pixel != next && (pixel | next) > TRANSPARENT_MAX) ++found;
    }
    return found;
}

}  // namespace HWY_NAMESPACE
}  // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace {

HWY_EXPORT(find_run_ends);

}

size_t FindRunEnds(const uint16_t* pixels, size_t count, uint16_t* ends, uint16_t* values) {
    return HWY_DYNAMIC_DISPATCH(find_run_ends)(pixels, count, ends, values);
}

#endif

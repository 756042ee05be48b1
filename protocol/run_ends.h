// Finds the ends of the runs in an array of pixels. This part of the encoder reads every pixel, so
// it uses the widest vectors that the processor has.
#pragma once

#include <cstddef>
#include <cstdint>

// Pixels up to this value are transparent (their alpha, the top four bits, is zero) and count as 0.
inline constexpr uint16_t TRANSPARENT_MAX = 0x0FFF;

// FindRunEnds writes whole vectors, so it may overwrite up to this many elements after its results.
inline constexpr size_t RUN_ENDS_SLACK = 32;

// Compares each of the first `count` pixels with the pixel after it, so it reads count + 1 pixels.
// A run ends between two pixels that do not belong to one run. Returns the number of run ends. For
// each run end, in order, writes the index of the pixel after it (modulo 65536) to `ends`, and the
// value of the pixel before it to `values`.
// `ends` and `values` must have room for count + RUN_ENDS_SLACK elements and must not overlap other
// data. Nothing needs to be aligned. Reentrant.
size_t FindRunEnds(const uint16_t* pixels, size_t count, uint16_t* ends, uint16_t* values);

// Finds the ends of the runs in an array of pixels. This part of the encoder reads every pixel, so
// it uses the widest vectors that the processor has.
#pragma once

#include <cstddef>
#include <cstdint>

// Pixels up to this value are transparent (their alpha, the top four bits, is zero) and count as 0.
inline constexpr uint16_t TRANSPARENT_MAX = 0x0FFF;

// FindRunEnds writes whole vectors, so it may overwrite up to this many elements after its results.
inline constexpr size_t RUN_ENDS_SLACK = 32;

// Reads count + 1 pixels, and returns how many runs end before the last of these pixels. A run ends
// where two adjacent pixels differ, unless both are transparent. For each run that ends, writes the
// index of the first pixel after the run (modulo 65536) to `ends`, and the run's value to `values`.
// `ends` and `values` must have room for count + RUN_ENDS_SLACK elements and must not overlap other
// data. Nothing needs to be aligned. Reentrant.
size_t FindRunEnds(const uint16_t* pixels, size_t count, uint16_t* ends, uint16_t* values);

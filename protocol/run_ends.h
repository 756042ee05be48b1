// Where the runs of a row of pixels end: the part of the image encoding that touches every pixel,
// in the widest vectors that the processor has.
#pragma once

#include <cstddef>
#include <cstdint>

// A pixel up to this has a top nibble, the alpha, of zero: it is transparent and counts as 0.
inline constexpr uint16_t TRANSPARENT_MAX = 0x0FFF;

// Elements beyond the found ones that FindRunEnds may overwrite: its widest vector.
inline constexpr size_t RUN_ENDS_SLACK = 32;

// Looks at count neighbours, pixels[0] and pixels[1] up to pixels[count - 1] and pixels[count], and
// returns how many of them differ. For each such pair, in order, ends gets the index of the second
// pixel (modulo 65536) and values the first one. Both have room for count + RUN_ENDS_SLACK elements
// and do not overlap anything. Nothing needs to be aligned. Reentrant.
size_t FindRunEnds(const uint16_t* pixels, size_t count, uint16_t* ends, uint16_t* values);

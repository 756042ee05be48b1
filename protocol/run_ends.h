// Finds where the runs of a row of pixels end. This part of the encoder reads every pixel, so it
// uses the widest vectors that the processor has.
#pragma once

#include <cstddef>
#include <cstdint>

// Pixels up to this value have an alpha (the top four bits) of zero: transparent, they count as 0.
inline constexpr uint16_t TRANSPARENT_MAX = 0x0FFF;

// FindRunEnds may overwrite this many elements after those that it found: its widest vector.
inline constexpr size_t RUN_ENDS_SLACK = 32;

// Compares count pairs of neighbours, from pixels[0] and pixels[1] to pixels[count - 1] and
// pixels[count], and returns in how many of them a run ends. For each of these, in order, ends gets
// the index of the second pixel (modulo 65536) and values the first pixel. ends and values must
// have room for count + RUN_ENDS_SLACK elements and must not overlap other data. Nothing needs to
// be aligned. Reentrant.
size_t FindRunEnds(const uint16_t* pixels, size_t count, uint16_t* ends, uint16_t* values);

// The payload of an ImageMessage: a run-length encoded image, as unsigned 16-bit little-endian
// words.
//
//   word 0     image width in pixels
//   word 1     image height in pixels
//   word 2, 3  first run: run length (1 to 65535), pixel value
//   word 4, 5  second run, and so on, row by row
//
// Pixels are 16-bit ARGB 4:4:4:4. A pixel whose top four bits are zero is transparent, whatever its
// colour, and is sent as 0, so that transparent neighbours of different colours form one run. Every
// companion expects two special cases: the first pixel is sent unchanged even if it is transparent,
// and the last pixel is not sent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Encodes width x height pixels into `words`, starting at words[at]. `words` must have at least
// at + 2 elements, and grows to twice its size when it is full. Returns the payload length in bytes
// (twice the number of words written). Throws std::bad_alloc when `words` cannot grow. Reentrant.
uint64_t EncodeImage(const uint16_t* pixels, uint16_t width, uint16_t height,
                     std::vector<uint16_t>& words, size_t at = 0);

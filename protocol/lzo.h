// Compression with LZO1X. The service does not use it, because the link's only compression is the
// run-length encoding of images.
#pragma once

#include <cstdint>

// Compresses `source` into `destination`, which must have room for the library's worst case
// (source_length + source_length / 16 + 67 bytes; not checked). Returns 0 and sets
// *destination_length to the compressed size, or returns -1. Not reentrant.
int32_t LzoCompress(const unsigned char* source, unsigned int source_length,
                    unsigned char* destination, unsigned int* destination_length);

// Decompresses trusted data: damaged data may cause a write beyond `destination`. Returns 0 and
// sets *destination_length to the decompressed size, or returns -1. Reentrant.
int32_t LzoDecompress(const unsigned char* source, unsigned int source_length,
                      unsigned char* destination, unsigned int* destination_length);

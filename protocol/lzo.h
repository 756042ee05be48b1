// Compression with LZO1X. The service does not use it: frames carry uncompressed payloads, and
// images are run-length encoded.
#pragma once

#include <cstdint>

// Compresses source into destination, which must have room for the library's worst case
// (source_length + source_length / 16 + 67 bytes; not checked). Returns 0, with the compressed size
// in *destination_length, or -1. Not safe to call from two threads at once.
int32_t LzoCompress(const unsigned char* source, unsigned int source_length,
                    unsigned char* destination, unsigned int* destination_length);

// Decompresses trusted data: may write beyond destination if the data is damaged. Returns 0, with
// the decompressed size in *destination_length, or -1. Reentrant.
int32_t LzoDecompress(const unsigned char* source, unsigned int source_length,
                      unsigned char* destination, unsigned int* destination_length);

// LZO1X behind two calls. The service does not use them: frames carry their payloads uncompressed,
// and images are made small by run-length encoding.
#pragma once

#include <cstdint>

// Compresses source into destination, which must have room for the library's worst case
// (source_length + source_length / 16 + 67 bytes; not checked). Returns 0, with the compressed size
// in *destination_length, or -1. Not safe to call from two threads at once.
int32_t LzoCompress(const unsigned char* source, unsigned int source_length,
                    unsigned char* destination, unsigned int* destination_length);

// Decompresses trusted data: nothing is checked against the size of destination. Returns 0, with
// the decompressed size in *destination_length, or -1. Reentrant.
int32_t LzoDecompress(const unsigned char* source, unsigned int source_length,
                      unsigned char* destination, unsigned int* destination_length);

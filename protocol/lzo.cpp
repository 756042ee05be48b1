#include "protocol/lzo.h"

#include <lzo/lzo1x.h>
#include <unistd.h>

#include "base/write_line.h"

namespace {

bool initialised = false;
// The compressor uses only the first LZO1X_1_MEM_COMPRESS bytes of this area.
alignas(lzo_align_t) unsigned char work_area[1048576];

}  // namespace

int32_t LzoCompress(const unsigned char* source, unsigned int source_length,
                    unsigned char* destination, unsigned int* destination_length) {
    if (!initialised) {
        if (lzo_init() != LZO_E_OK) {
            write_line(STDOUT_FILENO, "internal error - lzo_init() failed !!!");
            write_line(STDOUT_FILENO,
                       "(this usually indicates a compiler bug - try recompiling\nwithout "
                       "optimizations, and enable '-DLZO_DEBUG' for diagnostics)");
        }
        initialised = true;  // lzo_init is called only once, even if it fails
    }
    // Only logs the error, and still calls the compressor.
    if (source == nullptr || destination == nullptr) write_line(STDOUT_FILENO, "out of memory");

    lzo_uint length = *destination_length;
    const int status = lzo1x_1_compress(source, source_length, destination, &length, work_area);
    *destination_length = static_cast<unsigned int>(length);
    return status == LZO_E_OK ? 0 : -1;
}

int32_t LzoDecompress(const unsigned char* source, unsigned int source_length,
                      unsigned char* destination, unsigned int* destination_length) {
    lzo_uint length = *destination_length;
    const int status = lzo1x_decompress(source, source_length, destination, &length, nullptr);
    *destination_length = static_cast<unsigned int>(length);
    return status == LZO_E_OK ? 0 : -1;
}

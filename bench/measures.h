// What guilink-bench measures. Names are PICTURE/SIZE/WAY or SUBJECT/WAY: ways of the same thing
// are compared with each other, in the same run.
#pragma once

#include <vector>

#include "bench/pictures.h"

namespace guilink {

// The pictures must outlive the benchmarks.
void measure_encoding(const std::vector<Picture>& pictures);
void measure_checksum(const std::vector<Picture>& pictures);
void measure_reassembly();
void measure_whole_frame(const std::vector<Picture>& pictures);

}  // namespace guilink

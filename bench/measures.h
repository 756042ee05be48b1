// The measurements of guilink-bench. A benchmark's name is PICTURE/SIZE/WAY or SUBJECT/WAY; the
// ways of one subject are compared within one run.
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

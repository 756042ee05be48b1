// The measurements of guilink-bench. A benchmark's name is PICTURE/SIZE/VARIANT or SUBJECT/VARIANT.
// One run measures all variants of a subject, so that they can be compared.
#pragma once

#include <vector>

#include "bench/pictures.h"

namespace guilink {

// The pictures must outlive the benchmarks.
void measure_encoding(const std::vector<BenchPicture>& pictures);
void measure_checksum(const std::vector<BenchPicture>& pictures);
void measure_reassembly();
void measure_whole_frame(const std::vector<BenchPicture>& pictures);

}  // namespace guilink

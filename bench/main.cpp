#include <benchmark/benchmark.h>

#include "bench/measures.h"
#include "bench/memory.h"

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--memory") return guilink::measure_memory(argv[2]);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;

    std::vector<guilink::BenchPicture> pictures = guilink::draw_pictures(1280, 960);
    for (guilink::BenchPicture& small : guilink::draw_pictures(1024, 768)) {
        pictures.push_back(std::move(small));
    }
    guilink::measure_encoding(pictures);
    guilink::measure_checksum(pictures);
    guilink::measure_reassembly();
    guilink::measure_whole_frame(pictures);
    benchmark::RunSpecifiedBenchmarks();
}

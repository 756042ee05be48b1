// Another try for a test that a busy machine broke.
#pragma once

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/support/waiting.h"

namespace guilink::test {

// How long the threads of this process have been ready to run without getting a processor, in all.
inline std::chrono::nanoseconds time_without_processor() {
    std::chrono::nanoseconds sum{0};
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "schedstat");
        int64_t running, waiting;
        if (file >> running >> waiting) sum += std::chrono::nanoseconds(waiting);
    }
    return sum;
}

// Both ends drop a link that is silent for 3 s, and a busy machine can silence a test that long.
// Runs body, and again if it threw after it had waited for a processor: the link is then lost to
// starvation. On a quiet machine, and in the last attempt, the exception fails the test.
template <typename Body>
void retry_if_starved(const Body& body) {
    constexpr auto STARVED = 1s;
    constexpr int ATTEMPTS = 10;
    for (int attempt = 1;; ++attempt) {
        const auto before = time_without_processor();
        try {
            body();
            return;
        } catch (const std::runtime_error& error) {
            const std::chrono::duration<double> waited = time_without_processor() - before;
            if (attempt == ATTEMPTS || waited < STARVED) throw;
            std::fprintf(stderr, "trying again: %s; no processor for %.1f s\n", error.what(),
                         waited.count());
        }
    }
}

}  // namespace guilink::test

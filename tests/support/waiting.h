// Waits for events. Limits are generous, so reaching one is a failure.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

namespace guilink::test {

using namespace std::chrono_literals;

constexpr auto LIMIT = 60s;  // how long each wait may take, even on a slow machine

// Set if an event did not come because the machine was too busy. For example, the link ends if the
// service or the companion gets no processor time for 3 s. If this flag is set when the test fails,
// tests/support/run runs the test again.
inline std::atomic<bool> starved{false};

inline void note_missing_event() {
    // Sum over all threads of the time in which a thread was ready to run but had no processor.
    std::chrono::nanoseconds without_processor{0};
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "schedstat");
        int64_t running, waiting;
        if (file >> running >> waiting) without_processor += std::chrono::nanoseconds(waiting);
    }
    if (without_processor > std::chrono::seconds(1)) starved = true;
}

[[noreturn]] inline void throw_missing_event(const std::string& what) {
    note_missing_event();
    throw std::runtime_error(what);
}

inline bool wait_until(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = LIMIT) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            if (limit == LIMIT) note_missing_event();
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

// Declare this object first in a test. Its destructor waits until there are no more threads than
// when it was constructed, so that no thread of the test still runs when the test's process ends.
class LastThreadsEnd {
  public:
    ~LastThreadsEnd() {
        wait_until([this] { return count() <= m_count; });
    }

  private:
    static ptrdiff_t count() {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return std::distance(begin(tasks), end(tasks));
    }

    // Starts a thread first, because the first thread of a process makes the thread sanitizer start
    // another thread, which does not end.
    static ptrdiff_t lasting() {
        std::thread([] {}).join();
        std::this_thread::sleep_for(10ms);
        return count();
    }

    const ptrdiff_t m_count = lasting();
};

}  // namespace guilink::test

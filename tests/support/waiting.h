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

constexpr auto LIMIT = 60s;  // for any event that must come, however slow the machine

// Set if an event did not come because the machine was too busy. (If the service or the companion
// gets no processor time for 3 s, the link ends.) tests/support/run then runs the test again.
inline std::atomic<bool> starved{false};

inline void note_missing_event() {
    std::chrono::nanoseconds without_processor{0};  // total for threads that were ready to run
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

// Declare this object before all others. Its destructor waits until the number of threads is back
// where it was, so that nothing of a test still runs when the test's process ends.
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

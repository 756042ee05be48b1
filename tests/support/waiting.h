// Waits for events. Limits are generous, so reaching one is a failure.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

namespace guilink::test {

using namespace std::chrono_literals;

constexpr auto LIMIT = 60s;  // how long each wait may take, even on a slow machine

inline bool wait_until(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = LIMIT) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
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

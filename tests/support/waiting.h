// Waiting for events. Limits are generous: reaching one is a failure.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

namespace guilink::test {

using namespace std::chrono_literals;

constexpr auto LIMIT = 60s;  // for any event that must come, on a machine however slow

inline bool wait_until(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = LIMIT) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

// Declare first. Its destructor waits until the number of threads is back where it was, so that
// nothing of a test still runs when its process ends.
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

    // Starts a thread first: with it the thread sanitizer starts one of its own, which stays.
    static ptrdiff_t lasting() {
        std::thread([] {}).join();
        std::this_thread::sleep_for(10ms);
        return count();
    }

    const ptrdiff_t m_count = lasting();
};

}  // namespace guilink::test

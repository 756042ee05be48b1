// The main function of all tests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>

namespace {

// Notes whether a test failed while the machine was too busy for it. For example, the link ends if
// the service or the companion gets no processor time for 3 s.
class Starvation : public testing::EmptyTestEventListener {
  public:
    bool found() const { return m_found; }

  private:
    void OnTestPartResult(const testing::TestPartResult& result) override {
        m_found = m_found || (result.failed() && without_processor() > std::chrono::seconds(1));
    }

    // Sum over all threads of the time in which a thread was ready to run but had no processor.
    static std::chrono::nanoseconds without_processor() {
        std::chrono::nanoseconds sum{0};
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::ifstream file(task.path() / "schedstat");
            int64_t running, waiting;
            if (file >> running >> waiting) sum += std::chrono::nanoseconds(waiting);
        }
        return sum;
    }

    bool m_found = false;
};

}  // namespace

int main(int argc, char** argv) {
    constexpr int TRY_AGAIN = 75;  // exit status; tests/support/run then tries again
    testing::InitGoogleMock(&argc, argv);
    auto* const starvation = new Starvation;  // GoogleTest destroys it at exit
    testing::UnitTest::GetInstance()->listeners().Append(starvation);
    const int status = RUN_ALL_TESTS();
    return status != 0 && starvation->found() ? TRY_AGAIN : status;
}

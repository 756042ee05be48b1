// A second host in the device's network, and the companion on it.
#pragma once

#include <fcntl.h>
#include <sched.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "guilink/companion.h"
#include "tests/support/waiting.h"

namespace guilink::test {

inline void run(const std::string& command) {
    if (std::system(command.c_str()) != 0) throw std::runtime_error(command + " has failed");
}

// A host in a network namespace of its own.
class FarHost {
  public:
    // Takes ownership of a descriptor of the host's namespace.
    explicit FarHost(int far) : m_near(open_namespace()), m_far(far) {}
    // Makes a namespace, and connects it to the device's namespace by a veth pair.
    FarHost() : m_near(open_namespace()) {
        unshare(CLONE_NEWNET);
        m_far = open_namespace();
        setns(m_near, CLONE_NEWNET);
        const std::string own = std::to_string(getpid());
        run("ip link set guilink1 netns /proc/" + own + "/fd/" + std::to_string(m_far));
        setns(m_far, CLONE_NEWNET);
        run("ip address add 10.77.0.2/24 dev guilink1");
        run("ip link set guilink1 up");
        setns(m_near, CLONE_NEWNET);
    }

    // Runs `action` on this host: sockets that `action` creates belong to the host.
    template <typename Action>
    auto inside(const Action& action) const {
        setns(m_far, CLONE_NEWNET);
        auto result = action();
        setns(m_near, CLONE_NEWNET);
        return result;
    }

  private:
    static int open_namespace() { return open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC); }

    const int m_near;
    int m_far;
};

// A well-behaved companion on the far host.
class GoodCompanion {
  public:
    // `device` is the address from which the host hears the device.
    explicit GoodCompanion(const FarHost& host, const char* device = "10.77.0.1")
        : m_companion(host.inside([this, device] {
              const auto count = [this](const LinkStatus& status) {
                  if (!status.linked) m_images = 0;
              };
              return std::make_unique<Companion>(
                  Companion::Handlers{count, [this](const auto&) { ++m_images; }}, device);
          })) {}

    // Returns the number of images received on the current link.
    int images() const { return m_images; }
    bool linked_within(std::chrono::milliseconds limit) const {
        return wait_until([this] { return images() > 0; }, limit);
    }
    void press(uint8_t button) { m_companion->press(button); }

  private:
    std::atomic<int> m_images{0};
    const std::unique_ptr<Companion> m_companion;
};

}  // namespace guilink::test

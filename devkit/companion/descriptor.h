// Owns a file descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace guilink {

class Descriptor {
  public:
    explicit Descriptor(int descriptor) : m_descriptor(descriptor) {
        if (descriptor < 0) throw std::system_error(errno, std::generic_category());
    }
    ~Descriptor() { close(m_descriptor); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return m_descriptor; }

  private:
    const int m_descriptor;
};

}  // namespace guilink

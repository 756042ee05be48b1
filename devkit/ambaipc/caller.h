// The caller's side of our IPC library: calls the procedures of one program over one connection,
// which it opens at the first call and reopens when it is lost. Never repeats a call that the
// service may have received. Not thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>

#include "ipc/ambaipc.h"

namespace guilink {

class AmbaipcCaller {
  public:
    // How long `call` waits: a new identity first ends the service's link, which takes seconds.
    static constexpr auto CALL_TIMEOUT = std::chrono::seconds(30);

    AmbaipcCaller(uint32_t program, uint32_t version);
    ~AmbaipcCaller();
    AmbaipcCaller(const AmbaipcCaller&) = delete;
    AmbaipcCaller& operator=(const AmbaipcCaller&) = delete;

    // Calls one procedure, which may change `record`, and waits until it returns. Throws
    // std::runtime_error, and leaves `record` unchanged, if nobody serves the program, if the
    // service refuses the call or ends, on time-out, or if a signal interrupts the wait.
    void call(uint32_t procedure, std::span<const unsigned char> argument,
              _AMBA_IPC_SVC_RESULT_s_& record);

  private:
    void connect();
    void disconnect();
    [[noreturn]] void fail(const char* reason) const;
    [[noreturn]] void fail_by_errno() const;

    const uint32_t m_program;
    const uint32_t m_version;
    int m_connection = -1;
};

}  // namespace guilink

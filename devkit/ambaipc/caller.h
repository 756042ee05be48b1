// The other core's side of a call: calls the procedures of one program over one connection, which
// it opens at the first call and reopens when it is lost. A call that the service may have received
// is never repeated. Not thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>

#include "ipc/ambaipc.h"

namespace guilink {

class AmbaipcCaller {
  public:
    // Long, because the service stops its old link before it answers a QR body. That takes some
    // seconds.
    static constexpr auto CALL_TIMEOUT = std::chrono::seconds(30);

    AmbaipcCaller(uint32_t program, uint32_t version);
    ~AmbaipcCaller();
    AmbaipcCaller(const AmbaipcCaller&) = delete;
    AmbaipcCaller& operator=(const AmbaipcCaller&) = delete;

    // Calls one procedure and waits until it returns, at most CALL_TIMEOUT. The procedure gets the
    // record and may change it. Throws std::runtime_error, and leaves the record unchanged, when no
    // process serves the program, when the service refuses the call or ends, on time-out, and when
    // a signal handler interrupts the wait.
    void call(uint32_t procedure, std::span<const unsigned char> argument,
              _AMBA_IPC_SVC_RESULT_s_& record);

  private:
    void connect();
    void disconnect();
    // Both throw std::runtime_error with the program and the reason.
    [[noreturn]] void fail(const char* reason) const;
    [[noreturn]] void fail_by_errno() const;

    const uint32_t m_program;
    const uint32_t m_version;
    int m_connection = -1;
};

}  // namespace guilink

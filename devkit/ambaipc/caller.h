// The other core's side of a call: calls the procedures of one program, over one connection that is
// made at the first call and again whenever it was lost. A call is never repeated once the service
// may have seen it. Not for several threads at once.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>

#include "ipc/ambaipc.h"

namespace guilink {

class AmbaipcCaller {
  public:
    // A QR body makes the service stop its old link, which takes it some seconds.
    static constexpr auto CALL_TIMEOUT = std::chrono::seconds(30);

    // Connects to nothing yet.
    AmbaipcCaller(uint32_t program, uint32_t version);
    ~AmbaipcCaller();
    AmbaipcCaller(const AmbaipcCaller&) = delete;
    AmbaipcCaller& operator=(const AmbaipcCaller&) = delete;

    // Calls one procedure and waits for its end, CALL_TIMEOUT at most. The record goes there as it
    // is and comes back as the procedure left it. Throws std::runtime_error when nobody serves the
    // program, when the service refuses the call or goes away, on time-out, and when a signal
    // handler of this thread has run meanwhile; the record is then unchanged.
    void call(uint32_t procedure, std::span<const unsigned char> argument,
              _AMBA_IPC_SVC_RESULT_s_& record);

  private:
    void connect();
    void disconnect();
    // Both throw std::runtime_error: what was called, and why it failed.
    [[noreturn]] void fail(const char* reason) const;
    [[noreturn]] void fail_by_errno() const;

    const uint32_t m_program;
    const uint32_t m_version;
    int m_connection = -1;
};

}  // namespace guilink

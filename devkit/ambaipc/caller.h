// The caller's side of our IPC library, for the simulated real-time core. Calls the procedures of
// one RPC program over one connection. Opens the connection at the first call, and reopens a lost
// one. Never repeats a call that the service may have received. Not thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>

#include "ipc/ambaipc.h"

namespace guilink {

class AmbaipcCaller {
  public:
    // How long `call` waits. The limit is long because a call can change the service's identity.
    // Such a call returns only after the service has ended its current link, which takes some
    // seconds.
    static constexpr auto CALL_TIMEOUT = std::chrono::seconds(30);

    AmbaipcCaller(uint32_t program, uint32_t version);
    ~AmbaipcCaller();
    AmbaipcCaller(const AmbaipcCaller&) = delete;
    AmbaipcCaller& operator=(const AmbaipcCaller&) = delete;

    // Calls one procedure and waits until the procedure returns, at most CALL_TIMEOUT. The
    // procedure gets `record` and may change it. Throws std::runtime_error, and leaves `record`
    // unchanged, if no process serves the RPC program, if the serving process refuses the call or
    // ends, on time-out, or if a signal handler interrupts the wait.
    void call(uint32_t procedure, std::span<const unsigned char> argument,
              _AMBA_IPC_SVC_RESULT_s_& record);

  private:
    void connect();
    void disconnect();
    // fail and fail_by_errno throw std::runtime_error. Its text names the RPC program and the
    // reason.
    [[noreturn]] void fail(const char* reason) const;
    [[noreturn]] void fail_by_errno() const;

    const uint32_t m_program;
    const uint32_t m_version;
    int m_connection = -1;
};

}  // namespace guilink

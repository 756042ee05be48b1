// The protocol between callers and the service in our IPC library. Each program has an abstract
// Unix socket (SOCK_SEQPACKET), which its network namespace keeps to itself. One message carries a
// call, another one the answer, in the machine's byte order.
//
//   call    record, procedure number, 4 zero bytes, argument (0 to MAX_ARGUMENT bytes)
//   answer  record, status, 4 zero bytes
//
// The record is an _AMBA_IPC_SVC_RESULT_s_ (24 bytes). A connection carries any number of calls,
// one at a time.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "ipc/ambaipc.h"

namespace guilink {

inline constexpr size_t MAX_ARGUMENT = 4096;  // bytes; guilinkd's procedures need at most 12

enum class CallStatus : uint32_t {
    done = 0,
    no_such_procedure = 1,
    too_short = 2,     // the message ends before its argument
    too_long = 3,      // the argument exceeds MAX_ARGUMENT
    unregistered = 4,  // the RPC program has been unregistered
};

struct CallHeader {
    _AMBA_IPC_SVC_RESULT_s_ record;
    uint32_t procedure;
    uint32_t zero;
};

struct Answer {
    _AMBA_IPC_SVC_RESULT_s_ record;
    CallStatus status;
    uint32_t zero;
};

static_assert(sizeof(CallHeader) == 32 && sizeof(Answer) == 32);

struct ProgramAddress {
    sockaddr_un address = {};
    socklen_t length = 0;

    ProgramAddress(uint32_t program, uint32_t version) {
        address.sun_family = AF_UNIX;
        // A leading zero makes the name abstract; `length` is its end, not a terminating zero.
        const int name = std::snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1,
                                       "ambaipc/%08x/%u", program, version);
        length =
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(name));
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
};

}  // namespace guilink

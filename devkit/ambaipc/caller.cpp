#include "devkit/ambaipc/caller.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "devkit/ambaipc/messages.h"

namespace guilink {

namespace {

const char* refusal(CallStatus status) {
    switch (status) {
        case CallStatus::done:
            return nullptr;
        case CallStatus::no_such_procedure:
            return "the program has no procedure with this number";
        case CallStatus::too_short:
            return "the service found the message too short";
        case CallStatus::too_long:
            return "the argument is longer than a call can carry";
        case CallStatus::unregistered:
            return "the service has just unregistered the program";
    }
    return "the service answered with an unknown status; do both sides come from the same build?";
}

}  // namespace

AmbaipcCaller::AmbaipcCaller(uint32_t program, uint32_t version)
    : m_program(program), m_version(version) {}

AmbaipcCaller::~AmbaipcCaller() {
    disconnect();
}

void AmbaipcCaller::call(uint32_t procedure, std::span<const unsigned char> argument,
                         _AMBA_IPC_SVC_RESULT_s_& record) {
    const CallHeader header = {record, procedure, 0};
    std::vector<unsigned char> message(sizeof(header));
    std::memcpy(message.data(), &header, sizeof(header));
    message.insert(message.end(), argument.begin(), argument.end());

    const auto transmit = [&] {
        return send(m_connection, message.data(), message.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(message.size());
    };
    const bool reused = m_connection >= 0;
    if (!reused) connect();
    bool sent = transmit();
    if (!sent && reused) {  // the service may have been restarted
        disconnect();
        connect();
        sent = transmit();
    }
    Answer answer;
    const ssize_t received = sent ? recv(m_connection, &answer, sizeof(answer), 0) : -1;
    if (received != sizeof(answer)) {
        // A late answer must not be read as the answer to the next call.
        const int error = errno;
        disconnect();
        errno = error;
        if (received >= 0) fail("the service ended during the call; see its own messages");
        fail_by_errno();
    }
    if (const char* reason = refusal(answer.status)) fail(reason);
    record = answer.record;
}

void AmbaipcCaller::connect() {
    m_connection = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (m_connection < 0) fail_by_errno();
    const timeval timeout = {.tv_sec = CALL_TIMEOUT.count(), .tv_usec = 0};
    setsockopt(m_connection, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    setsockopt(m_connection, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    const ProgramAddress name(m_program, m_version);
    if (::connect(m_connection, name.get(), name.length) == 0) return;
    const int error = errno;
    disconnect();
    if (error == ECONNREFUSED)
        fail(
            "no process serves it; is guilinkd running in this network namespace "
            "(scripts/sandbox)?");
    errno = error;
    fail_by_errno();
}

void AmbaipcCaller::disconnect() {
    if (m_connection >= 0) close(m_connection);
    m_connection = -1;
}

void AmbaipcCaller::fail(const char* reason) const {
    char what[64];
    std::snprintf(what, sizeof(what), "cannot call program 0x%08x version %u: ", m_program,
                  m_version);
    throw std::runtime_error(std::string(what) + reason);
}

void AmbaipcCaller::fail_by_errno() const {
    if (errno == EAGAIN) fail("no answer within 30 s; is the service stopped or overloaded?");
    fail(std::generic_category().message(errno).c_str());
}

}  // namespace guilink

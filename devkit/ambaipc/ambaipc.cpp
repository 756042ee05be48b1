// Our stand-in for the vendor's IPC library, the service's side.
//
// One thread per program polls its listening socket and all callers, so calls to it never overlap,
// and a silent caller delays nobody. An invalid call is answered with an error status; a procedure
// that throws ends the process.
#include "ipc/ambaipc.h"
#include "base/mutex.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "devkit/ambaipc/messages.h"

namespace guilink {
namespace {

using namespace std::chrono_literals;

constexpr size_t MAX_PROGRAMS = 32;   // that a process may ever register; guilinkd has 2
constexpr size_t MAX_CALLERS = 64;    // connections per program; one more closes the oldest
constexpr size_t PADDING = 64;        // zero bytes after the argument, to terminate a text
constexpr auto ACCEPT_RETRY = 100ms;  // wait before the next accept when out of descriptors

constexpr int FREE = -1;
constexpr int LEAVING = -2;  // unregistered, but the program's thread has not closed the socket yet

// Each slot belongs to the first RPC program that uses it, even after that program is unregistered.
struct Slot {
    uint64_t key = 0;                 // number and version of the RPC program; constant once set
    std::atomic<int> listener{FREE};  // the listening socket, FREE or LEAVING
};

// Constant-initialised and never destroyed, because at exit the programs' threads still run, and
// the signal handler that called `exit` may have interrupted any code.
constinit std::array<Slot, MAX_PROGRAMS> slots;
constinit std::atomic<size_t> slots_used{0};
constinit Mutex register_mutex;  // locked by ambaipc_svc_register only

uint64_t key_of(uint32_t program, uint32_t version) {
    return uint64_t{program} << 32 | version;
}

// One system call, so that lines never mix and exit has nothing to flush.
__attribute__((format(printf, 1, 2))) void print_line(const char* format, ...) {
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    const size_t length = std::min(static_cast<size_t>(std::max(wanted, 0)), sizeof(line) - 1);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, length);
}

class Program {
  public:
    Program(const char* name, const IpcProgInfo& info, Slot& slot, int listener)
        : m_name(name),
          m_procedures(info.procedures, info.procedures + info.count),
          m_slot(slot),
          m_listener(listener) {}

    // Serves calls until the program is unregistered.
    void serve() {
        m_polled.push_back({m_listener, POLLIN, 0});
        for (;;) {
            if (poll(m_polled.data(), m_polled.size(), -1) < 0) continue;  // interrupted
            // Not as soon as the slot is LEAVING, because ambaipc_svc_unregister then still needs
            // the socket for its `shutdown`.
            if (m_polled[0].revents & POLLHUP) break;
            for (size_t i = 1; i < m_polled.size(); ++i)
                if (m_polled[i].revents && !answer_call(m_polled[i].fd)) drop(i);
            std::erase_if(m_polled, [](const pollfd& polled) { return polled.fd < 0; });
            if (m_polled[0].revents) accept_caller();
        }
        for (const pollfd& polled : m_polled) close(polled.fd);
        m_slot.listener.store(FREE, std::memory_order_release);
    }

  private:
    void drop(size_t caller) {
        close(m_polled[caller].fd);
        m_polled[caller].fd = -1;
    }

    void accept_caller() {
        const int caller = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (caller < 0) {
            if (errno != EAGAIN) std::this_thread::sleep_for(ACCEPT_RETRY);
            return;
        }
        if (m_polled.size() > MAX_CALLERS) {
            print_line("ambaipc: %s: more than %zu callers; the oldest is dropped\n",
                       m_name.c_str(), MAX_CALLERS);
            close(m_polled[1].fd);
            m_polled.erase(m_polled.begin() + 1);
        }
        m_polled.push_back({caller, POLLIN, 0});
    }

    // Receives one call and answers it. Returns false if the connection must be closed.
    bool answer_call(int caller) {
        // MSG_TRUNC returns the real length even of a truncated message.
        const ssize_t received = recv(caller, &m_call, sizeof(m_call) - PADDING, MSG_TRUNC);
        if (received < 0) return errno == EAGAIN || errno == EINTR;
        if (received == 0) return false;  // end of the connection, or an empty message
        const CallStatus status = run(static_cast<size_t>(received));
        const Answer answer = {m_call.header.record, status, 0};
        if (send(caller, &answer, sizeof(answer), MSG_NOSIGNAL) == sizeof(answer)) return true;
        print_line("ambaipc: %s: cannot answer a call: %s; its caller is dropped\n", m_name.c_str(),
                   errno == EAGAIN ? "the caller does not read"
                                   : std::generic_category().message(errno).c_str());
        return false;
    }

    CallStatus run(size_t received) {
        if (received < sizeof(CallHeader)) {
            m_call.header.record = {};
            return CallStatus::too_short;
        }
        const size_t length = received - sizeof(CallHeader);
        if (length > MAX_ARGUMENT) return CallStatus::too_long;
        if (m_slot.listener.load(std::memory_order_acquire) == LEAVING)
            return CallStatus::unregistered;
        if (m_call.header.procedure >= m_procedures.size()) return CallStatus::no_such_procedure;
        std::memset(m_call.argument + length, 0, sizeof(m_call.argument) - length);
        m_procedures[m_call.header.procedure].procedure(m_call.argument, &m_call.header.record);
        return CallStatus::done;
    }

    struct Call {
        CallHeader header;
        unsigned char argument[MAX_ARGUMENT + PADDING];
    };

    const std::string m_name;
    const std::vector<IpcProcEntry> m_procedures;
    Slot& m_slot;
    const int m_listener;

    std::vector<pollfd> m_polled;  // the listening socket, then the callers' sockets, oldest first
    Call m_call = {};
};

Slot* find_slot(uint64_t key) {
    const size_t used = slots_used.load(std::memory_order_acquire);
    for (size_t i = 0; i < used; ++i)
        if (slots[i].key == key) return &slots[i];
    return nullptr;
}

// Throws std::runtime_error if the program is still registered or no slot is free.
Slot& free_slot(uint64_t key) {
    if (Slot* known = find_slot(key)) {
        const int listener = known->listener.load(std::memory_order_acquire);
        if (listener == FREE) return *known;
        throw std::runtime_error(listener == LEAVING
                                     ? "it is still being unregistered; register it again later"
                                     : "it is registered already; unregister it first");
    }
    const size_t used = slots_used.load(std::memory_order_relaxed);
    if (used == MAX_PROGRAMS) throw std::runtime_error("too many programs in this process");
    slots[used].key = key;
    slots_used.store(used + 1, std::memory_order_release);
    return slots[used];
}

int listen_for(uint32_t program, uint32_t version) {
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener < 0) throw std::system_error(errno, std::generic_category(), "no socket");
    const ProgramAddress name(program, version);
    if (bind(listener, name.get(), name.length) < 0 || listen(listener, SOMAXCONN) < 0) {
        const int error = errno;
        close(listener);
        throw std::system_error(error, std::generic_category(),
                                "cannot listen for calls (does another service run here?)");
    }
    return listener;
}

}  // namespace
}  // namespace guilink

using namespace guilink;

int ambaipc_svc_register(uint32_t program, uint32_t version, const char* name, IpcProgInfo* info,
                         int) {
    int listener = -1;
    try {
        if (!name || !info || info->count < 1 || !info->procedures)
            throw std::runtime_error("it needs a name and at least one procedure");
        const Lock lock(register_mutex);
        Slot& slot = free_slot(key_of(program, version));
        listener = listen_for(program, version);
        std::thread thread([service = Program(name, *info, slot, listener), program]() mutable {
            char thread_name[16];  // bytes; the kernel's maximum
            std::snprintf(thread_name, sizeof(thread_name), "ipc %08x", program);
            pthread_setname_np(pthread_self(), thread_name);
            service.serve();
        });
        slot.listener.store(listener, std::memory_order_release);
        thread.detach();
        return 0;
    } catch (const std::exception& error) {
        if (listener >= 0) close(listener);
        print_line("ambaipc: cannot register program 0x%08x version %u (%s): %s\n", program,
                   version, name ? name : "no name", error.what());
        return -1;
    }
}

// May run in a signal handler, so it uses only atomics and `shutdown`. From now on, calls are
// refused; the program's thread gets POLLHUP and closes the sockets.
int ambaipc_svc_unregister(uint32_t program, uint32_t version) {
    if (Slot* slot = find_slot(key_of(program, version))) {
        int listener = slot->listener.load(std::memory_order_acquire);
        if (listener >= 0 && slot->listener.compare_exchange_strong(listener, LEAVING)) {
            shutdown(listener, SHUT_RDWR);
            return 0;
        }
    }
    return -1;
}

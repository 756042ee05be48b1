// A library that is preloaded into the service. Makes one of the service's system or library calls
// fail; tests/faults_test.py chooses the call.
//
// A site is a kind of call, together with the chain of return addresses that leads to the call.
// There are few sites, and every run has the same ones, however the threads are scheduled.
// GUILINK_FAULT_TABLE names the file in which this library lists the sites that it has seen.
// GUILINK_FAULT, in the form SITE:OCCURRENCE:FAULT, selects the call that must fail.
//
// The hooks neither allocate nor lock, because they also run in the handler of SIGTERM.
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
}

namespace {

// A fault is an errno value, which is positive, or one of these values.
enum Fault { NO_FAULT = 0, ZERO = -1, SHORT = -2, CRASH = -3, HANG = -4, GARBLE = -5 };
constexpr long SHORT_LENGTH = 7;  // bytes; a transfer of this length ends within a frame's header

struct Site {
    std::atomic<uint64_t> id;  // 0 if this entry is free
    std::atomic<uint32_t> calls;
    uint32_t failed;
    char kind[16];
};
constexpr size_t SITES = 4096;

Site* sites = nullptr;
uint64_t chosen_id;
unsigned chosen_call;
int chosen_fault;

struct Chain {
    uint64_t hash = 0xCBF29CE484222325;
    size_t length = 0;
    std::array<void*, 32> addresses;

    void mix(uint64_t value) { hash = (hash ^ value) * 0x100000001B3; }
};

// Hashes offsets within modules, because the addresses of the modules differ between runs.
_Unwind_Reason_Code add_frame(_Unwind_Context* context, void* data) {
    auto& chain = *static_cast<Chain*>(data);
    const uint64_t address = _Unwind_GetIP(context);
    void*& entry = chain.addresses[chain.length++];
    entry = reinterpret_cast<void*>(address);
    dl_find_object module;
    if (_dl_find_object(entry, &module) == 0) {
        chain.mix(address - reinterpret_cast<uint64_t>(module.dlfo_map_start));
    }
    return chain.length == chain.addresses.size() ? _URC_END_OF_STACK : _URC_NO_REASON;
}

// Counts a call. Returns the chosen fault if this is the chosen call, otherwise NO_FAULT.
int due(const char* kind) {
    if (sites == nullptr) return NO_FAULT;
    const int error = errno;
    Chain chain;
    for (const char* letter = kind; *letter != 0; ++letter)
        chain.mix(static_cast<uint8_t>(*letter));
    _Unwind_Backtrace(add_frame, &chain);

    size_t slot = chain.hash % SITES;
    for (uint64_t id = 0; !sites[slot].id.compare_exchange_strong(id, chain.hash); id = 0) {
        if (id == chain.hash) break;
        slot = (slot + 1) % SITES;
    }
    Site& site = sites[slot];
    std::strncpy(site.kind, kind, sizeof site.kind - 1);
    const bool fails = ++site.calls == chosen_call && chain.hash == chosen_id;
    if (fails) {
        site.failed = 1;
        backtrace_symbols_fd(chain.addresses.data(), static_cast<int>(chain.length), STDERR_FILENO);
    }
    errno = error;
    return fails ? chosen_fault : NO_FAULT;
}

__attribute__((constructor)) void begin() {
    const char* const table = std::getenv("GUILINK_FAULT_TABLE");
    if (table == nullptr) return;
    if (const char* const fault = std::getenv("GUILINK_FAULT")) {
        std::sscanf(fault, "%lx:%u:%d", &chosen_id, &chosen_call, &chosen_fault);
    }
    const int file = open(table, O_RDWR);
    void* const start =
        mmap(nullptr, SITES * sizeof(Site), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (start == MAP_FAILED) std::abort();
    close(file);
    sites = static_cast<Site*>(start);
}

void spoil(int fault, long data, long& length) {
    if (fault == SHORT) length = std::min(length, SHORT_LENGTH);
    if (fault == CRASH) std::raise(SIGSEGV);
    while (fault == HANG) pause();
    if (fault == GARBLE) reinterpret_cast<unsigned char*>(data)[length / 2] ^= 1;
}

using Call = long(long, long, long, long, long, long);

}  // namespace

// Both x86-64 and arm64 pass up to six integers and pointers in registers, so one signature fits
// every call.
#define HOOK_AS(kind, name, failure)                                                \
    extern "C" Call hook_##name __asm__(#name);                                     \
    long hook_##name(long a, long b, long c, long d, long e, long f) {              \
        static Call* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, #name)); \
        const int fault = due(kind);                                                \
        if (fault == ZERO) return 0;                                                \
        if (fault > 0) {                                                            \
            errno = fault;                                                          \
            return failure;                                                         \
        }                                                                           \
        spoil(fault, b, c);                                                         \
        return real(a, b, c, d, e, f);                                              \
    }
#define HOOK(name) HOOK_AS(#name, name, -1)

HOOK(accept4)
HOOK(bind)
// On Linux, a close that fails has closed the descriptor.
HOOK_AS("close", close, (real(a, b, c, d, e, f), errno = fault, -1))
HOOK(connect)
HOOK(daemon)
HOOK(dup2)
HOOK(fclose)
HOOK(fcntl)
HOOK_AS("fopen64", fopen64, 0)
HOOK(fstat)
HOOK(getifaddrs)
HOOK(getsockopt)
HOOK(ioctl)
HOOK(listen)
HOOK_AS((d & MAP_SHARED) != 0 ? "mmap /dev/mem" : "mmap", mmap, -1)
HOOK(munmap)
HOOK(nanosleep)
HOOK_AS((b & O_SYNC) != 0 ? "open /dev/mem" : "open", open, -1)
HOOK(poll)
HOOK_AS("pthread_create", pthread_create, fault)
HOOK(read)
HOOK_AS((d & MSG_TRUNC) != 0 ? "recv message" : "recv", recv, -1)
HOOK(recvfrom)
HOOK(send)
HOOK(sendto)
HOOK(setsockopt)
HOOK(shutdown)
HOOK(sigaction)
HOOK(socket)
HOOK(write)

#define ALLOCATION(name, parameters, arguments)           \
    extern "C" void* name parameters {                    \
        const int fault = due(#name);                     \
        if (fault == NO_FAULT) return __libc_##arguments; \
        errno = fault;                                    \
        return nullptr;                                   \
    }

ALLOCATION(malloc, (size_t size), malloc(size))
ALLOCATION(calloc, (size_t count, size_t size), calloc(count, size))
ALLOCATION(realloc, (void* memory, size_t size), realloc(memory, size))
ALLOCATION(aligned_alloc, (size_t alignment, size_t size), memalign(alignment, size))

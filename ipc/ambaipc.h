// What the service uses of the vendor's inter-core IPC library (libambaipc). The service registers
// programs, whose procedures the real-time core calls. They run on the library's threads, but never
// two of one program at once. The assertions below check the layouts.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

// The result of one call, which the procedure fills in. Only the library knows its meaning.
struct _AMBA_IPC_SVC_RESULT_s_ {
    uint32_t word_0;
    uint32_t word_4;
    uint64_t word_8;
    uint32_t word_16;
    uint32_t word_20;
};

// `argument`, whose length is not passed, and `result` are valid only during the call.
typedef void (*IpcProc)(const unsigned char* argument, _AMBA_IPC_SVC_RESULT_s_* result);

struct IpcProcEntry {
    IpcProc procedure;
    int32_t word;  // always 0; only the library knows its meaning
};

struct IpcProgInfo {
    int32_t count;             // number of procedures
    IpcProcEntry* procedures;  // array of `count` entries
};

// Registers a program; copies `name` and `info`. The service always passes 1 as `last`. Returns 0
// on success.
int ambaipc_svc_register(uint32_t program, uint32_t version, const char* name, IpcProgInfo* info,
                         int last);

// Unregisters a program. Safe to call from a signal handler. Returns 0 on success.
int ambaipc_svc_unregister(uint32_t program, uint32_t version);

}  // extern "C"

static_assert(sizeof(_AMBA_IPC_SVC_RESULT_s_) == 24);
static_assert(offsetof(_AMBA_IPC_SVC_RESULT_s_, word_8) == 8);
static_assert(offsetof(_AMBA_IPC_SVC_RESULT_s_, word_16) == 16);
static_assert(offsetof(_AMBA_IPC_SVC_RESULT_s_, word_20) == 20);
static_assert(sizeof(IpcProcEntry) == 16 && offsetof(IpcProcEntry, word) == 8);
static_assert(sizeof(IpcProgInfo) == 16 && offsetof(IpcProgInfo, procedures) == 8);

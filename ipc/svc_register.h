// Registers a program with the vendor's IPC library, and takes the one registered last back when
// SIGTERM ends the process.
#pragma once

#include <csignal>
#include <cstdint>

#include "ipc/ambaipc.h"

// Makes count procedures callable as a program, and SIGTERM end the process from now on. The
// procedures must be callable for the rest of the process's life. Returns what the library returns.
int sg_svc_register(const IpcProc* procedures, int32_t count, uint32_t program, uint32_t version,
                    const char* name);

// Handler of SIGTERM: unregisters the program registered last, that one alone, and exits with 0.
void sg_svc_unregister(int signal_number, siginfo_t* information, void* context);

// Of the last registration; a later one overwrites an earlier one.
extern uint32_t sg_svc_vers;
extern uint32_t sg_svc_prog;
extern IpcProgInfo sg_svc_info;

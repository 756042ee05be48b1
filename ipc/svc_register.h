// Registers programs with the vendor's IPC library. On SIGTERM, unregisters only the most recently
// registered program and ends the process.
#pragma once

#include <csignal>
#include <cstdint>

#include "ipc/ambaipc.h"

// Registers a program that has `count` procedures, and installs the handler of SIGTERM. The
// procedures must stay callable as long as the process runs. Returns the result of
// ambaipc_svc_register, or -1 if there is not enough memory.
int sg_svc_register(const IpcProc* procedures, int32_t count, uint32_t program, uint32_t version,
                    const char* name);

// Handles SIGTERM: unregisters a program and exits with status 0. Deliberate: unregisters only the
// most recently registered program, because the variables below describe only this one.
void sg_svc_unregister(int signal_number, siginfo_t* information, void* context);

// Version, number and procedures of the most recently registered program.
extern uint32_t sg_svc_vers;
extern uint32_t sg_svc_prog;
extern IpcProgInfo sg_svc_info;

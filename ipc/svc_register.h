// Registers programs with the vendor's IPC library. On SIGTERM, unregisters only the most recently
// registered program and ends the process.
#pragma once

#include <csignal>
#include <cstdint>

#include "ipc/ambaipc.h"

// Registers a program of `count` procedures, which must stay callable as long as the process runs,
// and installs the handler of SIGTERM. Returns the result of ambaipc_svc_register, or -1 if there
// is not enough memory.
int sg_svc_register(const IpcProc* procedures, int32_t count, uint32_t program, uint32_t version,
                    const char* name);

// Handles SIGTERM: exits with status 0. Deliberate: unregisters only the program that the variables
// below describe.
void sg_svc_unregister(int signal_number, siginfo_t* information, void* context);

// Version, number and procedures of the most recently registered program.
extern uint32_t sg_svc_vers;
extern uint32_t sg_svc_prog;
extern IpcProgInfo sg_svc_info;

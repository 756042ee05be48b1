// Sends messages to our replacement for the vendor's IPC library, as another process would. Each
// piece of the fuzzer's input is one message.
#include "ipc/ambaipc.h"

#include <unistd.h>

#include "devkit/ambaipc/messages.h"
#include "tests/fuzz/fuzz.h"

namespace guilink::fuzz {

constexpr uint32_t PROGRAM = 0x70000004;
// Written by the thread that serves PROGRAM; read only after the call has been answered.
Bytes last_argument;

void take(const unsigned char* argument, _AMBA_IPC_SVC_RESULT_s_*) {
    const auto* const text = reinterpret_cast<const char*>(argument);
    last_argument.assign(argument, argument + std::strlen(text));
}

Bytes call(uint32_t procedure, const Bytes& argument) {
    CallHeader header = {{1, 2, 3, 4, 5}, procedure, 0};
    Bytes message(sizeof header);
    std::memcpy(message.data(), &header, sizeof header);
    return piece(0, 0, message + argument);
}

std::vector<Bytes> seeds() {
    return {call(0, bytes("QR123")) + call(0, {}) + call(1, bytes("none")), piece(0, 0, {}),
            call(0, Bytes(MAX_ARGUMENT, 'x')) + call(0, Bytes(MAX_ARGUMENT + 1, 'x'))};
}

int connection() {
    static const int registered = [] {
        IpcProcEntry entry = {take, 0};
        IpcProgInfo info = {1, &entry};
        return ambaipc_svc_register(PROGRAM, 1, "fuzz", &info, 1);
    }();
    require(registered == 0, "the program is registered");
    const int result = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const ProgramAddress name(PROGRAM, 1);
    require(connect(result, name.get(), name.length) == 0, "the program listens");
    return result;
}

CallStatus status_of(const Bytes& message) {
    if (message.size() < sizeof(CallHeader)) return CallStatus::too_short;
    if (message.size() > sizeof(CallHeader) + MAX_ARGUMENT) return CallStatus::too_long;
    CallHeader header;
    std::memcpy(&header, message.data(), sizeof header);
    return header.procedure == 0 ? CallStatus::done : CallStatus::no_such_procedure;
}

}  // namespace guilink::fuzz

using namespace guilink;
using namespace guilink::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    static const int caller = connection();
    for_each_piece(data, size, [](unsigned char, int, const Bytes& message) {
        if (message.empty()) return;  // would look like the end of the connection
        Answer answer;
        // Retry, because libFuzzer's timer interrupts system calls.
        const auto sent = TEMP_FAILURE_RETRY(send(caller, message.data(), message.size(), 0));
        require(sent == std::ssize(message), "a message is taken");
        const auto received = TEMP_FAILURE_RETRY(recv(caller, &answer, sizeof answer, 0));
        require(received == sizeof answer, "each gets an answer");
        require(answer.status == status_of(message), "the answer is the right one");
        if (answer.status != CallStatus::done) return;
        const std::string argument(message.begin() + sizeof(CallHeader), message.end());
        require(last_argument == bytes(argument.c_str()), "the argument arrives as a text");
    });
    return 0;
}

#include "ipc/ambaipc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "devkit/ambaipc/caller.h"
#include "devkit/ambaipc/messages.h"

namespace guilink {
namespace {

using Record = _AMBA_IPC_SVC_RESULT_s_;
using testing::HasSubstr;
using testing::ThrowsMessage;

constexpr uint32_t PROGRAM = 0x70000004;

std::atomic<int> calls{0};
std::atomic<int> inside{0};
std::atomic<int> overlaps{0};

void fill_record(const unsigned char*, Record* record) {
    *record = {1, 2, record->word_8 + 1, 3, 4};
}

void count(const unsigned char*, Record*) {
    if (inside.fetch_add(1) != 0) ++overlaps;
    std::this_thread::yield();
    inside.fetch_sub(1);
    ++calls;
}

std::string text;  // the last argument of take_text

void take_text(const unsigned char* argument, Record*) {
    text = reinterpret_cast<const char*>(argument);
}

int register_program(uint32_t program, std::vector<IpcProc> procedures) {
    std::vector<IpcProcEntry> table;
    for (const IpcProc procedure : procedures) table.push_back({procedure, 0});
    IpcProgInfo info = {static_cast<int32_t>(table.size()), table.data()};
    std::string name = "test";
    const int result = ambaipc_svc_register(program, 1, name.c_str(), &info, 1);
    // Overwrite the table and info: the library must have copied them.
    std::fill(table.begin(), table.end(), IpcProcEntry{nullptr, -1});
    info = {0, nullptr};
    name.assign(name.size(), 'x');
    return result;
}

void call(AmbaipcCaller& caller, uint32_t procedure, std::string_view argument = {}) {
    Record record = {};
    caller.call(procedure,
                {reinterpret_cast<const unsigned char*>(argument.data()), argument.size()}, record);
}

// A raw connection, for messages that AmbaipcCaller never sends.
int raw_connection() {
    const int connection = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const ProgramAddress name(PROGRAM, 1);
    EXPECT_EQ(connect(connection, name.get(), name.length), 0);
    return connection;
}

TEST(Ambaipc, RecordGoesThereAndBackByteForByte) {
    ASSERT_EQ(register_program(PROGRAM, {count, fill_record}), 0);
    AmbaipcCaller caller(PROGRAM, 1);
    Record record = {9, 9, 0x1122334455667788, 9, 9};
    caller.call(1, {}, record);
    const std::array<unsigned char, 24> expected = {
        1,    0,    0,    0,    2,    0,    0,    0,  // words at offsets 0 and 4
        0x89, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 3, 0, 0, 0, 4, 0, 0, 0};  // 8, 16, 20
    EXPECT_EQ(std::memcmp(&record, expected.data(), sizeof(record)), 0);
}

TEST(Ambaipc, ArgumentArrivesAsATextAndAlone) {
    ASSERT_EQ(register_program(PROGRAM, {take_text}), 0);
    AmbaipcCaller caller(PROGRAM, 1);
    for (const std::string& sent : {std::string(MAX_ARGUMENT, 'x'), std::string("QR123")}) {
        call(caller, 0, sent);
        EXPECT_EQ(text, sent);
    }
}

TEST(Ambaipc, WrongCallsAreRefusedAndTheServiceLivesOn) {
    AmbaipcCaller caller(PROGRAM, 1);
    const auto calling = [&](uint32_t procedure, size_t length) {
        return [&caller, procedure, length] { call(caller, procedure, std::string(length, 'x')); };
    };
    EXPECT_THAT(calling(0, 0),
                ThrowsMessage<std::runtime_error>(HasSubstr("no process serves it")));
    ASSERT_EQ(register_program(PROGRAM, {count}), 0);
    EXPECT_THAT(calling(1, 0), ThrowsMessage<std::runtime_error>(HasSubstr("no procedure")));
    EXPECT_THAT(calling(0, MAX_ARGUMENT + 1),
                ThrowsMessage<std::runtime_error>(HasSubstr("longer")));
    AmbaipcCaller other_version(PROGRAM, 2);
    EXPECT_THAT([&] { call(other_version, 0); },
                ThrowsMessage<std::runtime_error>(HasSubstr("no process serves it")));

    const int connection = raw_connection();
    Answer answer = {};
    send(connection, &answer, sizeof(CallHeader) - 1, 0);
    recv(connection, &answer, sizeof(answer), 0);
    EXPECT_EQ(answer.status, CallStatus::too_short);
    close(connection);

    EXPECT_EQ(calls, 0);
    call(caller, 0);
    EXPECT_EQ(calls, 1);
}

TEST(Ambaipc, CallerThatIsSilentOrGoneHoldsUpNobody) {
    ASSERT_EQ(register_program(PROGRAM, {count}), 0);
    std::vector<int> silent;
    for (int i = 0; i < 100; ++i) silent.push_back(raw_connection());
    const CallHeader header = {{}, 0, 0};
    const int gone = raw_connection();
    send(gone, &header, sizeof(header), 0);
    close(gone);
    // A caller that never reads its answers is dropped before they fill the service's memory.
    const int deaf = raw_connection();
    while (send(deaf, &header, sizeof(header), MSG_NOSIGNAL) > 0) continue;
    AmbaipcCaller caller(PROGRAM, 1);
    const int before = calls;
    call(caller, 0);
    EXPECT_EQ(calls, before + 1);
    close(deaf);
    for (const int connection : silent) close(connection);
}

TEST(Ambaipc, CallsToOneProgramNeverOverlap) {
    ASSERT_EQ(register_program(PROGRAM, {count}), 0);
    ASSERT_EQ(register_program(PROGRAM + 1, {fill_record}), 0);
    std::vector<std::thread> callers;
    for (int i = 0; i < 8; ++i)
        callers.emplace_back([] {
            AmbaipcCaller caller(PROGRAM, 1);
            AmbaipcCaller other(PROGRAM + 1, 1);
            for (int n = 0; n < 200; ++n) {
                call(caller, 0);
                call(other, 0);
            }
        });
    for (std::thread& caller : callers) caller.join();
    EXPECT_EQ(calls, 1600);
    EXPECT_EQ(overlaps, 0);
}

TEST(Ambaipc, UnregisteredProgramRefusesAndCanComeBack) {
    ASSERT_EQ(register_program(PROGRAM, {count}), 0);
    EXPECT_EQ(register_program(PROGRAM, {count}), -1) << "registered twice";
    EXPECT_EQ(ambaipc_svc_unregister(PROGRAM + 1, 1), -1) << "never registered";
    AmbaipcCaller caller(PROGRAM, 1);
    call(caller, 0);
    ASSERT_EQ(ambaipc_svc_unregister(PROGRAM, 1), 0);
    EXPECT_EQ(ambaipc_svc_unregister(PROGRAM, 1), -1) << "taken back already";
    EXPECT_THROW(call(caller, 0), std::runtime_error);
    EXPECT_EQ(calls, 1);
    // The program's thread releases the socket's name a little later.
    while (register_program(PROGRAM, {count}) != 0) std::this_thread::yield();
    call(caller, 0);
    EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace guilink

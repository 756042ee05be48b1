#include "ipc/ipc_gui_fetcher.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <fstream>

#include "base/write_line.h"
#include "ipc/svc_register.h"
#include "tests/support/raw_companion.h"

namespace {

using namespace guilink::test;

struct Registration {
    uint32_t program;
    uint32_t version;
    std::string name;
    int32_t count;
    IpcProc procedure;  // the program's first procedure
    int32_t word;
    int last;
    bool operator==(const Registration&) const = default;
};
std::vector<Registration> registrations;

constexpr _AMBA_IPC_SVC_RESULT_s_ DIRTY = {1, 2, 3, 4, 5};

bool cleared(const _AMBA_IPC_SVC_RESULT_s_& result) {
    return result.word_0 == 0 && result.word_4 == 2 && result.word_8 == 3 && result.word_16 == 0 &&
           result.word_20 == 0;
}

// Returns the size in bytes of each mapping of /dev/mem.
std::vector<uint64_t> mappings() {
    std::vector<uint64_t> sizes;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        uint64_t begin = 0;
        uint64_t end = 0;
        if (line.find("/dev/mem") == std::string::npos) continue;
        if (std::sscanf(line.c_str(), "%lx-%lx", &begin, &end) == 2) sizes.push_back(end - begin);
    }
    return sizes;
}

}  // namespace

// These two functions replace the vendor's library.
extern "C" int ambaipc_svc_register(uint32_t program, uint32_t version, const char* name,
                                    IpcProgInfo* info, int last) {
    const IpcProcEntry& entry = info->procedures[0];
    registrations.push_back(
        {program, version, name, info->count, entry.procedure, entry.word, last});

    // The core may call the program before the fetcher is constructed. This call must map nothing.
    if (program == IPC_PROG_GUI_BUF) {
        const GuiBufferArg early = {0x1000, 4096};
        _AMBA_IPC_SVC_RESULT_s_ result = DIRTY;
        entry.procedure(reinterpret_cast<const unsigned char*>(&early), &result);
        EXPECT_TRUE(cleared(result));
        EXPECT_TRUE(mappings().empty());
    }
    return -1;  // the service must ignore the failure
}

extern "C" int ambaipc_svc_unregister(uint32_t program, uint32_t version) {
    write_line(STDERR_FILENO,
               "unregistered " + std::to_string(program) + " " + std::to_string(version));
    return 0;
}

namespace {

void push(uint64_t address, uint32_t size) {
    GuiBufferArg argument = {};
    argument.phys_addr = address;
    argument.size = size;
    _AMBA_IPC_SVC_RESULT_s_ result = DIRTY;
    IpcGuiFetcher::ipcGuiBufReceiver(reinterpret_cast<const unsigned char*>(&argument), &result);
    EXPECT_TRUE(cleared(result));
}

TEST(IpcGuiFetcher, RegistersBothPrograms) {
    const auto fetcher = IpcGuiFetcher::getInstance();
    EXPECT_EQ(IpcGuiFetcher::getInstance(), fetcher);
    const std::vector<Registration> expected = {
        {0x70000004, 1, "svc_ipc_gui", 1, IpcGuiFetcher::ipcGuiBufReceiver, 0, 1},
        {0x70000005, 1, "svc_ipc_gui", 1, IpcGuiFetcher::ipcQrBodyReceiver, 0, 1}};
    EXPECT_EQ(registrations, expected);
}

TEST(IpcGuiFetcherDeathTest, TermUnregistersTheLastProgramAndExits) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const auto fetcher = IpcGuiFetcher::getInstance();
            raise(SIGTERM);
        },
        testing::ExitedWithCode(0), "^unregistered 1879048197 1\n$");
}

// The service maps an address when the core announces it for the first time. Every image must have
// the size of the latest mapping, whatever size the core announces.
TEST(IpcGuiFetcher, MapsEachAddressOnceAndHandsOverTheSizeMappedLast) {
    constexpr uint32_t LARGE = 2'457'600;
    constexpr uint32_t SMALL = 1'572'864;
    const int memory = open("/dev/mem", O_RDWR);
    const auto paint = [memory](off_t address, uint16_t value) {
        const std::vector<uint16_t> pixels(LARGE / 2, value);
        EXPECT_EQ(pwrite(memory, pixels.data(), LARGE, address), ssize_t{LARGE});
    };
    paint(0x10000000, 0x9001);
    paint(0x20000124, 0x9002);  // not page-aligned
    paint(0x30000000, 0x9003);
    close(memory);

    RawCompanion companion;
    const auto fetcher = IpcGuiFetcher::getInstance();
    const Socket link = companion.link(frame(ConnectRequest) + frame(ControlMessage), [] {
        push(0x10000000, LARGE);
        return false;
    });
    const Chatter chatter(link, frame(ControlMessage));
    const auto shows = [&](uint64_t address, uint32_t announced, uint16_t width, uint16_t pixel) {
        for (int i = 0; i < 1000; ++i) {
            push(address, announced);
            if (!link.readable(20ms)) continue;
            const Bytes payload = payload_of(link.read_frame());
            uint16_t words[4];
            std::memcpy(words, payload.data(), sizeof words);
            if (words[0] == width && words[3] == pixel) return true;
        }
        return false;
    };
    EXPECT_TRUE(shows(0x10000000, LARGE, 1280, 0x9001));
    EXPECT_TRUE(shows(0x20000124, SMALL, 1024, 0x9002));
    EXPECT_TRUE(shows(0x10000000, LARGE, 1024, 0x9001));  // the latest mapping is SMALL
    EXPECT_TRUE(shows(0x130000000, LARGE, 1280, 0x9003));
    EXPECT_TRUE(shows(0x10000000, SMALL, 1280, 0x9001));  // the latest mapping is LARGE
    // The service drops the upper 32 bits of an address when it maps memory. So it has already
    // mapped 0x30000000, but under the address 0x130000000. Now it must map 0x30000000 again.
    push(0x30000000, LARGE);
    EXPECT_THAT(mappings(), testing::UnorderedElementsAre(LARGE + 4096, SMALL + 4096, LARGE + 4096,
                                                          LARGE + 4096));
}

TEST(IpcGuiFetcherDeathTest, QrBodyOfAnotherLengthEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const char* const body : {"ABCD", "ABCDEF"}) {
        const auto receive = [body] {
            IpcGuiFetcher::ipcQrBodyReceiver(reinterpret_cast<const unsigned char*>(body), nullptr);
        };
        EXPECT_EXIT(std::thread(receive).join(), testing::KilledBySignal(SIGABRT),
                    "ID size must be 5 bytes");
    }
}

}  // namespace

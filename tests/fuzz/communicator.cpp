// Delivers bytes to the service's communicator, in pieces, from several connections. Each piece
// comes from a candidate or from the link.
#include <thread>

#include "protocol/veltrane_communicator.h"
#include "tests/fuzz/fuzz.h"

namespace guilink::fuzz {

constexpr unsigned char DELIVER_ALL = 1;
constexpr unsigned char ANOTHER_CALLER = 2;

std::vector<Bytes> seeds() {
    const Bytes keep_alive = frame(ControlMessage);
    const Bytes press = frame(ButtonMessage, {7});
    const auto middle = press.begin() + 20;
    return {
        piece(1, 0, frame(ConnectRequest) + keep_alive + press + frame(DataMessage, bytes("text"))),
        piece(0, 0, frame(IdentityRequest)) + piece(3, 2, press) + piece(1, 0, keep_alive),
        piece(1, 0, {press.begin(), middle}) + piece(3, 0, {middle, press.end()}),
        piece(1, 0, announcing(0xFFFFFFFF, press)) + piece(1, 0, press),
        piece(1, 0, announcing(1'048'534, press)) + piece(1, 255, Bytes(8000)) + piece(3, 0, press),
        piece(1, 255, Bytes(STARTING_SEQUENCE.begin(), STARTING_SEQUENCE.end())),
    };
}

}  // namespace guilink::fuzz

using namespace guilink::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    static VeltraneCommunicator& communicator = *new VeltraneCommunicator("11111", "fw1.1");
    // A thread is a connection. One lasts for the whole input; every other delivers one piece.
    Bytes main_stream;
    Bytes* stream = nullptr;  // bytes of the connection that is sending
    communicator.SetMessageHandler([&](uint16_t type, const Bytes& payload) {
        const Bytes said = frame(type, payload);
        require(memmem(stream->data(), stream->size(), said.data(), said.size()) != nullptr,
                "a message is part of its connection's stream");
    });
    const auto deliver = [&](unsigned char how, int times, const Bytes& chunk) {
        const auto close = [] {};
        const auto say = [&](Bytes& own) {
            stream = &own;
            for (int i = 0; i < times; ++i) {
                own.insert(own.end(), chunk.begin(), chunk.end());
                communicator.OnDataReceived(chunk.data(), chunk.size(), close, how & DELIVER_ALL);
            }
        };
        const auto other_caller = [&] {
            Bytes own;
            say(own);
        };
        how& ANOTHER_CALLER ? std::thread(other_caller).join() : say(main_stream);
    };
    std::thread([&] { for_each_piece(data, size, deliver); }).join();
    return 0;
}

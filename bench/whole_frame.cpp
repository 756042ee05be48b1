// Measures the processor time of all that the service does for a frame, sent over loopback, and of
// the same work with the reference encoder and the reference checksum.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <thread>

#include "bench/measures.h"
#include "protocol/image.h"
#include "reference/crc32.h"
#include "reference/encoder.h"
#include "wire/frame.h"

namespace guilink {

namespace {

using Words = std::vector<uint16_t>;

unsigned char* bytes_of(Words& words) {
    return reinterpret_cast<unsigned char*>(words.data());
}

void expect(bool success, const char* attempt) {
    if (!success) throw std::runtime_error(std::string("whole frame: cannot ") + attempt);
}

// A TCP connection over loopback. A thread reads all data at the receiving end.
class DrainedConnection {
  public:
    DrainedConnection() {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const name = reinterpret_cast<sockaddr*>(&address);
        expect(listener >= 0 && bind(listener, name, size) == 0 && listen(listener, 1) == 0,
               "listen");
        expect(getsockname(listener, name, &size) == 0, "find the port");
        const int buffer = 0x100000;  // bytes, as in the service
        setsockopt(m_sender, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
        expect(connect(m_sender, name, size) == 0, "connect");
        m_drain = std::thread([receiver = accept(listener, nullptr, nullptr)] {
            std::vector<char> bytes(0x100000);
            while (recv(receiver, bytes.data(), bytes.size(), 0) > 0) {
            }
            close(receiver);
        });
        close(listener);
    }
    ~DrainedConnection() {
        shutdown(m_sender, SHUT_WR);
        m_drain.join();
        close(m_sender);
    }
    DrainedConnection(const DrainedConnection&) = delete;
    DrainedConnection& operator=(const DrainedConnection&) = delete;

    void send(const unsigned char* bytes, uint64_t size) const {
        expect(::send(m_sender, bytes, size, 0) == static_cast<ssize_t>(size), "send");
    }

  private:
    const int m_sender = socket(AF_INET, SOCK_STREAM, 0);
    std::thread m_drain;
};

void with_service_code(benchmark::State& state, const BenchPicture& picture) {
    const DrainedConnection connection;
    Words front(picture.pixels.size());
    Words frame(HEADER_SIZE / 2 + 0x100000);
    for ([[maybe_unused]] auto round : state) {
        std::memcpy(front.data(), picture.pixels.data(), picture.size());
        const uint64_t length =
            EncodeImage(front.data(), picture.width, picture.height, frame, HEADER_SIZE / 2);
        connection.send(bytes_of(frame), FinishFrame(bytes_of(frame), ImageMessage, length));
    }
}

void with_reference_code(benchmark::State& state, const BenchPicture& picture) {
    const DrainedConnection connection;
    Words front(picture.pixels.size());
    Words words(0x100000);
    for ([[maybe_unused]] auto round : state) {
        std::memcpy(front.data(), picture.pixels.data(), picture.size());
        const uint64_t length =
            encode_literally(front.data(), picture.width, picture.height, words);
        std::vector<unsigned char> frame(HEADER_SIZE + length);
        const uint32_t checksum = crc32_literally(bytes_of(words), length);
        const uint16_t type = ImageMessage;
        std::memcpy(frame.data(), STARTING_SEQUENCE.data(), STARTING_SEQUENCE.size());
        std::memcpy(&frame[CHECKSUM_OFFSET], &checksum, sizeof checksum);
        std::memcpy(&frame[LENGTH_OFFSET], &length, sizeof(uint32_t));
        std::memcpy(&frame[TYPE_OFFSET], &type, sizeof type);
        std::memcpy(&frame[HEADER_SIZE], words.data(), length);
        connection.send(frame.data(), frame.size());
    }
}

}  // namespace

void measure_whole_frame(const std::vector<BenchPicture>& pictures) {
    for (const BenchPicture& picture : pictures) {
        if (picture.name != "menu" && picture.name != "overlay") continue;
        const std::string subject = "frame-" + picture.name + "-" + std::to_string(picture.width);
        benchmark::RegisterBenchmark((subject + "/service").c_str(),
                                     [&](auto& state) { with_service_code(state, picture); });
        benchmark::RegisterBenchmark((subject + "/literal").c_str(),
                                     [&](auto& state) { with_reference_code(state, picture); });
    }
}

}  // namespace guilink

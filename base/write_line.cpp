#include "base/write_line.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstring>

using namespace std::chrono_literals;

namespace {

constexpr int ROOM = 0x100000;     // bytes; requested capacity of a pipe
constexpr auto LINE_TIME = 100ms;  // how long the writes of one line may take together

// Has no destructor, because threads may still log while the process exits.
struct Stream {
    std::atomic<bool> is_socket{false};
    std::atomic<bool> is_cut{false};  // the latest line was cut off and has no line end
    std::atomic<unsigned> dropped{0};
};
std::array<Stream, STDERR_FILENO + 1> streams;

// Collects a line and writes it in pieces of up to PIPE_BUF bytes. A pipe accepts such a piece as a
// whole or not at all.
class Line {
  public:
    explicit Line(int stream)
        : m_descriptor(stream), m_stream(streams[static_cast<size_t>(stream)]) {
        m_dropped_before = m_stream.dropped.exchange(0);
        if (m_dropped_before == 0) return;
        m_ends_a_cut_line = m_stream.is_cut.exchange(false);
        if (m_ends_a_cut_line) append("\n");
        char number[16];
        const auto end = std::to_chars(std::begin(number), std::end(number), m_dropped_before).ptr;
        append({number, static_cast<size_t>(end - number)});
        append(m_dropped_before == 1 ? " line dropped\n" : " lines dropped\n");
    }

    void append(std::string_view text) {
        while (!text.empty()) {
            if (m_size == m_buffer.size()) flush();
            const size_t count = std::min(text.size(), m_buffer.size() - m_size);
            std::memcpy(&m_buffer[m_size], text.data(), count);
            m_size += count;
            text.remove_prefix(count);
        }
    }

    void flush() {
        if (!m_failed && !write()) {
            m_failed = true;
            if (m_begun || m_ends_a_cut_line) m_stream.is_cut = true;
            m_stream.dropped += 1 + (m_begun ? 0 : m_dropped_before);
        }
        m_size = 0;
    }

  private:
    bool write() {
        // Do not poll a socket before the first write, because poll may report a socket as full
        // although it still accepts data.
        if (m_begun || !m_stream.is_socket) {
            using std::chrono::ceil, std::chrono::milliseconds;
            const auto left = ceil<milliseconds>(m_end - Clock::now()).count();
            pollfd event = {m_descriptor, POLLOUT, 0};
            if (poll(&event, 1, m_begun ? std::max(0, static_cast<int>(left)) : 0) == 0)
                return false;
        }
        const ssize_t count = m_stream.is_socket
                                  ? ::send(m_descriptor, m_buffer.data(), m_size, MSG_DONTWAIT)
                                  : ::write(m_descriptor, m_buffer.data(), m_size);
        if (count < 0) return errno != EAGAIN;
        m_begun |= count != 0;  // a terminal may accept only a part of the data
        return static_cast<size_t>(count) == m_size;
    }

    using Clock = std::chrono::steady_clock;

    const int m_descriptor;
    Stream& m_stream;
    const Clock::time_point m_end = Clock::now() + LINE_TIME;
    unsigned m_dropped_before;  // number of dropped lines that this line reports
    bool m_ends_a_cut_line = false;
    std::array<char, PIPE_BUF> m_buffer;
    size_t m_size = 0;
    bool m_begun = false;  // a part of the line has been written
    bool m_failed = false;
};

}  // namespace

void unblock_standard_streams() {
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
        struct stat status = {};
        if (fstat(stream, &status) != 0) continue;
        streams[static_cast<size_t>(stream)].is_socket = S_ISSOCK(status.st_mode);
        if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) continue;
        // A large buffer can hold a burst of lines until the reader reads them.
        if (fcntl(stream, F_GETPIPE_SZ) < ROOM) fcntl(stream, F_SETPIPE_SZ, ROOM);
        // O_NONBLOCK would also affect other processes that share the open file description. So
        // open a new description, in the same mode: a FIFO that is also open for reading raises no
        // SIGPIPE when its reader goes.
        const char* const path = stream == STDOUT_FILENO ? "/proc/self/fd/1" : "/proc/self/fd/2";
        const int mode = fcntl(stream, F_GETFL) & O_ACCMODE;
        const int own = open(path, mode | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (own < 0) continue;  // keep the blocking stream; class Line calls poll before each write
        dup2(own, stream);
        close(own);
    }
}

void write_line(int stream, std::initializer_list<std::string_view> pieces) noexcept {
    Line line(stream);
    for (const std::string_view piece : pieces) line.append(piece);
    line.append("\n");
    line.flush();
}

// How the service logs: plain lines on its standard streams, written at once or not at all. Nobody
// ever waits for a reader: a line for which the stream has no room is dropped and counted, and the
// count precedes the next line that is written ("3 lines dropped").
#pragma once

#include <initializer_list>
#include <string_view>

// Gives standard output and standard error descriptions of their own that never block. Whoever else
// writes to the same terminal or pipe is not affected. Call it before there are threads.
void unblock_standard_streams();

// Writes the pieces and a line end to STDOUT_FILENO or STDERR_FILENO. A line of up to PIPE_BUF
// bytes (4096) is one write, so that lines of several threads never mix. A longer one takes
// several, and is cut if the reader needs more than 100 ms for it. Allocates nothing; other
// failures are ignored.
void write_line(int stream, std::initializer_list<std::string_view> pieces) noexcept;

inline void write_line(int stream, std::string_view text) noexcept {
    write_line(stream, {text});
}

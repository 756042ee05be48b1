// How the service logs: plain lines on its standard streams, written at once or not at all. A line
// for which the stream has no room is dropped and counted, so that a slow reader blocks no thread.
// The count precedes the next line that is written ("3 lines dropped").
#pragma once

#include <initializer_list>
#include <string_view>

// Gives standard output and standard error non-blocking file descriptions of their own, so that
// other processes on the same terminal or pipe are not affected. Call it before any thread starts.
void unblock_standard_streams();

// Writes the pieces and a line end to STDOUT_FILENO or STDERR_FILENO. A line of up to PIPE_BUF
// bytes (4096) is one write, so that lines of several threads never mix. A longer line needs
// several writes and is cut off if the reader needs more than 100 ms for it. Allocates nothing
// and ignores write errors.
void write_line(int stream, std::initializer_list<std::string_view> pieces) noexcept;

inline void write_line(int stream, std::string_view text) noexcept {
    write_line(stream, {text});
}

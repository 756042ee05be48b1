// How the service logs: plain lines on its standard streams, written without waiting or not at all.
// A line for which the stream has no room is dropped and counted, so that a slow reader blocks no
// thread. The next line that is written begins with the count ("3 lines dropped").
#pragma once

#include <initializer_list>
#include <string_view>

// Makes standard output and standard error non-blocking. Opens new file descriptions for this, so
// that other processes on the same terminal or pipe are not affected. Call this function before any
// thread starts.
void unblock_standard_streams();

// Writes the pieces and a line end to STDOUT_FILENO or STDERR_FILENO. A line of up to PIPE_BUF
// bytes (4096) is one write, so that lines of several threads never mix. A longer line needs
// several writes and is cut off if these do not succeed within 100 ms. Allocates nothing and
// ignores write errors.
void write_line(int stream, std::initializer_list<std::string_view> pieces) noexcept;

inline void write_line(int stream, std::string_view text) noexcept {
    write_line(stream, {text});
}

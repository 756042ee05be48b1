// Writes the service's log lines to its standard streams. If a stream has no room for a line, the
// line is dropped, so that a slow reader does not block the service. Before the next line, the
// number of dropped lines is written ("3 lines dropped").
#pragma once

#include <initializer_list>
#include <string_view>

// Makes standard output and standard error non-blocking, without an effect on other processes that
// use the same terminal or pipe. Call this function before any thread starts.
void unblock_standard_streams();

// Writes the pieces and a line end to `stream`, which is STDOUT_FILENO or STDERR_FILENO. Lines of
// up to PIPE_BUF bytes (4096) from several threads never mix. A longer line is cut off if it cannot
// be written within 100 ms. Allocates no memory and ignores write errors.
void write_line(int stream, std::initializer_list<std::string_view> pieces) noexcept;

inline void write_line(int stream, std::string_view text) noexcept {
    write_line(stream, {text});
}

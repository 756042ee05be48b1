// How the service speaks: plain lines on its standard streams.
#pragma once

#include <unistd.h>

#include <string>

// Writes text and a line end to a standard stream in one call, so that the lines of several threads
// never mix and nothing is left to be flushed when the process ends. A failure is ignored.
inline void write_line(int stream, std::string text) {
    text += '\n';
    [[maybe_unused]] const ssize_t ignored = ::write(stream, text.data(), text.size());
}

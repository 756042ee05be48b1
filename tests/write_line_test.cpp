// Tests write_line with a reader that pauses. recovery_test.cpp tests the whole service with such a
// reader.
#include "base/write_line.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

constexpr size_t MUCH = 4 << 20;  // bytes; more than any pipe or socket here holds

// Replaces standard error by `descriptor`. Makes the standard streams non-blocking, as the service
// does when it starts.

void become_standard_error(int descriptor) {
    dup2(descriptor, STDERR_FILENO);
    close(descriptor);
    unblock_standard_streams();
}

// Reads everything that was written so far.
std::string read_all(int reader) {
    fcntl(reader, F_SETFL, O_NONBLOCK);
    std::string text;
    char chunk[65536];
    ssize_t count;
    while ((count = read(reader, chunk, sizeof chunk)) > 0) {
        text.append(chunk, static_cast<size_t>(count));
    }
    return text;
}

// Under systemd, standard error is a socket to the journal.
TEST(WriteLine, DropsWholeLinesOnAFullSocket) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    become_standard_error(ends[1]);
    const std::string line(999, '-');
    constexpr size_t LINES = MUCH / 1000;
    for (size_t i = 0; i < LINES; ++i) write_line(STDERR_FILENO, line);
    const std::string written = read_all(ends[0]);
    EXPECT_GT(written.size(), 0u);
    EXPECT_EQ(written.size() % 1000, 0u);
    write_line(STDERR_FILENO, "next");
    EXPECT_EQ(read_all(ends[0]),
              std::to_string(LINES - written.size() / 1000) + " lines dropped\nnext\n");
}

TEST(WriteLine, EndsALineThatWasCut) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    become_standard_error(ends[1]);
    write_line(STDERR_FILENO, std::string(MUCH, '-'));
    write_line(STDERR_FILENO, "dropped");
    const std::string written = read_all(ends[0]);
    EXPECT_EQ(written, std::string(written.size(), '-'));
    write_line(STDERR_FILENO, "next");
    EXPECT_EQ(read_all(ends[0]), "\n2 lines dropped\nnext\n");
}

// Opened read-write, a FIFO always has a reader, so that no line raises SIGPIPE.
TEST(WriteLine, KeepsTheModeOfAFifo) {
    const std::string path = testing::TempDir() + "fifo";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    become_standard_error(open(path.c_str(), O_RDWR));
    unlink(path.c_str());
    close(reader);
    write_line(STDERR_FILENO, "nobody reads this");
}

}  // namespace

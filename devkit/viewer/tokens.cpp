#include "devkit/viewer/tokens.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace guilink {

namespace {

constexpr size_t MIN_LENGTH = 32;   // characters; 128 bits in hexadecimal digits
constexpr size_t MAX_LENGTH = 256;  // characters
constexpr size_t MAX_FILE = 4096;   // bytes

std::string random_token() {
    std::array<unsigned char, 16> bytes;
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error(std::string("cannot make a token: ") + std::strerror(errno));
    std::string token;
    for (const unsigned char byte : bytes) {
        token += "0123456789abcdef"[byte >> 4];
        token += "0123456789abcdef"[byte & 15];
    }
    return token;
}

// Returns the contents of a file that only its owner can read. root may let a group read its file.
std::string read_secret(const std::string& file) {
    const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    std::string content(MAX_FILE, '\0');
    ssize_t size = -1;
    if (descriptor >= 0 && fstat(descriptor, &status) == 0)
        size = read(descriptor, content.data(), content.size());
    const int error = errno;
    if (descriptor >= 0) close(descriptor);
    if (size < 0)
        throw std::runtime_error(std::string(std::strerror(error)) +
                                 "; to make it: (umask 077; openssl rand -hex 16 > " + file + ")");
    if ((status.st_mode & (status.st_uid == 0 ? S_IRWXO : S_IRWXO | S_IRWXG)) != 0)
        throw std::runtime_error("others can read it; forbid that: chmod go= " + file);
    content.resize(static_cast<size_t>(size));
    return content;
}

void check(const std::string& token) {
    constexpr const char* ALLOWED =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";
    if (token.size() < MIN_LENGTH || token.size() > MAX_LENGTH ||
        token.find_first_not_of(ALLOWED) != std::string::npos)
        throw std::runtime_error(
            "a token must be a line of 32 to 256 letters, digits, - and _; openssl rand -hex 16 "
            "makes one");
}

}  // namespace

Tokens make_tokens() {
    return {random_token(), random_token()};
}

Tokens read_tokens(const std::string& file) try {
    std::istringstream lines(read_secret(file));
    Tokens tokens;
    std::getline(lines, tokens.press);
    check(tokens.press);
    if (std::getline(lines, tokens.view)) check(tokens.view);
    if (tokens.press == tokens.view) throw std::runtime_error("both tokens are the same");
    if (std::string more; std::getline(lines, more))
        throw std::runtime_error("it has more than two lines");
    return tokens;
} catch (const std::exception& error) {
    throw std::runtime_error("cannot use the tokens in " + file + ": " + error.what());
}

}  // namespace guilink

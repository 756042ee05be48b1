#include "devkit/viewer/log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <utility>

#include "base/write_line.h"

namespace guilink {

namespace {

constexpr auto LIMITED_TIME = std::chrono::minutes(1);
constexpr size_t MAX_LINES = 32;  // about refused visitors, in LIMITED_TIME

// The journal adds the time itself. It names the stream that it reads in this variable.
bool read_by_journal() {
    const char* const journal = std::getenv("JOURNAL_STREAM");
    struct stat status = {};
    return journal != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           journal == std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino);
}

std::string name_of(const Client& client) {
    return client.address + (client.is_program ? " (program)" : " (page)");
}

}  // namespace

std::string printable(std::string text) {
    for (char& c : text) {
        if (c < ' ' || c > '~') c = '?';
    }
    return text;
}

std::string Refusals::line(const std::string& address, std::string_view why,
                           Clock::time_point now) {
    std::erase_if(m_lines, [&](const auto& entry) { return entry.second + LIMITED_TIME <= now; });
    const std::string line = "refused " + address + ": " + std::string(why);
    if (m_lines.size() >= MAX_LINES || !m_lines.emplace(line, now).second) {
        ++m_unlogged;
        return {};
    }
    const size_t unlogged = std::exchange(m_unlogged, 0);
    return unlogged == 0 ? line : line + "; not logged before: " + std::to_string(unlogged);
}

Log::Log() : m_adds_time(!read_by_journal()) {}

void Log::status(const LinkStatus& before, const LinkStatus& now) {
    const auto name = [](const LinkStatus& of) {
        return of.address + (of.identity.empty() ? "" : ", device " + of.identity);
    };
    if (before.linked && (!now.linked || now.address != before.address))
        write("link to " + name(before) + " ended");
    if (now.linked && (!before.linked || now.address != before.address))
        write("linked to " + now.address);
    // The device tells this later.
    if (now.linked && !now.identity.empty() && now.identity != before.identity)
        write("device " + now.identity + " at " + now.address + ", firmware " + now.firmware);
}

void Log::sent(const Order& order, const Client& by) {
    if (const auto* const press = std::get_if<Press>(&order))
        return write("button " + std::to_string(press->button) + " pressed by " + name_of(by));
    // Not the text itself: it may be private, and the device logs it.
    write("text of " + std::to_string(std::get<Text>(order).text.size()) + " bytes sent by " +
          name_of(by));
}

void Log::sent(const Choice& choice, const Client& by) {
    write("device " + choice.device + " chosen by " + name_of(by));
}

void Log::held(const std::string& device, uint32_t seconds, const Client& by) {
    write("device " + device +
          (seconds == 0 ? " released" : " held for " + std::to_string(seconds) + " s") + " by " +
          name_of(by));
}

void Log::refused(const std::string& address, std::string_view why) {
    const std::string line = m_refusals.line(address, why, Refusals::Clock::now());
    if (!line.empty()) write(line);
}

void Log::write(std::string_view line) const {
    char time[40] = "";
    if (m_adds_time) {
        const std::time_t now = std::time(nullptr);
        std::tm local = {};
        std::strftime(time, sizeof time, "%FT%T%z ", localtime_r(&now, &local));
    }
    write_line(STDERR_FILENO, {time, printable(std::string(line))});
}

}  // namespace guilink

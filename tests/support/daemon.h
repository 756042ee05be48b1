// Runs the service's binary, observes it from outside, and gets its exit status although it
// detaches.
#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "tests/support/raw_companion.h"

namespace guilink::test {

class Daemon {
  public:
    enum class Until { Detached, Started };

    // Starts the service, and returns when it has reached the state `until` or has ended.
    // GUILINK_SERVICE in the environment names another build of the service, such as an emulated
    // one. change_streams runs just before exec.
    explicit Daemon(
        Until until = Until::Started, const std::function<void()>& change_streams = [] {}) {
        prctl(PR_SET_CHILD_SUBREAPER, 1);  // makes the detached service our child again
        Pipe pipe = open_pipe();
        m_output_end = std::move(pipe.reader);
        const pid_t launcher = fork();
        if (launcher == 0) {
            dup2(pipe.writer.fd(), STDOUT_FILENO);
            dup2(pipe.writer.fd(), STDERR_FILENO);
            change_streams();
            const char* const other = std::getenv("GUILINK_SERVICE");
            const char* const service = other != nullptr ? other : GUILINKD;
            execl(service, service, nullptr);
            _exit(127);
        }
        pipe.writer.close();
        m_reader = std::thread([this] { collect(); });
        int status = -1;
        waitpid(launcher, &status, 0);
        if (status != 0) {
            m_reader.join();
            throw std::runtime_error("cannot start " GUILINKD);
        }
        m_pid = last_child();
        if (until == Until::Started) wait_until([this] { return started() || !alive(); });
    }

    ~Daemon() {
        if (!m_status) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        m_reader.join();
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    pid_t pid() const { return m_pid; }

    bool alive() {
        int status = 0;
        if (!m_status && waitpid(m_pid, &status, WNOHANG) == m_pid) m_status = status;
        return !m_status;
    }

    // Waits for the service's end; returns the status of waitpid.
    int status() {
        if (!wait_until([this] { return !alive(); })) throw std::runtime_error("does not end");
        return *m_status;
    }

    int terminate() {
        kill(m_pid, SIGTERM);
        return status();
    }

    // How much of each resource the service uses.
    struct Level {
        size_t threads;
        size_t descriptors;
        size_t memory;  // KiB of RssAnon
    };
    Level level() const {
        std::ifstream status(process() + "status");
        size_t memory = 0;
        for (std::string word; memory == 0 && status >> word;) {
            if (word == "RssAnon:") status >> memory;
        }
        return {entries("task"), entries("fd"), memory};
    }

    // Counts the threads whose names begin with `name`.
    size_t threads(std::string_view name) const {
        size_t count = 0;
        for (const auto& task : std::filesystem::directory_iterator(process() + "task")) {
            std::ifstream file(task.path() / "comm");
            std::string found;
            if (file >> found) count += found.starts_with(name);
        }
        return count;
    }

    // The service's output so far.
    std::string output() {
        const std::lock_guard lock(m_mutex);
        return m_output;
    }

    bool wait_for_output(const std::string& text) {
        return wait_until([&] { return output().find(text) != std::string::npos; });
    }

  private:
    void collect() {
        char chunk[4096];
        ssize_t count;
        while ((count = read(m_output_end.fd(), chunk, sizeof chunk)) > 0) {
            const std::lock_guard lock(m_mutex);
            m_output.append(chunk, static_cast<size_t>(count));
        }
    }

    std::string process() const { return "/proc/" + std::to_string(m_pid) + "/"; }

    size_t entries(const char* directory) const {
        const std::filesystem::directory_iterator all(process() + directory);
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }

    // When the service starts, it creates the idle thread last.
    bool started() const { return threads("idle") == 1; }

    // Returns the youngest child, which is the service. Older children may be zombies that
    // LeakSanitizer left behind when earlier services ended. Returns -1 if no child is listed,
    // because the service has ended; waitpid(-1) then gets its status.
    static pid_t last_child() {
        const std::string own = std::to_string(getpid());
        std::ifstream children("/proc/self/task/" + own + "/children");
        pid_t last = -1;
        for (pid_t child; children >> child;) last = child;
        return last;
    }

    Socket m_output_end;
    std::thread m_reader;
    pid_t m_pid = -1;
    std::optional<int> m_status;

    std::mutex m_mutex;
    std::string m_output;
};

}  // namespace guilink::test

// A network cable from the device to a host, with loss, delay and outages. tests/support/cable.cpp
// simulates it, and describes the settings.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "tests/support/socket.h"

namespace guilink::test {

class Cable {
  public:
    Cable() {
        Pipe commands = open_pipe();
        Pipe output = open_pipe();
        m_process = fork();
        if (m_process == 0) {
            dup2(commands.reader.fd(), STDIN_FILENO);
            dup2(output.writer.fd(), STDOUT_FILENO);
            execl(GUILINK_CABLE, GUILINK_CABLE, nullptr);
            _exit(127);
        }
        output.writer.close();
        char ready[16];
        if (::read(output.reader.fd(), ready, sizeof ready) <= 0)
            throw std::runtime_error("no cable");
        m_commands = std::move(commands.writer);
    }
    ~Cable() {
        m_commands.close();
        waitpid(m_process, nullptr, 0);
    }
    Cable(const Cable&) = delete;
    Cable& operator=(const Cable&) = delete;

    // Changes settings, such as "rate 2 delay 50".
    void set(const std::string& settings) const {
        const std::string line = settings + '\n';
        if (::write(m_commands.fd(), line.data(), line.size()) < 0)
            throw std::runtime_error("the cable has ended");
    }

    // Opens the network namespace of the host.
    int far_end() const {
        return open(("/proc/" + std::to_string(m_process) + "/ns/net").c_str(),
                    O_RDONLY | O_CLOEXEC);
    }

  private:
    pid_t m_process;
    Socket m_commands;
};

}  // namespace guilink::test

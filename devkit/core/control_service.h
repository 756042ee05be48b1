// The simulated device's control service: takes the button commands that the service sends, UDP
// datagrams to 127.0.0.1 port 3426 such as [{"msg_id":100,"param":"On"}].
#pragma once

#include <optional>
#include <string_view>

#include "devkit/core/buttons.h"
#include "net/net_socket.h"

namespace guilink {

class ControlService {
  public:
    // Throws std::runtime_error when the port cannot be had.
    ControlService();

    int descriptor() const { return m_socket.descriptor(); }  // readable when a command is there

    // The next button; none when no valid command is there. What is no command is told on standard
    // error. Never blocks.
    std::optional<Button> next();

  private:
    NetSocket<> m_socket;
};

// The button of a command, or none.
std::optional<Button> parse_command(std::string_view text);

}  // namespace guilink

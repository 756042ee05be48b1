// The simulated device's control service: receives guilinkd's button commands, UDP datagrams to
// 127.0.0.1 port 3426 such as [{"msg_id":100,"param":"On"}].
#pragma once

#include <optional>
#include <string_view>

#include "devkit/core/buttons.h"
#include "net/net_socket.h"

namespace guilink {

class ControlService {
  public:
    // Throws std::runtime_error when it cannot bind the port.
    ControlService();

    // Readable when a command has arrived.
    int descriptor() const { return m_socket.descriptor(); }

    // Returns the next button, or nothing when no valid command has arrived. Reports invalid
    // datagrams on standard error. Never blocks.
    std::optional<Button> next();

  private:
    NetSocket<> m_socket;
};

// Returns the button, or nothing when `text` is not a valid command.
std::optional<Button> parse_command(std::string_view text);

}  // namespace guilink

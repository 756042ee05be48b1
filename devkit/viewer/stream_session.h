// Serves one client of /stream.mjpg: sends the pictures as parts of one endless HTTP response. A
// slow client misses pictures.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <memory>

#include "devkit/viewer/connections.h"

namespace guilink {

class Hub;

// With `only_head`, sends only the response's headers.
void start_stream_session(std::shared_ptr<Hub> hub, boost::asio::ip::tcp::socket socket,
                          std::unique_ptr<Connections::Place> place, bool only_head);

}  // namespace guilink

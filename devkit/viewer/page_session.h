// The WebSocket session of one client, which is a page in a browser or a program. Sends the
// device's pictures and state to the client. Receives button presses, texts and choices of a device
// from the client (see page_message.h). A slow client misses pictures, and does not slow down other
// clients.
//
// A binary message to the client is the payload of an ImageMessage as the device sent it. A text
// message to the client is JSON. It is either the link's status (page_status), or the answer to a
// message with an "id": {"delivered": ID} or {"failed": ID, "why": TEXT}. A picture that follows
// {"delivered": ID} reached the viewer after the device had confirmed the press or text.
//
// A page, but no program, also learns what other clients send:
//   {"event": "press", "button": BUTTON, "address": ADDRESS, "from": "page" or "program"}
//   {"event": "text", "address": ADDRESS, "from": ...}
//   {"event": "device", "device": ID, "address": ADDRESS, "from": ...}: has chosen another device
// ADDRESS is the other client's. Everybody learns by the status who holds the device.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <memory>

#include "devkit/viewer/client.h"
#include "devkit/viewer/connections.h"

namespace guilink {

class Hub;

void start_page_session(std::shared_ptr<Hub> hub, boost::asio::ip::tcp::socket socket,
                        std::unique_ptr<Connections::Place> place,
                        const boost::beast::http::request<boost::beast::http::string_body>& request,
                        Client client);

}  // namespace guilink

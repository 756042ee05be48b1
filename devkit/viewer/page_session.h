// The WebSocket of a page or a program: sends the device's pictures and state, receives orders (see
// page_message.h). A slow page or program skips pictures and does not slow down others.
//
// A binary message is the payload of an ImageMessage as the device sent it. A text message is JSON:
// the link's status (page_status), or the answer to an order with an "id", {"delivered": ID} or
// {"failed": ID, "why": TEXT}. Pictures that follow {"delivered"} are newer than the order.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

namespace guilink {

class Hub;

void start_page_session(Hub& hub, boost::asio::ip::tcp::socket socket,
                        const boost::beast::http::request<boost::beast::http::string_body>& request,
                        bool program);

}  // namespace guilink

// The WebSocket of a page or a program: the device's pictures and state to it, orders from it. It
// gets the newest picture only, and slows down no other one.
//
// To it: a binary message is the payload of an ImageMessage as the device sent it; a text message
// is JSON: the link's status (page_status), or the answer to an order with an "id", {"delivered":
// ID} or {"failed": ID, "why": TEXT}. Pictures behind {"delivered"} are newer than the order. From
// it: see page_message.h.
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

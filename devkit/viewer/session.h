// What the sessions of the web server share.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/socket_base.hpp>
#include <chrono>
#include <string>

namespace guilink {

constexpr auto PATIENCE = std::chrono::seconds(10);  // time limit of a request, an answer or a pong

// Makes the socket's buffers in the kernel small. Images then wait in the session instead, where a
// newer image replaces an older one.
inline void keep_backlog_short(boost::asio::ip::tcp::socket& socket) {
    constexpr int SEND_BUFFER = 131072;  // bytes; holds two or three images of a menu
    constexpr int UNSENT_LOW = 16384;    // bytes
    boost::system::error_code ignored;
    socket.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
    socket.set_option(boost::asio::socket_base::send_buffer_size(SEND_BUFFER), ignored);
    setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &UNSENT_LOW,
               sizeof UNSENT_LOW);
}

// Returns the address of the other end, as an IPv4 address if it is one.
inline boost::asio::ip::address address_of(const boost::asio::ip::tcp::socket& socket) {
    boost::system::error_code error;
    auto address = socket.remote_endpoint(error).address();
    if (!address.is_v6() || !address.to_v6().is_v4_mapped()) return address;
    return boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, address.to_v6());
}

// Returns the part of an address that a sender cannot choose: an IPv6 host has 2^64 addresses.
inline std::string sender_of(const boost::asio::ip::address& address) {
    if (address.is_v4()) return address.to_string();
    auto bytes = address.to_v6().to_bytes();
    std::fill(bytes.begin() + 8, bytes.end(), 0);
    return boost::asio::ip::address_v6(bytes).to_string();
}

}  // namespace guilink

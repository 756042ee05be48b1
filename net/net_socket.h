// Owns one socket descriptor: the constructor creates the descriptor or throws, and the destructor
// closes it. For everything else, use the system's calls on the descriptor.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

// Template parameters: the system's socket functions, each preceded by its signature; the address
// type; the integer types of domain, type and protocol. The service uses only NetSocket<>.
template <typename CreateSignature = int(int, int, int), CreateSignature* Create = ::socket,
          typename CloseSignature = int(int), CloseSignature* Close = ::close,
          typename ConnectSignature = int(int, const sockaddr*, unsigned int),
          ConnectSignature* Connect = ::connect,
          typename ReceiveSignature = long(int, void*, unsigned long, int),
          ReceiveSignature* Receive = ::recv,
          typename SendSignature = long(int, const void*, unsigned long, int),
          SendSignature* Send = ::send, typename Address = sockaddr, typename Domain = int,
          typename Type = int, typename Protocol = int>
class NetSocket {
  public:
    // Throws std::runtime_error if the system cannot create a socket.
    NetSocket(Domain domain, Type type, Protocol protocol)
        : _descriptor(Create(domain, type, protocol)) {
        if (_descriptor == _invalid) throw std::runtime_error("NetSocket: couldn't create socket");
    }
    virtual ~NetSocket() { _close_function(_descriptor); }

    NetSocket(const NetSocket&) = delete;
    NetSocket& operator=(const NetSocket&) = delete;

    int descriptor() const { return _descriptor; }
    int invalid() const { return _invalid; }  // return value of a failed socket function

  private:
    int _descriptor;
    CloseSignature* _close_function = Close;
    int _invalid = -1;
};

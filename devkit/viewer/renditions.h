// Provides a device's newest picture as PNG, as JPEG, and as a small JPEG for a tile. Encodes each
// rendition on demand, at most once per picture, on separate threads. All callers share the encoded
// bytes.
#pragma once

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "devkit/viewer/received_image.h"

namespace guilink {

enum class Rendition { png, jpeg, tile };
constexpr size_t RENDITIONS = 3;

// Use this class only on the event loop's thread.
class Renditions : public std::enable_shared_from_this<Renditions> {
  public:
    using Bytes = std::shared_ptr<const std::string>;
    using Taken = std::function<void(const Bytes&, const ReceivedImage& image)>;

    // All devices share the encoder. Make a Renditions with std::make_shared.
    Renditions(boost::asio::io_context& loop, boost::asio::thread_pool& encoder)
        : m_loop(loop), m_encoder(encoder) {}

    // Sets the newest picture. A picture without payload means that there is no picture.
    void offer(const ReceivedImage& newest);

    // Calls `taken` once, possibly before `get` returns, with the rendition of a picture whose
    // number is above `after`. If the picture is damaged, `taken` gets a null pointer instead of
    // the bytes. Does not call `taken` if `owner` is destroyed first.
    void get(Rendition kind, uint64_t after, const std::weak_ptr<void>& owner, Taken taken);

  private:
    struct Waiter {
        uint64_t after;
        std::weak_ptr<void> owner;
        Taken taken;
    };
    struct Slot {
        ReceivedImage image;  // the picture from which `bytes` was encoded
        Bytes bytes;
        bool encoding = false;
        std::list<Waiter> waiters;
    };

    void serve(Rendition kind);
    void hand_out(Slot& slot);

    boost::asio::io_context& m_loop;
    boost::asio::thread_pool& m_encoder;
    ReceivedImage m_newest;
    std::array<Slot, RENDITIONS> m_slots;
};

}  // namespace guilink

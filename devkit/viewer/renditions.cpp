#include "devkit/viewer/renditions.h"

#include <utility>  // Boost.Asio 1.74 uses std::exchange without including it

#include <algorithm>
#include <boost/asio/post.hpp>
#include <stdexcept>

#include "devkit/viewer/picture_file.h"
#include "guilink/companion.h"

namespace guilink {

namespace {

constexpr unsigned TILE_SCALE = 4;  // a tile has this part of a picture's width and height

// Returns null for a damaged picture.
Renditions::Bytes encode(Rendition kind, const SharedImage& image) try {
    thread_local Picture picture;  // new memory for each picture would cost more than the decoding
    decode_image(*image, picture);
    return std::make_shared<const std::string>(kind == Rendition::png ? encode_png(picture)
                                               : kind == Rendition::jpeg
                                                   ? encode_jpeg(picture)
                                                   : encode_jpeg(shrunk(picture, TILE_SCALE)));
} catch (const std::runtime_error&) {
    return nullptr;
}

}  // namespace

void Renditions::offer(const ReceivedImage& newest) {
    m_newest = newest;
    for (size_t kind = 0; kind < RENDITIONS; ++kind) serve(static_cast<Rendition>(kind));
}

void Renditions::get(Rendition kind, uint64_t after, const std::weak_ptr<void>& owner,
                     Taken taken) {
    m_slots[static_cast<size_t>(kind)].waiters.push_back({after, owner, std::move(taken)});
    serve(kind);
}

void Renditions::serve(Rendition kind) {
    Slot& slot = m_slots[static_cast<size_t>(kind)];
    slot.waiters.remove_if([](const Waiter& waiter) { return waiter.owner.expired(); });
    const bool wanted = std::ranges::any_of(
        slot.waiters, [this](const Waiter& waiter) { return waiter.after < m_newest.number; });
    if (slot.encoding || !wanted || m_newest.data == nullptr) return;

    // A device that draws nothing new repeats its picture.
    if (slot.image.data != nullptr && *slot.image.data == *m_newest.data) {
        slot.image = m_newest;
        return hand_out(slot);
    }
    slot.encoding = true;
    boost::asio::post(m_encoder, [&loop = m_loop, weak = weak_from_this(), kind, image = m_newest] {
        auto bytes = encode(kind, image.data);
        boost::asio::post(loop, [weak, kind, image, bytes = std::move(bytes)] {
            const auto self = weak.lock();
            if (self == nullptr) return;
            Slot& encoded = self->m_slots[static_cast<size_t>(kind)];
            encoded.encoding = false;
            encoded.image = image;
            encoded.bytes = bytes;
            self->hand_out(encoded);
            self->serve(kind);
        });
    });
}

void Renditions::hand_out(Slot& slot) {
    std::list<Waiter> served;
    for (auto waiter = slot.waiters.begin(); waiter != slot.waiters.end();) {
        const auto next = std::next(waiter);
        if (waiter->after < slot.image.number) served.splice(served.end(), slot.waiters, waiter);
        waiter = next;
    }
    const Bytes bytes = slot.bytes;  // copies: `taken` may call get, which may replace these
    const ReceivedImage image = slot.image;
    for (const Waiter& waiter : served) {
        if (const auto owner = waiter.owner.lock()) waiter.taken(bytes, image);
    }
}

}  // namespace guilink

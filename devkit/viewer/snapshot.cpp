#include "devkit/viewer/snapshot.h"

#include <condition_variable>
#include <iomanip>
#include <iostream>
#include <stdexcept>

#include "base/mutex.h"
#include "devkit/viewer/picture_file.h"
#include "guilink/companion.h"

namespace guilink {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto SETTLE = std::chrono::seconds(1);  // time for the GUI to draw the effect of a press

// What the companion has received so far.
class Received {
  public:
    explicit Received(Clock::time_point deadline) : m_deadline(deadline) {}

    void status(const LinkStatus& status) {
        const Lock lock(m_mutex);
        if (status.linked) m_status = status;  // kept for print() after the link ends
        m_several = status.several;
        m_changed.notify_all();
    }

    void image(const SharedImage& image) {
        const Lock lock(m_mutex);
        m_newest = image;
        m_last_time = Clock::now();
        if (++m_images == 1) m_first_time = m_last_time;
        m_bytes += image->size();
        m_changed.notify_all();
    }

    void delivered(Delivery delivery) {
        const Lock lock(m_mutex);
        if (delivery == Delivery::confirmed) ++m_confirmed;
        m_lost |= delivery != Delivery::confirmed;
        m_changed.notify_all();
    }

    // Waits until an image and the device's identity have arrived.
    void wait_for_device() {
        Lock lock(m_mutex);
        if (!m_changed.wait_until(lock, m_deadline, [&]() REQUIRES(m_mutex) {
                return m_images > 0 && !m_status.identity.empty();
            })) {
            throw std::runtime_error(
                m_several ? "several devices are in sight; choose one with --device (see --list)"
                : m_status.identity.empty()
                    ? "no device has linked in time; is guilinkd running in this network?"
                    : "the device has sent no image in time; does its core draw (guilink-core)?");
        }
    }

    void wait_for_presses(size_t count) {
        Lock lock(m_mutex);
        m_changed.wait_until(lock, m_deadline,
                             [&]() REQUIRES(m_mutex) { return m_confirmed == count || m_lost; });
        if (m_confirmed < count)
            throw std::runtime_error("the device has not confirmed each press; is it still there?");
    }

    SharedImage wait_for_image(Clock::time_point since) {
        Lock lock(m_mutex);
        if (!m_changed.wait_until(lock, m_deadline,
                                  [&]() REQUIRES(m_mutex) { return m_last_time >= since; }))
            throw std::runtime_error("the device sends no more images; use a longer --timeout");
        return m_newest;
    }

    void print() {
        const Lock lock(m_mutex);
        const std::chrono::duration<double> time = m_last_time - m_first_time;
        const double rate = m_images > 1 ? static_cast<double>(m_images - 1) / time.count() : 0;
        std::cout << "device    " << m_status.address << '\n'
                  << "identity  " << m_status.identity << '\n'
                  << "firmware  " << m_status.firmware << '\n'
                  << std::fixed << std::setprecision(1) << "frames    " << rate << " a second\n"
                  << "size      " << m_bytes / m_images << " bytes a frame\n";
    }

  private:
    const Clock::time_point m_deadline;
    Mutex m_mutex;
    std::condition_variable_any m_changed;
    LinkStatus m_status GUARDED_BY(m_mutex);
    bool m_several GUARDED_BY(m_mutex) = false;
    SharedImage m_newest GUARDED_BY(m_mutex);
    uint64_t m_images GUARDED_BY(m_mutex) = 0;
    uint64_t m_bytes GUARDED_BY(m_mutex) = 0;
    size_t m_confirmed GUARDED_BY(m_mutex) = 0;  // presses
    bool m_lost GUARDED_BY(m_mutex) = false;     // a press was not confirmed
    Clock::time_point m_first_time GUARDED_BY(m_mutex);
    Clock::time_point m_last_time GUARDED_BY(m_mutex);
};

}  // namespace

void take_snapshot(const SnapshotOptions& options) {
    Received received(Clock::now() + options.timeout);
    Companion companion({.status = [&](const auto& status) { received.status(status); },
                         .image = [&](const auto& image) { received.image(image); }},
                        options.device);
    received.wait_for_device();
    for (const uint8_t button : options.presses) {
        if (!companion.press(button, [&](Delivery delivery) { received.delivered(delivery); }))
            throw std::runtime_error("too many presses are queued; use fewer --press");
    }
    received.wait_for_presses(options.presses.size());
    Picture picture;
    decode_image(*received.wait_for_image(Clock::now() + SETTLE), picture);
    write_png(options.file, picture);
    received.print();
    std::cout << "picture   " << options.file << ", " << picture.width << " x " << picture.height
              << '\n';
}

}  // namespace guilink

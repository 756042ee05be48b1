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

    void image(const SharedImage& payload) {
        const Lock lock(m_mutex);
        m_newest = payload;
        m_last_time = Clock::now();
        if (++m_images == 1) m_first_time = m_last_time;
        m_bytes += payload->size();
        m_changed.notify_all();
    }

    // Waits until `count` images and the device's identity have arrived. Returns the number of
    // images received so far.
    uint64_t wait_for_images(uint64_t count) {
        Lock lock(m_mutex);
        if (!m_changed.wait_until(lock, m_deadline, [&]() REQUIRES(m_mutex) {
                return m_images >= count && !m_status.identity.empty();
            })) {
            throw std::runtime_error(
                m_several ? "several devices are in sight; choose one with --device (see --list)"
                : m_status.identity.empty()
                    ? "no device has linked in time; is guilinkd running in this network?"
                : m_images == 0
                    ? "the device has sent no image in time; does its core draw (guilink-core)?"
                    : "the device has not sent enough images in time; use fewer --frames or a "
                      "longer --timeout");
        }
        return m_images;
    }

    SharedImage newest() {
        const Lock lock(m_mutex);
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
    Clock::time_point m_first_time GUARDED_BY(m_mutex);
    Clock::time_point m_last_time GUARDED_BY(m_mutex);
};

}  // namespace

void take_snapshot(const SnapshotOptions& options) {
    Received received(Clock::now() + options.timeout);
    Companion companion({[&](const LinkStatus& status) { received.status(status); },
                         [&](const SharedImage& payload) { received.image(payload); },
                         {}},
                        options.device);
    // As soon as an image and the identity have arrived, the companion sends presses without delay.
    const uint64_t images = received.wait_for_images(1);
    for (const uint8_t button : options.presses) {
        if (!companion.press(button))
            throw std::runtime_error("too many presses are queued; use fewer --press");
    }
    received.wait_for_images(images + options.frames);

    Picture picture;
    decode_image(*received.newest(), picture);
    write_png(options.file, picture);
    if (!options.raw_file.empty()) write_raw(options.raw_file, picture);
    received.print();
    std::cout << "picture   " << options.file << ", " << picture.width << " x " << picture.height
              << '\n';
}

}  // namespace guilink

// guilink-latency [SECONDS]: measures how long a frame takes from push_frame to the companion, and
// how long a button press takes from the companion to the device's control service, over loopback.
// The real service and the companion run in this process. Start guilink-latency only inside the
// sandbox. Each printed line has three fields, separated by tabs: the scene or "button", the name
// of a statistic, and its value.
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "bench/pictures.h"
#include "devkit/core/control_service.h"
#include "guilink/companion.h"
#include "link/com_lib_interface.h"
#include "wire/frame.h"

namespace {

using namespace guilink;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr auto LIMIT = 30s;                      // limit of each wait for a frame or the link
constexpr Milliseconds FRAME_TIME(1000.0 / 60);  // interval of 60 frames a second
constexpr int ROUNDS = 200;                      // limit of frames or presses per measurement
constexpr double SECONDS = 5;                    // default length of a measurement

// Thrown if a frame, the link or a button press does not arrive in time. A busy machine may be the
// cause, because the link ends if this process stalls for 2 s.
struct Missing : std::runtime_error {
    using std::runtime_error::runtime_error;
};
constexpr int TRY_AGAIN = 75;  // exit status after Missing

struct Arrival {
    Clock::time_point received;
    Clock::time_point decoded;
};

// Records when each image arrived. An image is identified by its stamp, the value of its first
// pixel (see Device::push).
class Watch {
  public:
    void take(const SharedImage& image) {
        const auto received = Clock::now();
        decode_image(*image, m_picture);
        const std::lock_guard lock(m_mutex);
        m_arrivals.try_emplace(m_picture.pixels.at(0), Arrival{received, Clock::now()});
        m_changed.notify_all();
    }
    Arrival wait(uint16_t stamp) {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, LIMIT, [&] { return m_arrivals.contains(stamp); })) {
            throw Missing("guilink-latency: a frame did not arrive within 30 s");
        }
        return m_arrivals.at(stamp);
    }
    std::map<uint16_t, Arrival> take_all() {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_arrivals, {});
    }

  private:
    Picture m_picture;  // used only by the companion's thread
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<uint16_t, Arrival> m_arrivals;
};

class Report {
  public:
    explicit Report(double seconds)
        : m_time(
              std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))) {
    }
    Clock::duration time() const { return m_time; }  // duration of each measurement
    void figure(const std::string& subject, const std::string& name, double value) const {
        std::cout << subject << '\t' << name << '\t' << value << '\n';
    }
    // Prints the median and the 99th percentile of `values` (milliseconds).
    void spread(const std::string& subject, const std::string& name,
                std::vector<double> values) const {
        if (values.empty()) return;
        std::ranges::sort(values);
        figure(subject, name + " median", values[values.size() / 2]);
        figure(subject, name + " p99", values[values.size() * 99 / 100]);
    }

  private:
    const Clock::duration m_time;
};

double since(Clock::time_point start, Clock::time_point end) {
    return Milliseconds(end - start).count();
}

// Pushes frames into the service, and sets the first pixel of each frame to a new stamp.
class Device {
  public:
    Device() : m_facade("11111", "fw1.1") {}

    uint16_t push(BenchPicture& picture) {
        picture.pixels[0] = m_stamp = static_cast<uint16_t>(0x8000 | (m_stamp + 1));
        const std::shared_ptr<unsigned char> bytes(
            std::shared_ptr<void>(), reinterpret_cast<unsigned char*>(picture.pixels.data()));
        m_facade.push_frame(bytes, picture.size());
        return m_stamp;
    }

  private:
    ComLibInterface m_facade;
    uint16_t m_stamp = 0;
};

void link_up(Device& device, Watch& watch, BenchPicture& picture) {
    const auto end = Clock::now() + LIMIT;
    while (watch.take_all().empty()) {
        if (Clock::now() > end) throw Missing("guilink-latency: no link within 30 s");
        device.push(picture);
        std::this_thread::sleep_for(10ms);
    }
    // Wait for one more frame, so that no earlier frame arrives during a measurement.
    watch.wait(device.push(picture));
}

void one_by_one(Device& device, Watch& watch, BenchPicture& picture, const Report& report) {
    std::vector<double> received;
    std::vector<double> decoded;
    const auto end = Clock::now() + report.time();
    for (int i = 0; i == 0 || (i < ROUNDS && Clock::now() < end); ++i) {
        const auto start = Clock::now();
        const Arrival arrival = watch.wait(device.push(picture));
        received.push_back(since(start, arrival.received));
        decoded.push_back(since(start, arrival.decoded));
        std::this_thread::sleep_for(2ms);
        watch.take_all();
    }
    report.spread(picture.name, "received", received);
    report.spread(picture.name, "decoded", decoded);
}

// Pushes frames at the full frame rate. Measures the age of each frame when the companion receives
// it, and its age when the next frame replaces it.
void flooded(Device& device, Watch& watch, BenchPicture& picture, const Report& report) {
    std::map<uint16_t, Clock::time_point> pushed;
    const auto start = Clock::now();
    uint16_t last = 0;
    for (auto next = start; next <= start + report.time();
         next += std::chrono::duration_cast<Clock::duration>(FRAME_TIME)) {
        std::this_thread::sleep_until(next);
        const auto now = Clock::now();
        pushed[last = device.push(picture)] = now;
    }
    watch.wait(last);
    std::vector<double> young;
    std::vector<double> old;
    Clock::time_point shown;
    for (const auto& [stamp, arrival] : watch.take_all()) {
        if (!pushed.contains(stamp)) continue;
        if (!young.empty()) old.push_back(since(shown, arrival.received));
        shown = pushed[stamp];
        young.push_back(since(shown, arrival.received));
    }
    report.spread(picture.name, "age when shown", young);
    report.spread(picture.name, "age when replaced", old);
    report.figure(picture.name, "frames a second",
                  static_cast<double>(young.size()) * 1000 / since(start, Clock::now()));
}

void buttons(Companion& companion, ControlService& control, const Report& report) {
    std::vector<double> times;
    const auto end = Clock::now() + report.time();
    for (int i = 0; i == 0 || (i < ROUNDS && Clock::now() < end); ++i) {
        const auto start = Clock::now();
        companion.press(static_cast<uint8_t>(i % 16));
        pollfd event = {control.descriptor(), POLLIN, 0};
        if (poll(&event, 1, 10'000) != 1)
            throw Missing("guilink-latency: a button did not arrive within 10 s");
        times.push_back(since(start, Clock::now()));
        control.next();
        std::this_thread::sleep_for(2ms);
    }
    report.spread("button", "sent on", times);
}

// Returns a picture with as many runs of one pixel as fit into a message (1 MiB).
BenchPicture largest(BenchPicture blank) {
    constexpr size_t RUNS =
        (MAX_SIZE - HEADER_SIZE) / 4 - 32;  // leaves room for the runs of the other, blank pixels
    for (size_t i = 0; i < RUNS; ++i) blank.pixels[i] = i % 2 == 0 ? 0xF123 : 0xFABC;
    blank.name = "largest";
    return blank;
}

int run(int argc, char** argv) {
    const Report report(argc > 1 ? std::stod(argv[1]) : SECONDS);

    ControlService control;
    Watch watch;
    Companion companion({.image = [&](const SharedImage& image) { watch.take(image); }});
    Device device;
    std::vector<BenchPicture> pictures = draw_pictures(1280, 960);
    // Noise, the last picture, is too large for a message. Replace it with the largest picture that
    // fits.
    pictures.back() = largest(pictures.front());
    link_up(device, watch, pictures.front());
    for (BenchPicture& picture : pictures) {
        one_by_one(device, watch, picture, report);
        flooded(device, watch, picture, report);
    }
    buttons(companion, control, report);
    return 0;
}

}  // namespace

int main(int argc, char** argv) try { return run(argc, argv); } catch (const Missing& missing) {
    std::cerr << missing.what() << '\n';
    return TRY_AGAIN;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}

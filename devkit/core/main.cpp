// guilink-core simulates the device's real-time core: draws a GUI into physical memory,
// announces each frame to guilinkd, and carries out the button commands that guilinkd sends.
#include <poll.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>

#include "devkit/ambaipc/caller.h"
#include "devkit/core/control_service.h"
#include "devkit/core/faults.h"
#include "devkit/core/frame_memory.h"
#include "devkit/core/scenes.h"
#include "ipc/core_calls.h"
#include "link/read_frame.h"

namespace {

using namespace guilink;
using Clock = std::chrono::steady_clock;

constexpr auto SERVICE_RETRY = std::chrono::seconds(1);  // pause after a failed call
constexpr int LATE = 300;                                // ms; delay of a frame with Fault::late

volatile std::sig_atomic_t stopped = 0;

// Screen sizes by name. The value is true for the large size.
const std::map<std::string, bool> SIZES = {{"1280x960", true}, {"1024x768", false}};
const std::map<std::string, Scene> SCENES = {{"menu", Scene::menu},
                                             {"overlay", Scene::overlay},
                                             {"gradient", Scene::gradient},
                                             {"noise", Scene::noise},
                                             {"sweep", Scene::sweep}};

struct Options {
    bool large = true;
    double fps = 60;
    uint64_t frames = 0;  // exit after this many frames; 0: no limit
    Scene scene = Scene::menu;
    bool still = false;
    Fault fault = Fault::none;
    std::string qr_body;
    std::string dump;
    std::optional<Region> memory;
};

// The canvas and the frame buffers of one screen size.
struct Screen {
    Screen(bool is_large, const std::optional<Region>& region)
        : large(is_large),
          canvas(is_large ? 1280 : 1024, is_large ? 960 : 768),
          memory(uint32_t{canvas.width()} * canvas.height() * 2, region) {}
    const bool large;
    Canvas canvas;
    const FrameMemory memory;
};

std::string wall_clock() {
    const std::time_t now = std::time(nullptr);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", std::localtime(&now));
    return text;
}

// Calls guilinkd. Prints a line when calls start to fail, and when they succeed again.
class Service {
  public:
    void announce(uint64_t address, uint32_t size) {
        const GuiBufferArg frame = {address, size};
        call(m_gui, {reinterpret_cast<const unsigned char*>(&frame), 12});
    }

    // Retries until guilinkd accepts the text.
    void send_qr_body(const std::string& text) {
        const auto* const begin = reinterpret_cast<const unsigned char*>(text.c_str());
        while (!call(m_qr, {begin, text.size() + 1}) && !stopped) {
            poll(nullptr, 0, 100);
        }
    }

  private:
    bool call(AmbaipcCaller& caller, std::span<const unsigned char> argument) {
        if (m_away_since && Clock::now() < *m_away_since + SERVICE_RETRY) return false;
        try {
            _AMBA_IPC_SVC_RESULT_s_ record = {};
            caller.call(0, argument, record);
            if (m_away_since) std::cerr << "guilink-core: guilinkd accepts frames again\n";
            m_away_since.reset();
            return true;
        } catch (const std::runtime_error& error) {
            if (stopped) return false;
            if (!m_away_since) std::cerr << "guilink-core: " << error.what() << " (retrying)\n";
            m_away_since = Clock::now();
            return false;
        }
    }

    AmbaipcCaller m_gui{IPC_PROG_GUI_BUF, IPC_SVC_VERSION};
    AmbaipcCaller m_qr{IPC_PROG_QR_BODY, IPC_SVC_VERSION};
    std::optional<Clock::time_point> m_away_since;
};

// Handles button commands until the next frame is due. Returns whether a button was pressed.
bool take_buttons_until(Clock::time_point due, ControlService& control, Gui& gui, bool& large,
                        Fault fault) {
    bool pressed = false;
    while (!stopped) {
        while (const auto button = control.next()) {
            pressed = true;
            if (fault == Fault::ignore && *button == Button::down) continue;
            gui.press(*button);
            if (*button == Button::size) large = !large;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
        if (left.count() <= 0) break;
        pollfd event = {control.descriptor(), POLLIN, 0};
        poll(&event, 1, static_cast<int>(left.count()));
    }
    return pressed;
}

void write_dump(const std::string& file, std::span<const uint16_t> pixels) {
    std::vector<char> bytes(pixels.size_bytes());
    // Not straight from the memory, which may be device memory.
    ReadFrame(reinterpret_cast<unsigned char*>(bytes.data()),
              reinterpret_cast<const unsigned char*>(pixels.data()), bytes.size());
    std::ofstream stream(file, std::ios::binary);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!stream.flush()) throw std::runtime_error("cannot write " + file);
}

void run(const Options& options) {
    ControlService control;
    Service service;
    Gui gui(options.qr_body.empty() ? "11111" : options.qr_body);
    bool large = options.large;
    auto screen = std::make_unique<Screen>(large, options.memory);
    if (!options.qr_body.empty()) service.send_qr_body(options.qr_body);

    const std::chrono::duration<double> interval(1 / options.fps);
    const auto start = Clock::now();
    auto due = start;
    std::span<uint16_t> pixels;
    // Whether a button was pressed since the previous frame. With Fault::lost, it stays true.
    bool pressed = false;
    for (uint64_t frame = 1; !stopped; ++frame) {
        if (screen->large != large) {
            screen.reset();
            screen = std::make_unique<Screen>(large, options.memory);
        }
        Moment moment = {frame, std::chrono::duration<double>(due - start).count(), wall_clock()};
        if (options.still) moment = {0, 0, "12:34:56"};
        const size_t buffer = frame % FrameMemory::BUFFERS;
        pixels = screen->memory.pixels(buffer);
        draw_scene(options.scene, gui, screen->canvas, moment, pixels);
        spoil(options.fault, pixels, screen->canvas.width());
        if (pressed && options.fault == Fault::late) poll(nullptr, 0, LATE);
        if (!pressed || options.fault != Fault::lost)
            service.announce(screen->memory.address(buffer), screen->memory.size());
        if (frame == options.frames) break;

        due += std::chrono::duration_cast<Clock::duration>(interval);
        due = std::max(due, Clock::now());  // if late, skip frames instead of catching up
        if (take_buttons_until(due, control, gui, large, options.fault))
            pressed = true;
        else if (options.fault != Fault::lost)
            pressed = false;
    }
    if (!options.dump.empty()) write_dump(options.dump, pixels);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app(
        "Simulates a device's real-time core: draws a GUI into physical memory, announces its\n"
        "frames to guilinkd and obeys the buttons. Run it in scripts/sandbox, or on a board.");
    Options options;
    app.add_option_function<std::string>(
           "--size", [&](const std::string& name) { options.large = SIZES.at(name); },
           "Screen size")
        ->check(CLI::IsMember(SIZES))
        ->default_str("1280x960");
    app.add_option("--fps", options.fps, "Frames a second")
        ->check(CLI::Range(0.1, 1000.0))
        ->capture_default_str();
    app.add_option("--frames", options.frames, "Exit after this many frames");
    app.add_option_function<std::string>(
           "--scene", [&](const std::string& name) { options.scene = SCENES.at(name); },
           "What to draw")
        ->check(CLI::IsMember(SCENES))
        ->default_str("menu");
    app.add_flag("--still", options.still, "Stop all motion; only buttons change the picture");
    app.add_option_function<std::string>(
           "--fault", [&](const std::string& name) { options.fault = FAULTS.at(name); },
           "Misbehave in this way, for tests to find")
        ->check(CLI::IsMember(FAULTS));
    app.add_option("--qr-body", options.qr_body, "Send guilinkd this identity first (5 characters)")
        ->check([](const std::string& text) {
            return std::string(text.size() == 5 ? ""
                                                : "guilinkd aborts unless it has 5 characters");
        });
    app.add_option("--dump", options.dump, "On exit, write the last frame's pixels to this file");
    app.add_option_function<std::string>(
           "--memory", [&](const std::string& text) { options.memory = parse_region(text); },
           "Draw into this region of physical memory, ADDRESS:SIZE, which Linux must not use")
        ->check([](const std::string& text) {
            return std::string(parse_region(text) ? ""
                                                  : "not ADDRESS:SIZE below 4 GiB, as in "
                                                    "0x30000000:0x4000000");
        });
    CLI11_PARSE(app, argc, argv);

    struct sigaction action = {};
    action.sa_handler = [](int) { stopped = 1; };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    try {
        run(options);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "guilink-core: " << error.what() << '\n';
        return 1;
    }
}

#include "devkit/viewer/options.h"

#include <CLI/CLI.hpp>
#include <array>

namespace guilink {

namespace {

// Returns what is wrong with a host name, or nothing.
std::string is_no_host_name(const std::string& name) {
    constexpr const char* ALLOWED =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-._";
    if (!name.empty() && name.find_first_not_of(ALLOWED) == std::string::npos) return {};
    return "it must be a name or IPv4 address, without http:// and without a port";
}

}  // namespace

std::optional<int> parse_options(int argc, const char* const* argv, Options& options) {
    CLI::App app(
        "Shows the GUI of a device in this network and presses its buttons: on a page for\n"
        "browsers or, with --snapshot, in one picture.");
    ServeOptions& page = options.page;
    auto* const listen =
        app.add_option("--listen", page.listen, "Serve the page on this ADDRESS:PORT")
            ->capture_default_str();
    auto* const labels =
        app.add_option("--labels", page.labels_file, "JSON file with the names of the buttons");
    auto* const command =
        app.add_option("--exec", page.command,
                       "Only open the page's socket, then run this command; the viewer that it "
                       "starts serves the page")
            ->expected(1, -1)
            ->excludes(labels);

    const auto for_page = [&](auto* option) { return option->excludes(command)->group("Access"); };
    auto* const token_file = for_page(app.add_option(
        "--token-file", page.token_file,
        "Read the tokens of visitors from this file: a line for pressing, one for looking"));
    auto* const no_token = for_page(
        app.add_flag("--no-token", page.no_token, "Let everybody press who can reach the address")
            ->excludes(token_file));
    auto* const hosts =
        for_page(app.add_option("--allow-host", page.hosts,
                                "Name of this host or of a proxy in front of it (repeatable)")
                     ->check(CLI::Validator(is_no_host_name, "NAME"))
                     ->allow_extra_args(false));
    const std::array access = {token_file, no_token, hosts};

    auto* const device =
        app.add_option("--device", page.devices.named,
                       "Serve only the device with this identity or address (repeatable)")
            ->excludes(command)
            ->allow_extra_args(false);
    std::string link = "asked";
    auto* const link_option =
        app.add_option("--link", link,
                       "Link to the devices that a visitor has asked for, or to all in sight")
            ->check(CLI::IsMember({"asked", "all"}))
            ->excludes(command)
            ->capture_default_str();

    SnapshotOptions& snapshot = options.snapshot;
    auto* const file =
        app.add_option("--snapshot", snapshot.file, "Write one picture to this PNG file and exit")
            ->excludes(listen)
            ->excludes(labels)
            ->excludes(link_option)
            ->excludes(command);
    auto* const list = app.add_flag("--list", options.list,
                                    "List the devices that search for a companion and exit")
                           ->excludes(listen)
                           ->excludes(labels)
                           ->excludes(command)
                           ->excludes(device)
                           ->excludes(link_option)
                           ->excludes(file);
    for (auto* const option : access) option->excludes(file)->excludes(list);
    app.add_option("--press", snapshot.presses,
                   "Press this button first (a device knows 0 to 15; repeatable)")
        ->needs(file)
        ->allow_extra_args(false);
    unsigned timeout = static_cast<unsigned>(snapshot.timeout.count());
    app.add_option("--timeout", timeout, "Seconds after which to give up")
        ->needs(file)
        ->capture_default_str();
    try {
        app.parse(argc, argv);
        if (!snapshot.file.empty() && page.devices.named.size() > 1)
            throw CLI::ValidationError("--snapshot takes one --device");
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }
    snapshot.timeout = std::chrono::seconds(timeout);
    page.devices.link_all = link == "all";
    if (!page.devices.named.empty()) snapshot.device = page.devices.named[0];
    return std::nullopt;
}

}  // namespace guilink

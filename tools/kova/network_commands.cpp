#include "network_commands.h"

#include "report.h"

#include <net/if.h>

namespace {

/// A name that the kernel could not have given.
std::string CheckInterface(const std::string& name) {
    if (!name.empty() && name.size() < IFNAMSIZ) return {};
    return "'" + name + "' is no name of an interface";
}

CLI::Option* AddInterface(CLI::App& app, const char* option, std::string& name, const char* help) {
    return app.add_option(option, name, help)->check(CheckInterface);
}

void AddPing(CLI::App& app, PingOptions& options, Command& command) {
    CLI::App& ping = *app.add_subcommand("ping", "Ask hosts for echoes and measure the times");
    ping.add_option("HOST", options.hosts, "Names or numeric IPv4 addresses")->required();
    AddNumber(ping, "--count", options.count, "N", "Requests to each host (0: go on)");
    AddNumber(ping, "--timeout", options.timeout_ms, "MS", "Limit of each wait for replies in milliseconds")
        ->check(CLI::PositiveNumber);
    AddNumber(ping, "--interval", options.interval_ms, "MS",
              "From one round of requests to the next in milliseconds, or longer: until all is answered")
        ->check(CLI::NonNegativeNumber);
    AddInterface(ping, "--interface", options.interface,
                 "Send through this interface whatever the routes say")
        ->type_name("IF");
    ping.add_flag("--raw", options.raw, "Hear the replies as Ethernet frames");
    ping.add_flag("--verbose", options.verbose,
                  "Tell where a reply arrived: Ping() counts those inside the control network only");
    ping.footer(std::string("Needs CAP_NET_RAW. Exit code 0: each host answered at least once.\n\n") +
                kExitCodes);
    ping.callback([&] { command = [&] { return Ping(options); }; });
}

CLI::App& AddSwitch(CLI::App& interfaces, const char* name, const char* help, std::string& interface) {
    CLI::App& app = *interfaces.add_subcommand(name, help);
    AddInterface(app, "IF", interface, "Name of the interface")->required();
    app.footer(std::string("Needs CAP_NET_ADMIN. Other interfaces are not touched.\n\n") + kExitCodes);
    return app;
}

void AddInterfaces(CLI::App& app, NetworkOptions& options, Command& command) {
    CLI::App& interfaces =
        *app.add_subcommand("interfaces", "List the IPv4 interfaces as the library knows them, change them");
    auto* json = interfaces.add_flag("--json", options.list.json, "Print a JSON array of objects");
    interfaces.footer(
        std::string(
            "In a service with CAP_NET_ADMIN the library's table takes the addresses of interfaces\n"
            "that it finds down. This command lists without that privilege: nothing is changed.\n\n") +
        kExitCodes);
    interfaces.callback([&, json] {
        if (interfaces.get_subcommands().empty()) {
            command = [&] { return InterfaceList(options.list); };
        } else if (json->count() > 0) {
            throw UsageError("--json is for the listing only");
        }
    });

    std::string& name = options.interface_to_switch;
    AddSwitch(interfaces, "up", "Write the address of an interface anew and take it up", name).callback([&] {
        command = [&] { return InterfaceUp(name); };
    });
    AddSwitch(interfaces, "down", "Take the address of an interface away and take it down", name)
        .callback([&] { command = [&] { return InterfaceDown(name); }; });

    CLI::App& set = AddSwitch(interfaces, "set", "Change the addresses of an interface", options.set.name);
    AddText(set, "--address", options.set.address, "A.B.C.D", "IPv4 address");
    AddText(set, "--netmask", options.set.netmask, "A.B.C.D", "Netmask of the address");
    AddText(set, "--mac", options.set.mac, "MAC", "Hardware address; some devices must be down for it");
    set.callback([&] { command = [&] { return InterfaceSet(options.set); }; });
}

void AddCapture(CLI::App& app, CaptureOptions& options, Command& command) {
    CLI::App& capture =
        *app.add_subcommand("capture", "Print a line for each Ethernet frame, until SIGINT or SIGTERM");
    AddInterface(capture, "--interface", options.interface, "Only frames of this interface (default: all)")
        ->type_name("IF");
    AddNumber(capture, "--count", options.count, "N", "End after N frames (0: go on)");
    AddNumber(capture, "--timeout", options.timeout_ms, "MS",
              "Limit of the wait for each frame in milliseconds (0: none)")
        ->check(CLI::NonNegativeNumber);
    capture.add_flag("--json", options.json, "Print a JSON object for each frame");
    capture.footer(std::string("Needs CAP_NET_RAW.\n\n") + kExitCodes);
    capture.callback([&] { command = [&] { return Capture(options); }; });
}

}  // namespace

void AddNetworkCommands(CLI::App& app, NetworkOptions& options, Command& command) {
    AddPing(app, options.ping, command);
    AddInterfaces(app, options, command);
    AddCapture(app, options.capture, command);
}

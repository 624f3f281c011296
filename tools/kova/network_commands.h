/// The commands for the network of a machine: ping, interfaces, capture.
#ifndef KOVA_TOOLS_NETWORK_COMMANDS_H
#define KOVA_TOOLS_NETWORK_COMMANDS_H

#include "capture.h"
#include "command_line.h"
#include "interfaces.h"
#include "ping.h"

#include <string>

struct NetworkOptions {
    PingOptions ping;
    InterfaceListOptions list;
    std::string interface_to_switch;
    InterfaceSetOptions set;
    CaptureOptions capture;
};

/// `options` are filled when the command line is read; `command` refers to them.
void AddNetworkCommands(CLI::App& app, NetworkOptions& options, Command& command);

#endif

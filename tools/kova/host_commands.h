/// The commands for what the processes of one machine share: ipc, event, queue, watch.
#ifndef KOVA_TOOLS_HOST_COMMANDS_H
#define KOVA_TOOLS_HOST_COMMANDS_H

#include "command_line.h"
#include "event.h"
#include "ipc_clean.h"
#include "ipc_list.h"
#include "queue.h"
#include "watch.h"

#include <string>

struct HostOptions {
    IpcListOptions list;
    IpcCleanOptions clean;
    std::string event_to_post;
    EventWaitOptions event;
    QueueSendOptions send;
    QueueReceiveOptions receive;
    WatchOptions watch;
};

/// `options` are filled when the command line is read; `command` refers to them.
void AddHostCommands(CLI::App& app, HostOptions& options, Command& command);

#endif

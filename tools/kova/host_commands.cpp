#include "host_commands.h"

namespace {

/// A name that the library could make nothing of.
std::string CheckName(const std::string& name) { return name.empty() ? "a name is not empty" : ""; }

CLI::Option* AddName(CLI::App& app, std::string& name, const char* help) {
    return app.add_option("NAME", name, help)->required()->check(CheckName);
}

void AddIpc(CLI::App& app, HostOptions& options, Command& command) {
    CLI::App& ipc = *app.add_subcommand("ipc", "Look after mutexes, semaphores and queues with names");
    ipc.require_subcommand(1);

    CLI::App& list = *ipc.add_subcommand("list", "Print all of them with who uses them");
    list.add_flag("--json", options.list.json, "Print a JSON array of objects");
    list.footer(kExitCodes);
    list.callback([&] { command = [&] { return IpcList(options.list); }; });

    CLI::App& clean = *ipc.add_subcommand("clean", "Remove those that no living process holds");
    clean.add_option("NAME", options.clean.names, "Only those of these names (default: all)")
        ->check(CheckName);
    clean.add_flag("--dry-run", options.clean.dry_run, "Only tell what would be removed");
    clean.add_flag("--persistent", options.clean.persistent, "Remove persistent ones, too");
    clean.footer(kExitCodes);
    clean.callback([&] { command = [&] { return IpcClean(options.clean); }; });
}

void AddEvent(CLI::App& app, HostOptions& options, Command& command) {
    CLI::App& event = *app.add_subcommand("event", "Post named events and wait for them");
    event.require_subcommand(1);

    CLI::App& post = *event.add_subcommand("post", "Post an event");
    AddName(post, options.event_to_post, "Name of the event, of which 31 characters count");
    post.footer(kExitCodes);
    post.callback([&] { command = [&] { return EventPost(options.event_to_post); }; });

    CLI::App& wait = *event.add_subcommand("wait", "Wait for an event and print its arrival");
    AddName(wait, options.event.name, "Name of the event, of which 31 characters count");
    wait.add_flag("--pattern", options.event.pattern, "NAME is a wildcard pattern: 'job*'");
    AddNumber(wait, "--timeout", options.event.timeout_ms, "MS",
              "Limit of the wait for each event in milliseconds (0: none)")
        ->check(CLI::NonNegativeNumber);
    AddNumber(wait, "--count", options.event.count, "N", "End after N events (0: go on)");
    wait.footer(kExitCodes);
    wait.callback([&] { command = [&] { return EventWait(options.event); }; });
}

void AddQueue(CLI::App& app, HostOptions& options, Command& command) {
    CLI::App& queue = *app.add_subcommand("queue", "Send to message queues and receive from them");
    queue.require_subcommand(1);

    CLI::App& send = *queue.add_subcommand(
        "send", "Send one message. Makes the queue if there is none, and never removes it");
    AddName(send, options.send.name, "Name of the queue");
    auto* text =
        send.add_option("TEXT", options.send.text, "The message; - is standard input, as is no operand");
    send.add_option("--file", options.send.file, "Send the content of FILE")
        ->type_name("FILE")
        ->excludes(text);
    AddNumber(send, "--type", options.send.type, "N", "Type of the message")->check(CLI::PositiveNumber);
    AddNumber(send, "--timeout", options.send.timeout_ms, "MS",
              "Limit of the wait while the queue is full in milliseconds (0: none)")
        ->check(CLI::NonNegativeNumber);
    send.footer(kExitCodes);
    send.callback([&] { command = [&] { return QueueSend(options.send); }; });

    CLI::App& receive = *queue.add_subcommand(
        "receive", "Take messages and print them. Makes the queue if there is none, and never removes it");
    AddName(receive, options.receive.name, "Name of the queue");
    AddNumber(receive, "--type", options.receive.type, "N",
              "Only messages of this type (0: any; negative: the lowest up to its amount)");
    AddNumber(receive, "--count", options.receive.count, "N", "End after N messages (0: go on)");
    AddNumber(receive, "--timeout", options.receive.timeout_ms, "MS",
              "Limit of the wait for each message in milliseconds (0: none)")
        ->check(CLI::NonNegativeNumber);
    receive.add_flag("--hex", options.receive.hex, "Print bodies as hex dumps, never as text");
    receive.footer(kExitCodes);
    receive.callback([&] { command = [&] { return QueueReceive(options.receive); }; });
}

void AddWatch(CLI::App& app, WatchOptions& options, Command& command) {
    CLI::App& watch =
        *app.add_subcommand("watch", "Print a line for each change in directories, until SIGINT or SIGTERM");
    watch.add_option("DIR", options.directories, "Directories, at most eight")->required();
    AddNumber(watch, "--count", options.count, "N", "End after N changes (0: go on)");
    watch.footer(kExitCodes);
    watch.callback([&] { command = [&] { return Watch(options); }; });
}

}  // namespace

void AddHostCommands(CLI::App& app, HostOptions& options, Command& command) {
    AddIpc(app, options, command);
    AddEvent(app, options, command);
    AddQueue(app, options, command);
    AddWatch(app, options.watch, command);
}

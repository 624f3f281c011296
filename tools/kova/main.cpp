// kova: the command-line tool. Reads the command line and hands over to the command.
#include "command_line.h"
#include "host_commands.h"
#include "network_commands.h"
#include "report.h"
#include "send.h"
#include "serve.h"
#include "trace_show.h"

#include <kova/config.h>

#include <CLI/CLI.hpp>

#include <cstdint>
#include <exception>
#include <string>

namespace {

void AddServe(CLI::App& app, ServeOptions& options, Command& command) {
    CLI::App& serve =
        *app.add_subcommand("serve", "Print each message that arrives, until SIGINT or SIGTERM");
    serve.add_option("PORT", options.port, "0 lets the system choose one (TCP only)")
        ->required()
        ->check(CheckNumber<uint16_t>);
    auto* udp = serve.add_flag("--udp", options.udp, "Serve UDP instead of TCP");
    serve.add_flag("--plain", options.plain, "No greeting, for peers that expect none (TCP)")->excludes(udp);
    serve.add_option("--bind", options.bind, "Serve this numeric address only (TCP; default: all)")
        ->type_name("ADDRESS")
        ->excludes(udp);
    serve.add_flag("--reply", options.reply, "Answer each message with the same type and body");
    AddNumber(serve, "--count", options.count, "N", "End after N messages (0: go on)");
    serve.add_option("--output", options.output, "Store each body, as DIR/000001.body and so on")
        ->type_name("DIR");
    serve.add_flag("--quiet", options.quiet, "Print no bodies");
    AddNumber(serve, "--limit", options.body_limit, "N", "Print at most N bytes of a body (0: all)");
    serve.footer(kExitCodes);
    serve.callback([&] { command = [&] { return Serve(options); }; });
}

void AddSend(CLI::App& app, SendOptions& options, Command& command) {
    CLI::App& send = *app.add_subcommand("send", "Send files, standard input or a text as messages");
    send.add_option("TARGET", options.target, "Peer; an IPv6 address goes in brackets: [::1]:4000")
        ->type_name("HOST:PORT")
        ->required();
    auto* files =
        send.add_option("FILE", options.files, "Each a message; - is standard input, as is no operand");
    auto* udp = send.add_flag("--udp", options.udp, "Send over UDP instead of TCP");
    send.add_flag("--plain", options.plain, "Expect no greeting (TCP)")->excludes(udp);
    AddNumber(send, "--type", options.type, "N", "Type of the messages; 0 is for rejections");
    send.add_option("--text", options.texts, "Send STRING itself (may be repeated)")
        ->type_name("STRING")
        ->allow_extra_args(false)
        ->excludes(files);
    send.add_flag("--lines", options.lines, "Send each line as a message of its own, without its line end");
    auto* wait =
        send.add_flag("--wait-reply", options.wait_reply, "Wait for a reply to each message and print it");
    send.add_option("--output", options.output, "Write the bodies of replies to FILE (-: standard output)")
        ->type_name("FILE")
        ->needs(wait);
    AddNumber(send, "--timeout", options.timeout_ms, "MS", "Limit of each wait in milliseconds")
        ->check(CLI::PositiveNumber);
    send.add_flag("--quiet", options.quiet, "Print nothing but errors");
    AddNumber(send, "--limit", options.body_limit, "N", "Print at most N bytes of a reply (0: all)");
    send.add_option("--header-version", options.header_version,
                    "Claim major version N in the header and show the rejection")
        ->type_name("N")
        ->check(CheckNumber<uint16_t>)
        ->excludes(wait)
        ->group("To try a peer out");
    send.footer(kExitCodes);
    send.callback([&] { command = [&] { return Send(options); }; });
}

void AddTrace(CLI::App& app, TraceShowOptions& options, Command& command) {
    CLI::App& trace = *app.add_subcommand("trace", "Look at trace buffers");
    trace.require_subcommand(1);
    CLI::App& show = *trace.add_subcommand("show", "Print the records of a trace buffer");
    show.add_option("SOURCE", options.source, "Buffer file, core file, or the id of a living process")
        ->type_name("FILE|PID")
        ->required();
    show.add_option("--catalogue", options.catalogue, "File with the texts of the trace points")
        ->type_name("FILE");
    show.add_option("--buffer", options.buffer, "Only the buffers of this name")->type_name("NAME");
    show.add_flag("--raw", options.raw, "Numbers only, no texts");
    show.footer(kExitCodes);
    show.callback([&] { command = [&] { return TraceShow(options); }; });
}

int Run(int argc, char** argv) {
    CLI::App app(
        "Sends, receives and shows what services with libkova exchange and share, and the network between "
        "them.",
        "kova");
    app.set_version_flag("--version", "kova " KOVA_VERSION);
    app.require_subcommand(1);
    app.footer("'kova COMMAND --help' tells more about a command.\n\n" + std::string(kExitCodes));

    Command command;
    ServeOptions serve;
    SendOptions send;
    TraceShowOptions trace;
    HostOptions host;
    NetworkOptions network;
    AddServe(app, serve, command);
    AddSend(app, send, command);
    AddHostCommands(app, host, command);
    AddNetworkCommands(app, network, command);
    AddTrace(app, trace, command);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& request) {
        return app.exit(request);
    } catch (const CLI::ParseError& error) {
        throw UsageError(std::string(error.what()) + " (see kova --help)");
    }
    return command();
}

/// As above, with failures told and turned into exit codes.
int RunAndTell(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const UsageError& error) {
        Complain(error.what());
        return kExitUsage;
    } catch (const std::exception& error) {
        Complain(error.what());
        return kExitFailure;
    }
}

}  // namespace

int main(int argc, char** argv) { return CheckOutput(RunAndTell(argc, argv)); }

/// What the descriptions of all commands share.
#ifndef KOVA_TOOLS_COMMAND_LINE_H
#define KOVA_TOOLS_COMMAND_LINE_H

#include <CLI/CLI.hpp>

#include <charconv>
#include <functional>
#include <limits>
#include <string>
#include <system_error>

inline constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0  done\n"
    "  1  the library or the system failed, and its error record is printed; no event, queue message,\n"
    "     ping reply or frame came\n"
    "  2  wrong options or operands\n"
    "  3  sent, but rejected by the peer or not answered in time";

/// The command that the command line names.
typedef std::function<int()> Command;

/// Refuses what the parser would make a number of: empty texts, and negative ones for unsigned types.
template <typename Number>
std::string CheckNumber(const std::string& text) {
    Number number{};
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    if (parsed.ec == std::errc() && parsed.ptr == end) return {};
    using Limits = std::numeric_limits<Number>;
    return "'" + text + "' is not a number from " + std::to_string(Limits::min()) + " to " +
           std::to_string(Limits::max());
}

/// An option with a number, its default and its unit in the help.
template <typename Number>
CLI::Option* AddNumber(CLI::App& app, const char* name, Number& value, const char* unit, const char* help) {
    return app.add_option(name, value, help)
        ->capture_default_str()
        ->type_name(unit)
        ->check(CheckNumber<Number>);
}

/// An option with a text, which an empty one does not count as: the commands take that for a missing option.
inline CLI::Option* AddText(CLI::App& app, const char* name, std::string& value, const char* type,
                            const char* help) {
    return app.add_option(name, value, help)->type_name(type)->check([](const std::string& text) {
        return text.empty() ? std::string("the value is empty") : std::string();
    });
}

#endif

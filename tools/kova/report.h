/// What the commands of kova say, and the exit codes they share.
#ifndef KOVA_TOOLS_REPORT_H
#define KOVA_TOOLS_REPORT_H

#include <kova/base_object.h>
#include <kova/flat_msg.h>
#include <kova/inet_addr.h>

#include <stdexcept>
#include <string>
#include <string_view>

enum ExitCode : int {
    kExitOk = 0,
    kExitFailure = 1,   ///< the library or the system failed, and the record was printed; nothing came
    kExitUsage = 2,     ///< wrong options or operands
    kExitNoAnswer = 3,  ///< sent, but rejected by the peer or not answered in time
};

/// Wrong options or operands: ends the command with `kExitUsage` and this message.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Prints "kova: MESSAGE" to standard error, as one write.
void Complain(const std::string& message);

/// Prints to standard output at once. A failure is kept for `CheckOutput`.
void Print(std::string_view text);

/// The exit code of a command that is through with `code`: where this is `kExitOk`, but not all of its output
/// could be written, complains and returns `kExitFailure`.
int CheckOutput(int code);

/// An error code with its name: "30009 KOVA_ERR_BAD_VERSION", "111 ECONNREFUSED (Connection refused)".
std::string CodeText(int code);

/// Why something failed: "error " and the code with its name, or words for code 0.
std::string FailureText(int code);

/// The error record of an object: `error CODE NAME in "FUNCTION" line LINE`.
std::string RecordText(const KovaBaseObject& object);

/// The address alone.
std::string IpText(const KovaInetAddr& address);

/// ADDRESS:PORT, the address of an IPv6 peer in brackets.
std::string AddressText(const KovaInetAddr& address);

/// The header of a message: "type 1, 24 bytes, thread 4711, sent 2026-11-21T07:34:53Z".
std::string HeaderText(const KovaFlatMsg& message);

/// Seconds since 1970 as UTC.
std::string TimeText(int seconds);

/// The body of a message; empty, but not null, if there is none.
std::string_view BodyOf(KovaFlatMsg& message);

/// The message of an errno value.
std::string SystemText(int error);

#endif

/// Real processes: a part of a test that a process of its own plays. The test program runs itself again, so
/// the part starts with fresh process and thread ids, with nothing of the test's memory, descriptors and
/// signals, and with all functions real.
///
///     KOVA_PART(holder) {
///         Lock(args.at(0));
///         process::Tell("ready");
///         process::Listen();
///         return 0;
///     }
///
///     process::Process holder("holder", {"name"});
///     EXPECT_EQ("ready", holder.Hear());
///     holder.Say("end");
///     EXPECT_EQ(0, holder.Wait());
///
/// In test programs that are built with INTERPOSE. None of a Process's own calls is noted in a journal.
#ifndef KOVA_TESTS_SUPPORT_PROCESS_H
#define KOVA_TESTS_SUPPORT_PROCESS_H

#include "support/leak_check.h"

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

/// Defines a part: a function `int (const std::vector<std::string>& args)`, outside of any function. What it
/// returns is the exit status of its process, except that 0 becomes 1 when an assertion failed in it.
#define KOVA_PART(name)                                                       \
    static int PlayPart_##name(const std::vector<std::string>& args);         \
    static const process::detail::Part g_Part_##name{#name, PlayPart_##name}; \
    static int PlayPart_##name([[maybe_unused]] const std::vector<std::string>& args)

namespace process {

namespace detail {

/// A part in the list of all parts of the program.
struct Part {
    using Function = int (*)(const std::vector<std::string>&);

    Part(const char* part_name, Function function);

    const char* const name;
    const Function play;
    const Part* const next;
};

}  // namespace detail

/// A process that plays `part`. It inherits the environment, the directory and the standard streams, and
/// dumps no core. One Process is for one thread at a time.
class Process {
  public:
    explicit Process(const std::string& part, std::vector<std::string> args = {});
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    /// Kills the process if it has not ended.
    ~Process();

    pid_t Pid() const { return m_Pid; }
    /// Sends a line to the part; it is lost if the process has ended.
    void Say(const std::string& line);
    /// The part's next line. Fails the test, and returns an empty line, when the process ends without one, or
    /// tells nothing until the limit, after which it is killed.
    std::string Hear(std::chrono::milliseconds limit = kLimit);
    /// Sends a signal, unless Wait() has seen the end.
    void Kill(int signal = SIGKILL);
    /// Waits for the end: the exit status, or minus the signal that ended the process. Fails the test when it
    /// has not come until the limit, and kills the process then.
    int Wait(std::chrono::milliseconds limit = kLimit);

  private:
    std::string Name() const;
    bool HasEnded();

    const std::string m_Part;
    Fd m_Channel;
    std::string m_Heard;  ///< what came after the last whole line
    pid_t m_Pid = -1;
    bool m_HasEnded = true;
    int m_Status = -1;
};

/// Inside a part: sends a line to the test.
void Tell(const std::string& line);
/// Inside a part: waits for the test's next line. Ends the process when the test is gone.
std::string Listen();

}  // namespace process

#endif

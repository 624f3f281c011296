/// `kova send`: sends files, standard input or a text as messages.
#ifndef KOVA_TOOLS_SEND_H
#define KOVA_TOOLS_SEND_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct SendOptions {
    bool udp = false;
    bool plain = false;  ///< TCP without greeting and filler
    bool lines = false;  ///< one message per line of a source instead of one per source
    bool wait_reply = false;
    bool quiet = false;  ///< say nothing but errors
    int type = 1;
    int timeout_ms = 3000;
    std::string target;              ///< HOST:PORT
    std::vector<std::string> files;  ///< "-" is standard input
    std::vector<std::string> texts;
    std::optional<uint16_t> header_version;  ///< major version to claim; none: the library's
    std::string output;        ///< file for the bodies of replies, "-" for standard output; empty: print
    size_t body_limit = 4096;  ///< bytes of a reply's body that are printed; 0: all
};

/// Returns the exit code. Throws UsageError for operands that make no sense.
int Send(const SendOptions& options);

#endif

/// `kova serve`: prints the messages that arrive, and answers them if asked to.
#ifndef KOVA_TOOLS_SERVE_H
#define KOVA_TOOLS_SERVE_H

#include <cstddef>
#include <cstdint>
#include <string>

struct ServeOptions {
    bool udp = false;
    bool plain = false;  ///< TCP without greeting and filler
    bool reply = false;
    bool quiet = false;  ///< print no bodies
    uint16_t port = 0;
    std::string bind;          ///< TCP: numeric address to serve; empty: all
    uint64_t count = 0;        ///< end after so many messages; 0: go on
    size_t body_limit = 4096;  ///< bytes of a body that are printed; 0: all
    std::string output;        ///< directory for the bodies; empty: none
};

/// Serves until SIGINT, SIGTERM or the last message asked for. Returns the exit code.
int Serve(const ServeOptions& options);

#endif

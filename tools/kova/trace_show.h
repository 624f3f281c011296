/// `kova trace show`: prints the records of a trace buffer with their texts filled in.
#ifndef KOVA_TOOLS_TRACE_SHOW_H
#define KOVA_TOOLS_TRACE_SHOW_H

#include <string>

struct TraceShowOptions {
    std::string
        source;  ///< a buffer file or core file; digits alone are a process id unless such a file exists
    std::string buffer;     ///< only the buffers of this name; empty: all
    std::string catalogue;  ///< file with the texts; empty: $KOVA_TRACE_CATALOGUE, else the installed one
    bool raw = false;       ///< numbers only, no catalogue
};

/// Prints to standard output, one line per record. Returns the exit code: 0, or 1 after a message on stderr.
/// A missing default catalogue is only a warning: the records are then printed as numbers.
int TraceShow(const TraceShowOptions& options);

#endif

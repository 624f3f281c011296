/// Reads trace buffers: from a buffer file, from a core file, from a living process.
///
/// Nothing in an image is believed: it may come from a machine of the other byte order, be cut, or be
/// damaged.
#ifndef TRACE_OVRA_READER_H
#define TRACE_OVRA_READER_H

#include "layout.h"

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace trace_ovra {

/// One record, in the byte order of this machine.
struct Record {
    uint32_t sequence;  ///< number of the record in its buffer, from 0, wraps at 2^32
    uint64_t ticks;
    uint32_t thread;
    uint32_t control;
    uint32_t hash;
    std::array<uint32_t, kValues> values;

    uint32_t Count() const { return control >> 16; }
    uint32_t Line() const { return control & 0xFFFF; }
};

/// The same moment in ticks and on two clocks (nanoseconds).
struct Anchor {
    uint64_t ticks = 0;
    uint64_t monotonic = 0;
    uint64_t realtime = 0;
};

/// What turns ticks into time.
struct Clock {
    uint32_t source = kTicksOther;
    Anchor origin;                 ///< when the buffer was opened
    std::optional<Anchor> latest;  ///< none if the writer was caught, or died, renewing it

    /// Nanoseconds since 1970 (UTC). None while the two anchors lie less than 1 ms apart, which is too little
    /// to learn the length of a tick from.
    std::optional<int64_t> RealtimeNs(uint64_t ticks) const;
};

/// One decoded buffer. Once the oldest records are overwritten,
/// written == records.size() + torn + lost.
struct TraceBuffer {
    std::string name;  ///< unprintable characters replaced by '?'
    uint32_t pid = 0;
    bool foreign_order = false;  ///< the writer had the other byte order
    bool cut = false;            ///< the image ended before the buffer did
    uint32_t written = 0;        ///< records written since the buffer was opened, modulo 2^32
    uint32_t lost = 0;           ///< of these, overwritten by later ones or cut off
    uint32_t torn = 0;           ///< slots caught while they were written, or damaged
    Clock clock;
    std::vector<Record> records;  ///< oldest first
};

/// Buffers found, or a sentence that says why there are none (then `buffers` is empty).
struct ReadResult {
    std::vector<TraceBuffer> buffers;
    std::string error;
};

/// Decodes the buffer that `image` begins with; none if no valid header is there.
std::optional<TraceBuffer> DecodeBuffer(std::span<const std::byte> image);

/// Bytes of the buffer whose header `image` begins with, header included; 0 if there is no valid header.
uint64_t BufferBytes(std::span<const std::byte> image);

/// Reads the buffers called `name` (all when empty) of a buffer file or core file.
ReadResult ReadFile(const std::string& path, const std::string& name = {});

/// Reads the buffers called `name` (all when empty) of a living process, which is neither stopped nor slowed.
ReadResult ReadProcess(pid_t pid, const std::string& name = {});

}  // namespace trace_ovra

#endif

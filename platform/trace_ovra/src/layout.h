/// Shape of a trace buffer in memory and in its file: one header of 256 bytes, then the slots of 64 bytes.
///
/// Every field is a 32-bit word in the writer's byte order; the endian word tells a reader which one that is.
/// 64-bit numbers are two words, upper half first, whatever the byte order.
#ifndef TRACE_OVRA_LAYOUT_H
#define TRACE_OVRA_LAYOUT_H

#include <cstddef>
#include <cstdint>

namespace trace_ovra {

constexpr char kMagic[4] = {'O', 'V', 'R', 'A'};
constexpr uint32_t kEndianWord = 0x01020304;
constexpr uint32_t kVersion = 1;
constexpr uint32_t kHeaderSize = 256;
constexpr uint32_t kSlotSize = 64;
constexpr uint32_t kMaxSlots =
    UINT32_MAX / kSlotSize / 2 + 1;  ///< the largest power of two a 32-bit size gives
constexpr uint32_t kNameSize = 32;   ///< with the terminating zero
constexpr uint32_t kValues = 9;

/// What a tick is.
enum TickSource : uint32_t {
    kTicksOther = 0,
    kTicksTsc = 1,       ///< x86 time-stamp counter
    kTicksTimeBase = 2,  ///< PowerPC time base
    kTicksMonotonic = 3  ///< CLOCK_MONOTONIC in nanoseconds
};

/// Word indices of the header, one line of 64 bytes per group: what never changes; the head counter alone, so
/// that nothing else shares the one contended cache line; the clock anchors.
enum HeaderWord : uint32_t {
    kHeaderMagic = 0,
    kHeaderEndian = 1,
    kHeaderVersion = 2,
    kHeaderHeaderSize = 3,
    kHeaderSlotSize = 4,
    kHeaderSlotCount = 5,  ///< a power of two
    kHeaderPid = 6,
    kHeaderTickSource = 7,
    kHeaderName = 8,  ///< kNameSize bytes

    kHeaderHead = 16,  ///< sequence number of the next record, wraps at 2^32

    kHeaderOrigin = 32,          ///< anchor taken when the buffer was opened
    kHeaderLatestSequence = 38,  ///< odd while the latest anchor is being written
    kHeaderLatestEpoch = 39,     ///< EpochOf the latest anchor's ticks
    kHeaderLatest = 40,          ///< anchor taken last

    kHeaderWords = kHeaderSize / 4
};

/// Words of an anchor: the same moment in ticks, in CLOCK_MONOTONIC and in CLOCK_REALTIME nanoseconds. The
/// monotonic clock gives the length of a tick, since the other one may be set while the buffer is in use.
enum AnchorWord : uint32_t { kAnchorTicks = 0, kAnchorMonotonic = 2, kAnchorRealtime = 4, kAnchorWords = 6 };

/// Word indices of a slot.
enum SlotWord : uint32_t {
    kSlotSequence = 0,  ///< sequence number + 1; 0 while the slot is written or was never used
    kSlotCheck = 1,     ///< CheckWord of the other words
    kSlotTicks = 2,
    kSlotThread = 4,
    kSlotControl = 5,
    kSlotHash = 6,
    kSlotValues = 7,
    kSlotWords = 16
};

constexpr uint32_t Upper(uint64_t value) { return static_cast<uint32_t>(value >> 32); }
constexpr uint32_t Lower(uint64_t value) { return static_cast<uint32_t>(value); }
constexpr uint64_t Joined(uint32_t upper, uint32_t lower) { return uint64_t{upper} << 32 | lower; }

/// Changes every 2^24 ticks: the rhythm of the clock anchors.
constexpr uint32_t EpochOf(uint64_t ticks) { return static_cast<uint32_t>(ticks >> 24); }

/// What one record consists of, sequence word (sequence number + 1) and all.
struct RecordWords {
    uint32_t sequence;
    uint64_t ticks;
    uint32_t thread;
    uint32_t control;
    uint32_t hash;
    uint32_t values[kValues];
};

[[gnu::always_inline]] constexpr inline uint64_t Product(uint32_t a, uint32_t b) { return uint64_t{a} * b; }

/// Check word over all words of a record. A sum of products of neighbours: the products do not wait for each
/// other, so that a processor overlaps them, and a word that belongs to another record changes the sum.
[[gnu::always_inline]] constexpr inline uint32_t CheckWord(const RecordWords& r) {
    const uint64_t sum = Product(r.sequence + 0x9E3779B9u, Lower(r.ticks) + 0x85EBCA6Bu) +
                         Product(Upper(r.ticks) + 0xC2B2AE35u, r.thread + 0x27D4EB2Fu) +
                         Product(r.control + 0x165667B1u, r.hash + 0xD3A2646Cu) +
                         Product(r.values[0] + 0xFD7046C5u, r.values[1] + 0xB55A4F09u) +
                         Product(r.values[2] + 0x8DA6B343u, r.values[3] + 0xD8163841u) +
                         Product(r.values[4] + 0xCB1AB31Fu, r.values[5] + 0xA136AAADu) +
                         Product(r.values[6] + 0x94D049BBu, r.values[7] + 0xBF58476Du) +
                         Product(r.values[8] + 0xE7037ED1u, 0x8EBC6AF1u);
    return Upper(sum) + Lower(sum);
}

}  // namespace trace_ovra

#endif

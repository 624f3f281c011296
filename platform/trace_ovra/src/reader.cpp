#include "reader.h"

#include "ticks.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <fstream>

namespace trace_ovra {
namespace {

using Bytes = std::span<const std::byte>;

constexpr uint64_t kPage = 4096;  ///< buffers begin at a page, in memory and in a core file
constexpr uint64_t kMinBaseNs = 1'000'000;

/// The words of an image, bounds checked by the caller.
class Words {
  public:
    Words(Bytes image, bool foreign) : m_Image(image), m_Foreign(foreign) {}

    uint32_t At(size_t index) const {
        uint32_t word = 0;
        memcpy(&word, m_Image.data() + index * sizeof word, sizeof word);
        return m_Foreign ? __builtin_bswap32(word) : word;
    }
    uint64_t At64(size_t index) const { return Joined(At(index), At(index + 1)); }
    bool IsForeign() const { return m_Foreign; }

  private:
    Bytes m_Image;
    bool m_Foreign;
};

/// A view of the image's words in the writer's byte order; none if there is no valid header.
std::optional<Words> CheckHeader(Bytes image) {
    if (image.size() < kHeaderSize || memcmp(image.data(), kMagic, sizeof kMagic) != 0) return std::nullopt;
    const bool foreign = Words(image, false).At(kHeaderEndian) != kEndianWord;
    const Words words(image, foreign);
    const uint32_t slots = words.At(kHeaderSlotCount);
    const bool valid = words.At(kHeaderEndian) == kEndianWord && words.At(kHeaderVersion) == kVersion &&
                       words.At(kHeaderHeaderSize) == kHeaderSize && words.At(kHeaderSlotSize) == kSlotSize &&
                       slots != 0 && slots <= kMaxSlots && (slots & (slots - 1)) == 0;
    return valid ? std::optional(words) : std::nullopt;
}

std::string NameOf(Bytes image) {
    const char* text = reinterpret_cast<const char*>(image.data()) + size_t{kHeaderName} * 4;
    std::string name(text, strnlen(text, kNameSize));
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return name;
}

Anchor DecodeAnchor(const Words& words, size_t index) {
    return {words.At64(index + kAnchorTicks), words.At64(index + kAnchorMonotonic),
            words.At64(index + kAnchorRealtime)};
}

Clock DecodeClock(const Words& words) {
    Clock clock{words.At(kHeaderTickSource), DecodeAnchor(words, kHeaderOrigin), std::nullopt};
    const bool settled = words.At(kHeaderLatestSequence) % 2 == 0;
    if (settled) clock.latest = DecodeAnchor(words, kHeaderLatest);
    return clock;
}

enum class SlotState { EMPTY, RECORD, TORN };

SlotState DecodeSlot(const Words& words, uint32_t slot, uint32_t mask, Record& record) {
    const size_t at = kHeaderWords + size_t{slot} * kSlotWords;
    RecordWords raw{words.At(at + kSlotSequence), words.At64(at + kSlotTicks), words.At(at + kSlotThread),
                    words.At(at + kSlotControl),  words.At(at + kSlotHash),    {}};
    for (uint32_t i = 0; i < kValues; ++i) raw.values[i] = words.At(at + kSlotValues + i);
    const bool unused = raw.sequence == 0 && slot >= words.At(kHeaderHead);
    if (unused) return SlotState::EMPTY;
    const bool valid = raw.sequence != 0 && ((raw.sequence - 1) & mask) == slot &&
                       words.At(at + kSlotCheck) == CheckWord(raw);
    if (!valid) return SlotState::TORN;
    record = {raw.sequence - 1, raw.ticks, raw.thread, raw.control, raw.hash, {}};
    std::copy(std::begin(raw.values), std::end(raw.values), record.values.begin());
    return SlotState::RECORD;
}

/// Oldest first. The distance from the head orders them across the wrap of the counter; a writer may have
/// gone on between the copy of the head and that of a slot, so a record may also lie beyond it.
void SortByAge(std::vector<Record>& records, uint32_t head) {
    const auto age = [head](const Record& r) { return r.sequence - head + 0x80000000u; };
    std::sort(records.begin(), records.end(),
              [&](const Record& a, const Record& b) { return age(a) < age(b); });
}

// --- Sources ---

class Descriptor {
  public:
    explicit Descriptor(const std::string& path) : m_Fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    ~Descriptor() {
        if (m_Fd >= 0) close(m_Fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    bool IsOpen() const { return m_Fd >= 0; }
    int Get() const { return m_Fd; }

    /// Up to `size` bytes from `offset`; what cannot be read is missing at the end.
    std::vector<std::byte> Read(uint64_t offset, uint64_t size) const {
        std::vector<std::byte> bytes(static_cast<size_t>(size));
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t count =
                pread(m_Fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset + done));
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) break;
            done += static_cast<size_t>(count);
        }
        bytes.resize(done);
        return bytes;
    }

  private:
    int m_Fd;
};

void Collect(const std::string& name, Bytes image, ReadResult& result) {
    if (!name.empty() && NameOf(image) != name) return;
    if (auto buffer = DecodeBuffer(image)) result.buffers.push_back(std::move(*buffer));
}

std::string Missing(const std::string& where, const std::string& name) {
    return where + ": no trace buffer" + (name.empty() ? "" : " named " + name);
}

std::string ProcessText(pid_t pid) { return "process " + std::to_string(pid); }

struct Mapping {
    uint64_t start = 0;
    uint64_t end = 0;
};

bool EndsWith(const std::string& text, const char* end) { return std::string_view(text).ends_with(end); }

/// A line of /proc/PID/maps that may hold a buffer: shared memory of a kind that the facility makes.
std::optional<Mapping> ParseCandidate(const std::string& line) {
    Mapping mapping;
    char permissions[5] = "";
    uint64_t offset = 0;
    int path = 0;
    const int fields = sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s %" SCNx64 " %*s %*s %n",
                              &mapping.start, &mapping.end, permissions, &offset, &path);
    if (fields != 4 || permissions[3] != 's' || offset != 0 || mapping.end <= mapping.start)
        return std::nullopt;
    const std::string name = line.substr(static_cast<size_t>(path));
    const bool memory =
        name.empty() || name.starts_with("/memfd:trace_ovra:") || name.starts_with("/dev/zero");
    const bool file = EndsWith(name, ".trace") || EndsWith(name, ".trace (deleted)");
    return memory || file ? std::optional(mapping) : std::nullopt;
}

/// Copies the header until two copies agree on the clock anchors, so that none is caught half renewed.
std::vector<std::byte> ReadHeader(const Descriptor& memory, uint64_t address) {
    constexpr size_t anchors = size_t{kHeaderOrigin} * 4;
    std::vector<std::byte> header = memory.Read(address, kHeaderSize);
    for (int tries = 0; tries < 100; ++tries) {
        std::vector<std::byte> again = memory.Read(address, kHeaderSize);
        if (again.size() < kHeaderSize || header.size() < kHeaderSize) return again;
        const bool same = memcmp(header.data() + anchors, again.data() + anchors, kHeaderSize - anchors) == 0;
        header = std::move(again);
        if (same) break;
    }
    return header;
}

/// The head is copied after the slots, so that it counts every record among them.
std::vector<std::byte> ReadMapping(const Descriptor& memory, const Mapping& mapping) {
    const uint64_t bytes = BufferBytes(memory.Read(mapping.start, kHeaderSize));
    if (bytes == 0 || bytes > mapping.end - mapping.start) return {};
    std::vector<std::byte> image = memory.Read(mapping.start, bytes);
    const std::vector<std::byte> header = ReadHeader(memory, mapping.start);
    if (image.size() < kHeaderSize || header.size() < kHeaderSize) return {};
    std::copy(header.begin(), header.end(), image.begin());
    return image;
}

/// The present is a better second anchor than the writer's last one if the writer's ticks are also ours.
void AnchorNow(TraceBuffer& buffer) {
    if (buffer.clock.source != kTickSource) return;
    buffer.clock.latest = Anchor{Ticks(), ClockNs(CLOCK_MONOTONIC), ClockNs(CLOCK_REALTIME)};
}

std::string ProcessError(pid_t pid, int error) {
    if (error == ENOENT || error == ESRCH) return "no such process: " + std::to_string(pid);
    if (error == EACCES || error == EPERM) {
        return ProcessText(pid) +
               ": no permission to read its memory; run as root (CAP_SYS_PTRACE), or as the user of the "
               "process"
               " with kernel.yama.ptrace_scope 0";
    }
    return ProcessText(pid) + ": " + strerror(error);
}

}  // namespace

std::optional<int64_t> Clock::RealtimeNs(uint64_t ticks) const {
    const Anchor& end = latest ? *latest : origin;
    const uint64_t base_ns = end.monotonic - origin.monotonic;
    const uint64_t base_ticks = end.ticks - origin.ticks;
    const bool known = source == kTicksMonotonic;
    if (!known && (end.monotonic < origin.monotonic || base_ns < kMinBaseNs)) return std::nullopt;
    if (!known && (end.ticks <= origin.ticks)) return std::nullopt;
    const double tick_ns = known ? 1.0 : static_cast<double>(base_ns) / static_cast<double>(base_ticks);
    const double distance = static_cast<double>(static_cast<int64_t>(ticks - end.ticks)) * tick_ns;
    constexpr double limit = 9e18;  // damaged anchors must not leave the range of the result
    const double sum = static_cast<double>(end.realtime) + distance;
    if (!(std::fabs(distance) < limit) || !(std::fabs(sum) < limit)) return std::nullopt;
    return static_cast<int64_t>(end.realtime) + static_cast<int64_t>(distance);
}

uint64_t BufferBytes(Bytes image) {
    const auto words = CheckHeader(image);
    return words ? kHeaderSize + uint64_t{words->At(kHeaderSlotCount)} * kSlotSize : 0;
}

std::optional<TraceBuffer> DecodeBuffer(Bytes image) {
    const auto words = CheckHeader(image);
    if (!words) return std::nullopt;
    const uint32_t slots = words->At(kHeaderSlotCount);
    const uint64_t present = std::min<uint64_t>(slots, (image.size() - kHeaderSize) / kSlotSize);

    TraceBuffer buffer;
    buffer.name = NameOf(image);
    buffer.pid = words->At(kHeaderPid);
    buffer.foreign_order = words->IsForeign();
    buffer.cut = present < slots;
    buffer.written = words->At(kHeaderHead);
    buffer.clock = DecodeClock(*words);
    for (uint32_t slot = 0; slot < present; ++slot) {
        Record record;
        const SlotState state = DecodeSlot(*words, slot, slots - 1, record);
        if (state == SlotState::RECORD) buffer.records.push_back(record);
        if (state == SlotState::TORN) ++buffer.torn;
    }
    SortByAge(buffer.records, buffer.written);
    const uint64_t seen = buffer.records.size() + buffer.torn;
    if (buffer.written > seen) buffer.lost = static_cast<uint32_t>(buffer.written - seen);
    return buffer;
}

ReadResult ReadFile(const std::string& path, const std::string& name) {
    const Descriptor file(path);
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) return {{}, path + ": " + strerror(errno)};
    if (!S_ISREG(status.st_mode)) return {{}, path + ": not a regular file"};
    const uint64_t end = static_cast<uint64_t>(status.st_size);

    constexpr uint64_t chunk = 256 * kPage;
    uint64_t next = 0;  // end of the last buffer: what lies in it is no header
    ReadResult result;
    for (uint64_t start = 0; start < end; start += chunk) {
        const std::vector<std::byte> bytes = file.Read(start, std::min(chunk, end - start));
        for (uint64_t at = 0; at < bytes.size(); at += kPage) {
            const uint64_t size = BufferBytes(Bytes(bytes).subspan(static_cast<size_t>(at)));
            if (size == 0 || start + at < next) continue;
            Collect(name, file.Read(start + at, std::min(size, end - start - at)), result);
            next = start + at + size;
        }
    }
    if (result.buffers.empty()) result.error = Missing(path, name);
    return result;
}

ReadResult ReadProcess(pid_t pid, const std::string& name) {
    const std::string directory = "/proc/" + std::to_string(pid);
    std::ifstream maps(directory + "/maps");
    if (!maps) return {{}, ProcessError(pid, errno)};
    const Descriptor memory(directory + "/mem");
    if (!memory.IsOpen()) return {{}, ProcessError(pid, errno)};

    ReadResult result;
    for (std::string line; std::getline(maps, line);) {
        const auto mapping = ParseCandidate(line);
        if (!mapping) continue;
        const std::vector<std::byte> image = ReadMapping(memory, *mapping);
        if (!image.empty()) Collect(name, image, result);
    }
    for (TraceBuffer& buffer : result.buffers) AnchorNow(buffer);
    if (result.buffers.empty()) result.error = Missing(ProcessText(pid), name);
    return result;
}

}  // namespace trace_ovra

#include "trace_ovra.h"

#include "layout.h"
#include "ticks.h"
#include "trace_ovra_hash.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

namespace trace_ovra {
namespace {

using Word = std::atomic<uint32_t>;
static_assert(Word::is_always_lock_free && sizeof(Word) == 4,
              "the words of a buffer are shared between processes");

constexpr uint32_t kMaxBuffers = 16;
constexpr auto kRelaxed = std::memory_order_relaxed;

/// One opened buffer. The mask is kept here, so that whoever spoils the shared memory cannot move our writes.
struct Buffer {
    std::atomic<Word*> words;  ///< null until the buffer can be used
    uint32_t mask;             ///< slot count - 1
    char name[kNameSize];
    char file[kNameSize];  ///< name with everything replaced that does not belong into a file name
};

constinit Buffer g_buffers[kMaxBuffers] = {};
constinit pthread_mutex_t g_tableLock = PTHREAD_MUTEX_INITIALIZER;
[[gnu::tls_model("initial-exec")]] constinit thread_local uint32_t t_threadId = 0;

class ErrnoKeeper {
  public:
    ErrnoKeeper() : m_Errno(errno) {}
    ~ErrnoKeeper() { errno = m_Errno; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

  private:
    int m_Errno;
};

class TableGuard {
  public:
    TableGuard() { pthread_mutex_lock(&g_tableLock); }
    ~TableGuard() { pthread_mutex_unlock(&g_tableLock); }
    TableGuard(const TableGuard&) = delete;
    TableGuard& operator=(const TableGuard&) = delete;
};

// --- Clock anchors ---

void Store64(Word* words, uint64_t value) {
    words[0].store(Upper(value), kRelaxed);
    words[1].store(Lower(value), kRelaxed);
}

uint64_t StoreAnchor(Word* anchor) {
    const uint64_t ticks = Ticks();
    Store64(anchor + kAnchorTicks, ticks);
    Store64(anchor + kAnchorMonotonic, ClockNs(CLOCK_MONOTONIC));
    Store64(anchor + kAnchorRealtime, ClockNs(CLOCK_REALTIME));
    return ticks;
}

/// Renews the latest anchor, unless somebody else is at it. A child killed in here leaves the anchor taken
/// for good; readers then use the origin and the present.
[[gnu::noinline, gnu::cold]] void RefreshAnchor(Word* words) {
    const ErrnoKeeper keeper;
    Word& sequence = words[kHeaderLatestSequence];
    uint32_t even = sequence.load(kRelaxed);
    if ((even & 1) != 0) return;
    if (!sequence.compare_exchange_strong(even, even + 1, std::memory_order_acquire, kRelaxed)) return;
    std::atomic_thread_fence(std::memory_order_release);
    const uint64_t ticks = StoreAnchor(words + kHeaderLatest);
    words[kHeaderLatestEpoch].store(EpochOf(ticks), kRelaxed);
    sequence.store(even + 2, std::memory_order_release);
}

// --- Writing ---

[[gnu::noinline, gnu::cold]] uint32_t LearnThreadId() {
    t_threadId = static_cast<uint32_t>(gettid());
    return t_threadId;
}

inline uint32_t ThreadId() {
    const uint32_t id = t_threadId;
    return __builtin_expect(id != 0, 1) ? id : LearnThreadId();
}

/// Takes the next sequence number and fills its slot. Only a writer that sleeps here while all others go once
/// around the ring meets another one in its slot; the check word then tells the mixture from a record.
[[gnu::always_inline]] inline int Write(uint32_t handle, RecordWords record) {
    if (__builtin_expect(handle - 1 >= kMaxBuffers, 0)) return -1;
    const Buffer& buffer = g_buffers[handle - 1];
    Word* const words = buffer.words.load(std::memory_order_acquire);
    if (__builtin_expect(words == nullptr, 0)) return -1;

    record.thread = ThreadId();
    const uint32_t sequence = words[kHeaderHead].fetch_add(1, kRelaxed);
    record.ticks = Ticks();
    record.sequence = sequence + 1;

    Word* const slot = words + kHeaderWords + size_t{sequence & buffer.mask} * kSlotWords;
    slot[kSlotSequence].store(0, kRelaxed);
    std::atomic_thread_fence(std::memory_order_release);
    Store64(slot + kSlotTicks, record.ticks);
    slot[kSlotThread].store(record.thread, kRelaxed);
    slot[kSlotControl].store(record.control, kRelaxed);
    slot[kSlotHash].store(record.hash, kRelaxed);
#pragma GCC unroll 9
    for (uint32_t i = 0; i < kValues; ++i) slot[kSlotValues + i].store(record.values[i], kRelaxed);
    slot[kSlotCheck].store(CheckWord(record), kRelaxed);
    slot[kSlotSequence].store(record.sequence, std::memory_order_release);

    const uint32_t anchored = words[kHeaderLatestEpoch].load(kRelaxed);
    if (__builtin_expect(EpochOf(record.ticks) != anchored, 0)) RefreshAnchor(words);
    return 0;
}

// --- Opening ---

/// Descriptor that closes itself.
class Descriptor {
  public:
    explicit Descriptor(int fd) : m_Fd(fd) {}
    ~Descriptor() {
        if (m_Fd >= 0) close(m_Fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const { return m_Fd; }

  private:
    int m_Fd;
};

void* MapShared(int fd, size_t size) {
    const int flags = MAP_SHARED | MAP_POPULATE | (fd < 0 ? MAP_ANONYMOUS : 0);
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, fd, 0);
    return memory == MAP_FAILED ? nullptr : memory;
}

/// Maps `size` zero bytes of an empty file; null if they cannot be had. The room is reserved at once: a full
/// file system must show here and not as SIGBUS in the middle of a write.
void* MapNewFile(int fd, size_t size) {
    if (fd < 0 || posix_fallocate(fd, 0, static_cast<off_t>(size)) != 0) return nullptr;
    return MapShared(fd, size);
}

bool IsFileTaken(const char* file) {
    for (const Buffer& buffer : g_buffers) {
        if (buffer.words.load(kRelaxed) != nullptr && strcmp(buffer.file, file) == 0) return true;
    }
    return false;
}

void* MapInDirectory(const char* directory, const char* file, size_t size) {
    char path[4096];
    const int length =
        snprintf(path, sizeof path, "%s/%s.%ld.trace", directory, file, static_cast<long>(getpid()));
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) return nullptr;
    if (IsFileTaken(file)) return nullptr;
    unlink(path);  // of an earlier process with this number
    const Descriptor fd(open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.Get() < 0) return nullptr;
    void* memory = MapNewFile(fd.Get(), size);
    if (memory == nullptr) unlink(path);
    return memory;
}

void* MapMemory(const Buffer& buffer, size_t size) {
    const char* directory = secure_getenv("TRACE_OVRA_DIR");
    if (directory != nullptr && *directory != '\0') {
        if (void* memory = MapInDirectory(directory, buffer.file, size)) return memory;
    }
    char name[sizeof "trace_ovra:" + kNameSize];
    snprintf(name, sizeof name, "trace_ovra:%s", buffer.name);
    const Descriptor fd(memfd_create(name, MFD_CLOEXEC));
    if (void* memory = MapNewFile(fd.Get(), size)) return memory;
    return MapShared(-1, size);
}

bool IsFileCharacter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.';
}

void SetNames(Buffer& buffer, const char* name) {
    memset(buffer.name, 0, sizeof buffer.name);
    memcpy(buffer.name, name, strnlen(name, kNameSize - 1));
    memcpy(buffer.file, buffer.name, sizeof buffer.file);
    for (char* c = buffer.file; *c != '\0'; ++c) {
        if (!IsFileCharacter(*c) || (c == buffer.file && *c == '.')) *c = '_';
    }
}

/// The magic comes last: a reader never takes a half-made header for a buffer.
void InitHeader(Word* words, const Buffer& buffer) {
    uint32_t text[kNameSize / 4];
    memcpy(text, buffer.name, sizeof text);
    for (uint32_t i = 0; i < kNameSize / 4; ++i) words[kHeaderName + i].store(text[i], kRelaxed);
    words[kHeaderEndian].store(kEndianWord, kRelaxed);
    words[kHeaderVersion].store(kVersion, kRelaxed);
    words[kHeaderHeaderSize].store(kHeaderSize, kRelaxed);
    words[kHeaderSlotSize].store(kSlotSize, kRelaxed);
    words[kHeaderSlotCount].store(buffer.mask + 1, kRelaxed);
    words[kHeaderPid].store(static_cast<uint32_t>(getpid()), kRelaxed);
    words[kHeaderTickSource].store(kTickSource, kRelaxed);
    StoreAnchor(words + kHeaderOrigin);
    RefreshAnchor(words);
    uint32_t magic = 0;
    memcpy(&magic, kMagic, sizeof magic);
    words[kHeaderMagic].store(magic, std::memory_order_release);
}

uint32_t SlotCount(uint32_t size) {
    uint32_t count = 1;
    while (count <= size / kSlotSize / 2) count *= 2;
    return count;
}

bool Open(Buffer& buffer, const char* name, uint32_t size) {
    SetNames(buffer, name);
    buffer.mask = SlotCount(size) - 1;
    const uint64_t bytes = kHeaderSize + (uint64_t{buffer.mask} + 1) * kSlotSize;
    if (bytes > PTRDIFF_MAX) return false;
    void* memory = MapMemory(buffer, static_cast<size_t>(bytes));
    if (memory == nullptr) return false;
    Word* words = static_cast<Word*>(memory);
    InitHeader(words, buffer);
    buffer.words.store(words, std::memory_order_release);
    return true;
}

/// Index of the open buffer `name`, else of the first free place, else kMaxBuffers.
uint32_t FindPlace(const char* name) {
    uint32_t place = 0;
    for (; place < kMaxBuffers; ++place) {
        if (g_buffers[place].words.load(kRelaxed) == nullptr) break;
        if (strncmp(g_buffers[place].name, name, kNameSize - 1) == 0) break;
    }
    return place;
}

void LockTable() { pthread_mutex_lock(&g_tableLock); }
void UnlockTable() { pthread_mutex_unlock(&g_tableLock); }

void StartChild() {
    t_threadId = 0;
    UnlockTable();
}

[[gnu::constructor]] void RegisterForkHandlers() { pthread_atfork(LockTable, UnlockTable, StartChild); }

[[gnu::destructor]] void AnchorProcessEnd() {
    for (Buffer& buffer : g_buffers) {
        if (Word* words = buffer.words.load(std::memory_order_acquire)) RefreshAnchor(words);
    }
}

}  // namespace
}  // namespace trace_ovra

extern "C" {

int trace_ovra_init_buffer(uint32_t* handle, const char* name, uint32_t size) {
    using namespace trace_ovra;
    if (handle == nullptr || name == nullptr || *name == '\0' || size < kSlotSize) return -1;
    const ErrnoKeeper keeper;
    const TableGuard guard;
    const uint32_t place = FindPlace(name);
    if (place == kMaxBuffers) return -1;
    Buffer& buffer = g_buffers[place];
    if (buffer.words.load(kRelaxed) == nullptr && !Open(buffer, name, size)) return -1;
    *handle = place + 1;
    return 0;
}

int trace_ovra_write_ints5(uint32_t handle, uint32_t control, uint32_t hash, uint32_t v0, uint32_t v1,
                           uint32_t v2, uint32_t v3, uint32_t v4) {
    return trace_ovra::Write(handle, {0, 0, 0, control, hash, {v0, v1, v2, v3, v4, 0, 0, 0, 0}});
}

int trace_ovra_write_ints9(uint32_t handle, uint32_t control, uint32_t hash, uint32_t v0, uint32_t v1,
                           uint32_t v2, uint32_t v3, uint32_t v4, uint32_t v5, uint32_t v6, uint32_t v7,
                           uint32_t v8) {
    return trace_ovra::Write(handle, {0, 0, 0, control, hash, {v0, v1, v2, v3, v4, v5, v6, v7, v8}});
}

uint32_t trace_ovra_hash(const char* text, uint32_t count) {
    return TraceOvraHash(text != nullptr ? text : "", count);
}
}

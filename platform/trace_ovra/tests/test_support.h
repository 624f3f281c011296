/// Pieces the tests of the trace facility share: children, temporary directories, hand-made buffer images.
#ifndef TRACE_OVRA_TEST_SUPPORT_H
#define TRACE_OVRA_TEST_SUPPORT_H

#include "layout.h"
#include "reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace trace_ovra {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

/// Directory that goes with its owner.
class TempDir {
  public:
    TempDir() {
        char path[] = "/tmp/trace_ovra_test.XXXXXX";
        if (mkdtemp(path) != nullptr) m_Path = path;
    }
    ~TempDir() { std::filesystem::remove_all(m_Path); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_Path; }
    std::string File(const std::string& name) const { return m_Path + "/" + name; }

  private:
    std::string m_Path;
};

struct ChildResult {
    pid_t pid;
    int status;
};

/// Runs `body` in a child with a table of buffers that no other test uses. The child ends through `_exit`
/// with status 0, or 1 if one of its expectations failed.
template <typename Body>
ChildResult InChild(Body body) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return {pid, status};
}

inline bool Passed(const ChildResult& child) {
    return WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0;
}

inline std::vector<std::byte> FileBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    std::vector<std::byte> bytes(text.size());
    memcpy(bytes.data(), text.data(), text.size());
    return bytes;
}

inline void WriteBytes(const std::string& path, const std::vector<std::byte>& bytes) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline void WriteText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

/// A buffer image made by hand. One tick is one nanosecond; tick 0 is 2023-11-14T22:13:20Z.
class TestImage {
  public:
    static constexpr uint64_t kStartNs = 1'700'000'000'000'000'000;

    explicit TestImage(uint32_t slots, const char* name = "TEST")
        : m_Words(kHeaderWords + slots * kSlotWords) {
        memcpy(&m_Words[kHeaderMagic], kMagic, sizeof kMagic);
        m_Words[kHeaderEndian] = kEndianWord;
        m_Words[kHeaderVersion] = kVersion;
        m_Words[kHeaderHeaderSize] = kHeaderSize;
        m_Words[kHeaderSlotSize] = kSlotSize;
        m_Words[kHeaderSlotCount] = slots;
        m_Words[kHeaderPid] = 4711;
        m_Words[kHeaderTickSource] = kTicksOther;
        strncpy(reinterpret_cast<char*>(&m_Words[kHeaderName]), name, kNameSize);
        SetAnchor(kHeaderOrigin, 0);
        SetAnchor(kHeaderLatest, 1'000'000'000);
    }

    uint32_t& Word(uint32_t index) { return m_Words[index]; }
    uint32_t& SlotWordAt(uint32_t slot, uint32_t index) {
        return m_Words[kHeaderWords + slot * kSlotWords + index];
    }

    void Set64(uint32_t index, uint64_t value) {
        m_Words[index] = Upper(value);
        m_Words[index + 1] = Lower(value);
    }

    void SetAnchor(uint32_t index, uint64_t ticks) {
        Set64(index + kAnchorTicks, ticks);
        Set64(index + kAnchorMonotonic, ticks);
        Set64(index + kAnchorRealtime, kStartNs + ticks);
    }

    /// Stores a record in the slot of its sequence number and moves the head behind it.
    void Add(uint32_t sequence, uint64_t ticks, uint32_t control, uint32_t hash,
             const std::vector<uint32_t>& values = {}) {
        RecordWords record{sequence + 1, ticks, 77, control, hash, {}};
        std::copy(values.begin(), values.end(), std::begin(record.values));
        const uint32_t at = kHeaderWords + (sequence & (m_Words[kHeaderSlotCount] - 1)) * kSlotWords;
        m_Words[at + kSlotSequence] = record.sequence;
        m_Words[at + kSlotCheck] = CheckWord(record);
        Set64(at + kSlotTicks, ticks);
        m_Words[at + kSlotThread] = record.thread;
        m_Words[at + kSlotControl] = control;
        m_Words[at + kSlotHash] = hash;
        std::copy(std::begin(record.values), std::end(record.values), &m_Words[at + kSlotValues]);
        m_Words[kHeaderHead] = sequence + 1;
    }

    std::vector<std::byte> Bytes() const {
        std::vector<std::byte> bytes(m_Words.size() * 4);
        memcpy(bytes.data(), m_Words.data(), bytes.size());
        return bytes;
    }

  private:
    std::vector<uint32_t> m_Words;
};

/// The image as a machine of the other byte order would have written it.
inline std::vector<std::byte> Swapped(std::vector<std::byte> bytes) {
    for (size_t word = 0; word < bytes.size() / 4; ++word) {
        const bool text = word == kHeaderMagic || (word >= kHeaderName && word < kHeaderName + kNameSize / 4);
        if (!text) std::reverse(&bytes[word * 4], &bytes[word * 4] + 4);
    }
    return bytes;
}

inline bool operator==(const Record& a, const Record& b) {
    return a.sequence == b.sequence && a.ticks == b.ticks && a.thread == b.thread && a.control == b.control &&
           a.hash == b.hash && a.values == b.values;
}

}  // namespace trace_ovra

#endif

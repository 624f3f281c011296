/// Ethernet frames for the tests of the raw socket; README.md tells where they come from.
#ifndef KOVA_TESTS_SOCKET_FRAMES_FRAMES_H
#define KOVA_TESTS_SOCKET_FRAMES_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace frames {

inline constexpr uint16_t kIpv4 = 0x0800;
inline constexpr uint16_t kVlan = 0x8100;

inline constexpr size_t kTypeAt = 12;
inline constexpr size_t kEthernet = 14;
inline constexpr size_t kTag = 4;

struct Frame {
    std::string name;
    std::string bytes;
};

/// All of them, each under a name of its own.
const std::vector<Frame>& All();
/// The bytes of one.
const std::string& Named(const std::string& name);

/// A frame with a VLAN tag put in.
std::string Tagged(const std::string& frame, uint16_t control_word, uint16_t tag_type = kVlan);
/// A frame with other bytes from `place` on.
std::string Changed(std::string frame, size_t place, const std::string& bytes);
/// The IP header of an untagged frame gets its right checksum; header length 5 or more.
std::string WithChecksum(std::string frame);

/// An Ethernet header before `packet`: 02:00:00:00:00:02 from 02:00:00:00:00:01.
std::string OnEthernet(const std::string& packet, uint16_t type = kIpv4);

}  // namespace frames

#endif

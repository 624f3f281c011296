#include "socket/frames/frames.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace frames {

namespace {

constexpr size_t kIpWord = 4;
constexpr size_t kIpChecksumAt = 10;
constexpr size_t kIpProtocolAt = 9;
constexpr size_t kIpHeader = 20;

std::string FromHex(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

std::string Word(uint16_t number) {
    return {static_cast<char>(number >> 8), static_cast<char>(number & 0xFF)};
}

std::string Byte(uint8_t number) { return {static_cast<char>(number)}; }

std::vector<Frame> Captured() {
    return {
        {"CapturedNeighborSolicitation",
         FromHex("3333ff00000102000000000186dd6000000000203aff00000000000000000000000000000000ff0200000000"
                 "000000000001ff000001870033bf00000000fe80000000000000000000fffe0000010e015a6d55f98af6")},
        {"CapturedArpRequest",
         FromHex("ffffffffffff020000000001080600010800060400010200000000010afd180100000000"
                 "00000afd1802")},
        {"CapturedPingRequest",
         FromHex("02000000000202000000000108004500004818ff40004001dbb90afd18010afd180208002818000100010001"
                 "02030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f202122232425262728292a2b")},
        {"CapturedPingReply",
         FromHex("020000000001020000000002080045000048630900004001d1af0afd18020afd180100003018000100010001"
                 "02030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f202122232425262728292a2b")},
        {"CapturedShortPingRequest",
         FromHex("020000000002020000000001080045000020190c40004001dbd40afd18010afd180208003335000200026162"
                 "6364")},
        {"CapturedRecordRouteReply",
         FromHex("020000000001020000000002080048000054631e00004001be3d0afd18020afd1801070b0c0afd18010afd18"
                 "02000000fff90003000300000000000000000000000000000000000000000000000000000000000000000000"
                 "00000000000000000000")},
        {"CapturedUdp",
         FromHex("02000000000202000000000108004500002ff7f240004011fcce0afd18010afd18029c414e2300"
                 "1b46296e6f626f6479206c697374656e732068657265")},
        {"CapturedPortUnreachable",
         FromHex("020000000001020000000002080045c0004b633300004001d0c20afd18020afd180103033f68000000004500"
                 "002ff7f240004011fcce0afd18010afd18029c414e23001b46296e6f626f6479206c697374656e7320686572"
                 "65")},
        {"CapturedUdpWithOptions",
         FromHex("020000000002020000000001080046000020f80740004011f9c70afd18010afd1802010101009c424e230008"
                 "4616")},
        {"CapturedLastFragment",
         FromHex("020000000002020000000001080045000030f81300b940113bf40afd18010afd180200000000000000000000"
                 "000000000000000000000000000000000000")},
        {"CapturedTcpSyn",
         FromHex("02000000000202000000000108004500003c632040004006919f0afd18010afd1802e9524e25b3aeef440000"
                 "0000a002faf0462b0000020405b40402080a9b5874e4000000000103030a")},
        {"CapturedTcpData",
         FromHex("02000000000202000000000108004500003963224000400691a00afd18010afd1802e9524e25b3aeef450d6e"
                 "afaf8018003f462800000101080a9b5874e5b36e04836672616d65")},
        {"CapturedIgmpReport",
         FromHex("01005e000016020000000001080046c00028000040000102e0fb0afd1801e0000016940400002200e8f90000"
                 "000104000000ef010203")},
    };
}

std::string Find(const std::vector<Frame>& all, const std::string& name) {
    const auto found = std::find_if(all.begin(), all.end(), [&](const Frame& f) { return f.name == name; });
    if (found != all.end()) return found->bytes;
    ADD_FAILURE() << "no frame " << name;
    return {};
}

std::string WithProtocol(const std::string& frame, uint8_t protocol) {
    return WithChecksum(Changed(frame, kEthernet + kIpProtocolAt, Byte(protocol)));
}

std::string WithHeaderWords(const std::string& frame, uint8_t words) {
    return Changed(frame, kEthernet, Byte(static_cast<uint8_t>(0x40 | words)));
}

void AddTagged(std::vector<Frame>& all) {
    const std::vector<Frame> captured = all;
    uint16_t control_word = 0x6123;
    for (const Frame& frame : captured) {
        all.push_back({"Tagged" + frame.name.substr(8), Tagged(frame.bytes, control_word)});
        control_word = static_cast<uint16_t>(control_word * 5 + 0x1357);
    }
    const std::string ping = Find(all, "CapturedPingReply");
    all.push_back({"TaggedLowestControlWord", Tagged(ping, 0)});
    all.push_back({"TaggedHighestControlWord", Tagged(ping, 0xFFFF)});
    all.push_back({"TaggedWideIdentifierOnly", Tagged(ping, 0x0FF0)});
    all.push_back({"TaggedDropEligible", Tagged(ping, 0x1001)});
    all.push_back({"TaggedTwice", Tagged(Tagged(ping, 0x2002), 0x4004)});
    all.push_back({"TaggedByAProvider", Tagged(Tagged(ping, 0x2002), 0x4004, 0x88A8)});
}

void AddMade(std::vector<Frame>& all) {
    const std::string udp = Find(all, "CapturedUdp");
    const std::string tcp = Find(all, "CapturedTcpData");
    const std::string ping = Find(all, "CapturedPingReply");
    const std::string options = Find(all, "CapturedUdpWithOptions");
    const std::string tagged = Find(all, "TaggedPingReply");

    all.push_back({"MadeWrongChecksum", Changed(udp, kEthernet + kIpChecksumAt, "\x12\x34")});
    all.push_back({"MadeWrongOption", Changed(options, kEthernet + kIpHeader, "\x07")});
    all.push_back({"MadePadded", Find(all, "CapturedShortPingRequest") + std::string(14, '\x55')});
    for (const int protocol : {0, 4, 47, 50, 89, 132, 255})
        all.push_back(
            {"MadeProtocol" + std::to_string(protocol), WithProtocol(ping, static_cast<uint8_t>(protocol))});
    for (uint8_t words = 0; words < 16; ++words)
        all.push_back({"MadeHeaderOf" + std::to_string(words) + "Words", WithHeaderWords(tcp, words)});
    all.push_back({"MadeFifteenWordsInFortyBytes", WithHeaderWords(ping, 15).substr(0, 40)});
    all.push_back({"MadeVersion6InIpv4", Changed(udp, kEthernet, "\x65")});
    all.push_back({"MadeLengthInsteadOfType", Changed(udp, kTypeAt, Word(0x0026))});
    all.push_back({"MadeTypeOfLoopback", Changed(udp, kTypeAt, Word(0x9000))});
    for (const size_t size : {0, 1, 12, 13, 14, 15, 33, 34, 35, 37, 38, 41})
        all.push_back({"MadeUdpOf" + std::to_string(size) + "Bytes", udp.substr(0, size)});
    for (const size_t size : {17, 18, 19, 37, 38, 65, 66})
        all.push_back({"MadeTaggedPingOf" + std::to_string(size) + "Bytes", tagged.substr(0, size)});
    for (const size_t size : {53, 54, 55})
        all.push_back({"MadeTcpOf" + std::to_string(size) + "Bytes", tcp.substr(0, size)});
    for (const size_t size : {61, 62, 63})
        all.push_back({"MadePingOf" + std::to_string(size) + "Bytes", ping.substr(0, size)});
}

}  // namespace

const std::vector<Frame>& All() {
    static const std::vector<Frame> all = [] {
        std::vector<Frame> made = Captured();
        AddTagged(made);
        AddMade(made);
        return made;
    }();
    return all;
}

const std::string& Named(const std::string& name) {
    const auto found =
        std::find_if(All().begin(), All().end(), [&](const Frame& f) { return f.name == name; });
    if (found != All().end()) return found->bytes;
    ADD_FAILURE() << "no frame " << name;
    return All().front().bytes;
}

std::string Tagged(const std::string& frame, uint16_t control_word, uint16_t tag_type) {
    return frame.substr(0, kTypeAt) + Word(tag_type) + Word(control_word) + frame.substr(kTypeAt);
}

std::string Changed(std::string frame, size_t place, const std::string& bytes) {
    return frame.replace(place, bytes.size(), bytes);
}

std::string WithChecksum(std::string frame) {
    const size_t words = static_cast<unsigned char>(frame.at(kEthernet)) & 0xF;
    frame = Changed(frame, kEthernet + kIpChecksumAt, Word(0));
    uint32_t sum = 0;
    for (size_t i = kEthernet; i < kEthernet + kIpWord * words; i += 2)
        sum += static_cast<unsigned char>(frame.at(i)) * 256u + static_cast<unsigned char>(frame.at(i + 1));
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return Changed(frame, kEthernet + kIpChecksumAt, Word(static_cast<uint16_t>(0xFFFF - sum)));
}

std::string OnEthernet(const std::string& packet, uint16_t type) {
    static const std::string addresses("\x02\0\0\0\0\x02\x02\0\0\0\0\x01", kTypeAt);
    return addresses + Word(type) + packet;
}

}  // namespace frames

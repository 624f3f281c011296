/// kova_frame_table FILE
///
/// Writes the frames of the tests to a capture file, and prints what the library makes of each: a line per
/// frame, its values separated by tabs, names in the first line. Every frame is decoded by a new object.
#include "socket/frames/frames.h"

#include <kova/raw_socket.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

namespace {

/// Header of a capture file, and of each frame in it, in the byte order of this machine.
struct FileHeader {
    uint32_t magic = 0xA1B2C3D4;
    uint16_t major = 2;
    uint16_t minor = 4;
    int32_t zone = 0;
    uint32_t accuracy = 0;
    uint32_t longest = 65535;
    uint32_t link = 1;
};
struct FrameHeader {
    uint32_t seconds;
    uint32_t microseconds;
    uint32_t captured;
    uint32_t size;
};

template <typename Record>
void Write(std::ofstream& file, const Record& record) {
    file.write(reinterpret_cast<const char*>(&record), sizeof record);
}

bool WriteCapture(const char* path) {
    std::ofstream file(path, std::ios::binary);
    Write(file, FileHeader{});
    uint32_t seconds = 0;
    for (const frames::Frame& frame : frames::All()) {
        const auto size = static_cast<uint32_t>(frame.bytes.size());
        Write(file, FrameHeader{++seconds, 0, size, size});
        file << frame.bytes;
    }
    return file.flush().good();
}

std::string Dotted(KovaInetAddr* address) {
    char text[INET_ADDRSTRLEN] = "";
    const in_addr ip{address->GetIp()};
    return ::inet_ntop(AF_INET, &ip, text, sizeof text);
}

/// In host order, as the type of an ICMP packet is.
unsigned Port(const KovaRawSocket& socket, const KovaInetAddr& address) {
    if (socket.GetLastProtocol() == IPPROTO_ICMP) return address.GetPort();
    return ntohs(address.GetPort());
}

void Print(const frames::Frame& frame) {
    KovaRawSocket socket;
    const std::unique_ptr<char[]> exact(new char[frame.bytes.size()]);
    frame.bytes.copy(exact.get(), frame.bytes.size());
    const bool taken = socket.CheckPacket(exact.get(), frame.bytes.size());
    std::printf("%s\t%zu\t%d\t%d\t", frame.name.c_str(), frame.bytes.size(), taken, socket.GetError());
    std::printf("%s\t%s\t", socket.GetLastPeerMAC()->Ascii(), socket.GetLastLocalMAC()->Ascii());
    std::printf("%d\t%d\t%d\t", socket.GetLastWasVLAN(), socket.GetLastVLANId(), socket.GetLastVLANPrio());
    std::printf("%s\t%s\t", Dotted(socket.GetLastPeer()).c_str(), Dotted(socket.GetLastLocal()).c_str());
    std::printf("%u\t%u\t%u\t", socket.GetLastProtocol(), Port(socket, *socket.GetLastPeer()),
                Port(socket, *socket.GetLastLocal()));
    std::printf("%u\t%u\t%u\t%u\n", socket.GetIPOffset(), socket.GetProtocolOffset(), socket.GetDataOffset(),
                socket.GetDataLen());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || !WriteCapture(argv[1])) {
        std::fprintf(stderr, "usage: kova_frame_table FILE\n");
        return 1;
    }
    std::puts(
        "name\tsize\ttaken\terror\tsource\tdestination\ttagged\tvlan\tpriority\tfrom\tto\tprotocol\t"
        "from_port\tto_port\tip\tpayload\tdata\tdata_size");
    for (const frames::Frame& frame : frames::All()) Print(frame);
    return 0;
}

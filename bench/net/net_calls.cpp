/// kova-bench-net-calls SUBJECT COUNT: does one thing with the network COUNT times. Under strace, the system
/// calls of the repetitions stand between two calls of getppid.

#include "support/repeat.h"

#include <kova/icmp_socket.h>
#include <kova/mac_addr.h>
#include <kova/net_interfaces.h>
#include <kova/raw_socket.h>

#include <arpa/inet.h>

#include <string_view>

namespace {

using kova_bench::Repeat;

/// An IPv4 frame that holds nothing more.
unsigned char g_frame[] = {0,  1, 2, 3, 4, 5,  6,   7,    8,    9,   10, 11, 8, 0,   0x45, 0, 0,
                           20, 0, 0, 0, 0, 64, 255, 0x7a, 0xec, 127, 0,  0,  1, 127, 0,    0, 1};

bool Run(std::string_view subject, long count) {
    if (subject == "ping") {
        KovaIcmpSocket socket;
        return Repeat(count, [&] { return socket.Ping(htonl(INADDR_LOOPBACK), 1) == 1; });
    }
    if (subject == "decode") {
        KovaRawSocket socket;
        return Repeat(count, [&] { return socket.CheckPacket(g_frame, sizeof g_frame); });
    }
    if (subject == "mac-of-device") {
        KovaMacAddr mac;
        return Repeat(count, [&] { return mac.FetchFromDevice("lo").IsValid(); });
    }
    KovaNetInterfaces table;
    if (subject == "gather-again") return Repeat(count, [&] { return table.GatherInterfaces(); });
    return false;
}

}  // namespace

int main(int argc, char** argv) { return kova_bench::RunCounted(argc, argv, Run); }

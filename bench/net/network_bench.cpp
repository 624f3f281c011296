/// Pings of the loopback address, decoded frames, and the table of interfaces.

#include "net/net_by_hand.h"

#include <kova/icmp_socket.h>
#include <kova/net_interfaces.h>
#include <kova/raw_socket.h>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <tins/ethernetII.h>
#include <tins/ip.h>
#include <tins/rawpdu.h>
#include <tins/udp.h>

#include <iterator>
#include <string>
#include <vector>

namespace {

using kova_bench::HandFrame;
using kova_bench::HandPing;
using kova_bench::HandTable;

/// Repeats an operation until it fails.
template <typename Operation>
void Measure(benchmark::State& state, Operation operation) {
    for (auto _ : state) {
        if (operation()) continue;
        state.SkipWithError("an operation failed");
        break;
    }
}

const in_addr_t g_loopback = htonl(INADDR_LOOPBACK);

void PingByHand(benchmark::State& state) {
    HandPing ping;
    Measure(state, [&] { return ping.Ping(g_loopback); });
}

void PingByLibrary(benchmark::State& state) {
    KovaIcmpSocket socket;
    Measure(state, [&] { return socket.Ping(g_loopback, 1) == 1; });
}

/// A datagram of 64 bytes over UDP, in a frame with a VLAN tag.
const std::vector<uint8_t>& Frame() {
    static const std::vector<uint8_t> frame = [] {
        Tins::EthernetII packet = Tins::EthernetII("00:1b:2c:03:04:5e", "00:1b:2c:03:04:5f") /
                                  Tins::IP("10.253.24.2", "10.253.24.1") / Tins::UDP(20001, 20002) /
                                  Tins::RawPDU(std::string(64, 'x'));
        std::vector<uint8_t> bytes = packet.serialize();
        constexpr uint8_t kTag[] = {0x81, 0x00, 0x60, 0x03};
        bytes.insert(bytes.begin() + 12, std::begin(kTag), std::end(kTag));
        return bytes;
    }();
    return frame;
}

void DecodeByHand(benchmark::State& state) {
    HandFrame decoded;
    const std::vector<uint8_t> frame = Frame();
    Measure(state, [&] {
        benchmark::DoNotOptimize(&decoded);
        return decoded.Decode(frame.data(), frame.size());
    });
}

void DecodeByLibrary(benchmark::State& state) {
    KovaRawSocket socket;
    std::vector<uint8_t> frame = Frame();
    Measure(state, [&] { return socket.CheckPacket(frame.data(), frame.size()); });
}

void DecodeByTins(benchmark::State& state) {
    const std::vector<uint8_t> frame = Frame();
    Measure(state, [&] {
        const Tins::EthernetII decoded(frame.data(), static_cast<uint32_t>(frame.size()));
        return decoded.find_pdu<Tins::UDP>() != nullptr;
    });
}

void GatherByHand(benchmark::State& state, bool macs_known) {
    HandTable table;
    Measure(state, [&] { return table.Gather(macs_known) == 7; });
}

void GatherByLibrary(benchmark::State& state) {
    Measure(state, [] {
        KovaNetInterfaces table;
        return table.GatherInterfaces() && table.Count().GetId() == 7;
    });
}

void GatherAgainByLibrary(benchmark::State& state) {
    KovaNetInterfaces table;
    table.GatherInterfaces();
    Measure(state, [&] { return table.GatherInterfaces() && table.Count().GetId() == 7; });
}

[[maybe_unused]] const bool g_registered = [] {
    const auto add = [](const char* name, auto function, auto... arguments) {
        benchmark::RegisterBenchmark(name, function, arguments...)->MeasureProcessCPUTime()->UseRealTime();
    };
    add("ping/by-hand", PingByHand);
    add("ping/library", PingByLibrary);
    add("decode/by-hand", DecodeByHand);
    add("decode/library", DecodeByLibrary);
    add("decode/tins", DecodeByTins);
    add("gather/by-hand", GatherByHand, false);
    add("gather/library", GatherByLibrary);
    add("gather-again/by-hand", GatherByHand, true);
    add("gather-again/library", GatherAgainByLibrary);
    return true;
}();

}  // namespace

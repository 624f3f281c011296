/// Addresses as text, both ways.

#include <kova/inet_addr.h>
#include <kova/mac_addr.h>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <boost/asio/ip/address.hpp>
#include <netinet/ether.h>
#include <tins/hw_address.h>

#include <cstring>
#include <string>

namespace {

constexpr char kMac[] = "00:1b:2c:03:04:5e";
constexpr char kIp4[] = "10.253.24.117";
constexpr char kIp6[] = "2001:db8::8a2e:370:7334";

constexpr unsigned char kMacBytes[] = {0x00, 0x1b, 0x2c, 0x03, 0x04, 0x5e};

// MAC addresses. By hand: exactly two digits and a colon six times, nothing else is understood.

struct MacByHand {
    unsigned char bytes[6];
    bool valid;
    char text[18];
};

int DigitByHand(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

[[gnu::noinline]] void ParseByHand(MacByHand& mac, const char* text) {
    mac.valid = false;
    for (unsigned char& byte : mac.bytes) {
        const int high = DigitByHand(text[0]), low = high < 0 ? -1 : DigitByHand(text[1]);
        if (low < 0) return;
        byte = static_cast<unsigned char>(high * 16 + low);
        text += 2;
        if (*text == ':') ++text;
    }
    mac.valid = true;
}

[[gnu::noinline]] const char* PrintByHand(MacByHand& mac) {
    constexpr char kDigits[] = "0123456789abcdef";
    char* to = mac.text;
    for (const unsigned char byte : mac.bytes) {
        *to++ = kDigits[byte >> 4];
        *to++ = kDigits[byte & 0xF];
        *to++ = ':';
    }
    to[-1] = '\0';
    return mac.text;
}

/// Repeats an operation whose result nobody uses.
template <typename Operation>
void Measure(benchmark::State& state, Operation operation) {
    for (auto _ : state) benchmark::DoNotOptimize(operation());
}

void ParseMacByHand(benchmark::State& state) {
    MacByHand mac;
    Measure(state, [&] { return ParseByHand(mac, kMac), mac.bytes[5]; });
}

void ParseMacByLibrary(benchmark::State& state) {
    KovaMacAddr mac;
    Measure(state, [&] { return (mac = kMac).GetUnsigned()[5]; });
}

void ParseMacByEther(benchmark::State& state) {
    ether_addr mac;
    Measure(state, [&] { return ::ether_aton_r(kMac, &mac)->ether_addr_octet[5]; });
}

void ParseMacByTins(benchmark::State& state) {
    Measure(state, [] { return *Tins::HWAddress<6>(kMac).begin(); });
}

void PrintMacByHand(benchmark::State& state) {
    MacByHand mac{};
    std::memcpy(mac.bytes, kMacBytes, sizeof mac.bytes);
    Measure(state, [&] { return PrintByHand(mac)[0]; });
}

void PrintMacByLibrary(benchmark::State& state) {
    const KovaMacAddr mac(kMacBytes);
    Measure(state, [&] { return mac.Ascii()[0]; });
}

void PrintMacByEther(benchmark::State& state) {
    ether_addr mac;
    std::memcpy(&mac, kMacBytes, sizeof mac);
    char text[18];
    Measure(state, [&] { return ::ether_ntoa_r(&mac, text)[0]; });
}

void PrintMacByTins(benchmark::State& state) {
    const Tins::HWAddress<6> mac(kMacBytes);
    Measure(state, [&] { return mac.to_string()[0]; });
}

// Internet addresses. By hand: into the 16 bytes that an address holds, and from them.

void MapByHand(in6_addr& ip, in_addr ip4) {
    ip = {};
    ip.s6_addr[10] = ip.s6_addr[11] = 0xFF;
    std::memcpy(ip.s6_addr + 12, &ip4, sizeof ip4);
}

void ParseIp4ByHand(benchmark::State& state) {
    in6_addr ip;
    Measure(state, [&] {
        in_addr ip4;
        if (::inet_pton(AF_INET, kIp4, &ip4) == 1) MapByHand(ip, ip4);
        return ip.s6_addr[15];
    });
}

void ParseIp6ByHand(benchmark::State& state) {
    in6_addr ip;
    Measure(state, [&] {
        in_addr ip4;
        if (::inet_pton(AF_INET, kIp6, &ip4) == 1) {
            MapByHand(ip, ip4);
        } else {
            ::inet_pton(AF_INET6, kIp6, &ip);
        }
        return ip.s6_addr[15];
    });
}

void ParseIpByLibrary(benchmark::State& state, const char* text) {
    KovaInetAddr address(0, 0);
    Measure(state, [&] { return (address = text).GetIp(); });
}

void ParseIpByAsio(benchmark::State& state, const char* text) {
    Measure(state, [&] { return boost::asio::ip::make_address(text).is_v4(); });
}

void PrintIp4ByHand(benchmark::State& state) {
    in_addr ip4;
    ::inet_pton(AF_INET, kIp4, &ip4);
    char text[INET6_ADDRSTRLEN];
    Measure(state, [&] { return ::inet_ntop(AF_INET, &ip4, text, sizeof text)[0]; });
}

void PrintIp6ByHand(benchmark::State& state) {
    in6_addr ip;
    ::inet_pton(AF_INET6, kIp6, &ip);
    char text[INET6_ADDRSTRLEN];
    Measure(state, [&] { return ::inet_ntop(AF_INET6, &ip, text, sizeof text)[0]; });
}

void PrintIpByLibrary(benchmark::State& state, const char* text) {
    const KovaInetAddr address(text, 0);
    Measure(state, [&] { return address.GetAsciiIp()[0]; });
}

void PrintIpByAsio(benchmark::State& state, const char* text) {
    const auto address = boost::asio::ip::make_address(text);
    Measure(state, [&] { return address.to_string()[0]; });
}

[[maybe_unused]] const bool g_registered = [] {
    const auto add = [](const char* name, auto function, auto... arguments) {
        benchmark::RegisterBenchmark(name, function, arguments...)->MeasureProcessCPUTime()->UseRealTime();
    };
    add("mac-parse/by-hand", ParseMacByHand);
    add("mac-parse/library", ParseMacByLibrary);
    add("mac-parse/ether", ParseMacByEther);
    add("mac-parse/tins", ParseMacByTins);
    add("mac-print/by-hand", PrintMacByHand);
    add("mac-print/library", PrintMacByLibrary);
    add("mac-print/ether", PrintMacByEther);
    add("mac-print/tins", PrintMacByTins);
    add("ip4-parse/by-hand", ParseIp4ByHand);
    add("ip4-parse/library", ParseIpByLibrary, kIp4);
    add("ip4-parse/asio", ParseIpByAsio, kIp4);
    add("ip4-print/by-hand", PrintIp4ByHand);
    add("ip4-print/library", PrintIpByLibrary, kIp4);
    add("ip4-print/asio", PrintIpByAsio, kIp4);
    add("ip6-parse/by-hand", ParseIp6ByHand);
    add("ip6-parse/library", ParseIpByLibrary, kIp6);
    add("ip6-parse/asio", ParseIpByAsio, kIp6);
    add("ip6-print/by-hand", PrintIp6ByHand);
    add("ip6-print/library", PrintIpByLibrary, kIp6);
    add("ip6-print/asio", PrintIpByAsio, kIp6);
    return true;
}();

}  // namespace

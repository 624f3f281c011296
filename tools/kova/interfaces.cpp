#include "interfaces.h"

#include "hex_dump.h"
#include "json.h"
#include "privilege.h"
#include "report.h"

#include <kova/net_interfaces.h>

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

namespace {

typedef KovaNetInterfaces::KovaNetInterface Interface;

constexpr const char* kCapability = "cap_net_admin";

/// Fills the table. Without the privilege to change anything: with it, the table would take the addresses of
/// all interfaces that are down.
void Gather(KovaNetInterfaces& table) {
    const NetAdminOff off;
    errno = 0;
    if (!table.GatherInterfaces())
        throw std::runtime_error("cannot read the list of interfaces: error " + CodeText(errno));
    table.ClearError();
}

std::string IpText(const KovaInetAddr& address) { return address.GetAsciiIp(); }

// Listing

const char* TypeText(KovaNetInterfaces::IfTypeT type) {
    switch (type) {
        case KovaNetInterfaces::IF_TYPE_LOOPBACK:
            return "loopback";
        case KovaNetInterfaces::IF_TYPE_ETHERNET:
            return "ethernet";
        default:
            return "none";
    }
}

std::string JsonOf(Interface& interface) {
    JsonObject json;
    json.AddNumber("id", static_cast<uint64_t>(interface.GetInterfaceId().GetId()))
        .AddText("name", interface.GetName())
        .AddText("type", TypeText(interface.GetType()))
        .AddText("address", IpText(interface.GetAddress()))
        .AddText("netmask", IpText(interface.GetNetMask()))
        .AddText("subnet", IpText(interface.GetSubNet()))
        .AddText("broadcast", IpText(interface.GetBCastAddr()))
        .AddText("status", interface.GetStatus() == KovaNetInterfaces::IF_STATUS_UP ? "up" : "down");
    const KovaMacAddr& mac = interface.GetMacAddress();
    if (mac.IsValid()) {
        json.AddText("mac", mac.Ascii());
    } else {
        json.AddNull("mac");
    }
    json.AddRaw("alias", std::to_string(interface.GetAlias().GetId()));
    return json.Text();
}

std::string Array(KovaNetInterfaces& table) {
    std::string text;
    for (int id = 0; id < table.Count().GetId(); ++id) {
        text += (text.empty() ? "[\n" : ",\n") + JsonOf(table[id]);
    }
    return text.empty() ? "[]\n" : text + "\n]\n";
}

// Changes

std::string BaseName(const std::string& name) { return name.substr(0, name.find(':')); }

bool Exists(const std::string& name) { return if_nametoindex(BaseName(name).c_str()) != 0; }

void CheckExists(const std::string& name) {
    if (!Exists(name)) throw UsageError("no interface " + NameText(name));
}

/// What the kernel says of an interface.
struct KernelState {
    bool up = false;
    bool has_address = false;  ///< the one that was asked for
};

KernelState StateOf(const std::string& name, in_addr_t address) {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) < 0) throw std::system_error(errno, std::generic_category(), "getifaddrs");
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
    KernelState state;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (BaseName(name) == BaseName(entry->ifa_name)) state.up |= (entry->ifa_flags & IFF_UP) != 0;
        if (name != entry->ifa_name || entry->ifa_addr == nullptr) continue;
        if (entry->ifa_addr->sa_family != AF_INET) continue;
        sockaddr_in one;
        memcpy(&one, entry->ifa_addr, sizeof one);
        state.has_address |= one.sin_addr.s_addr == address;
    }
    return state;
}

[[noreturn]] void Fail(const std::string& what, const std::string& name, int error) {
    throw std::runtime_error("cannot " + what + " " + NameText(name) + ": error " + CodeText(error) +
                             PrivilegeHint(error, kCapability));
}

Interface& Find(KovaNetInterfaces& table, const std::string& name) {
    Interface& found = table[name.c_str()];
    if (found.GetInterfaceId().GetId() >= 0) return found;
    throw UsageError("interface " + NameText(name) +
                     " is not in the library's table: it has no IPv4 address ('kova interfaces set' gives it "
                     "one), or is not among the first seven");
}

in_addr_t ParseIp(const char* option, const std::string& text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1)
        throw UsageError(std::string(option) + " " + NameText(text) + ": not a numeric IPv4 address");
    return address.s_addr;
}

in_addr_t ParseNetmask(const std::string& text) {
    const in_addr_t netmask = ParseIp("--netmask", text);
    const uint32_t host_part = ~ntohl(netmask);
    if ((host_part & (host_part + 1)) != 0)
        throw UsageError("--netmask " + NameText(text) + ": not a netmask");
    return netmask;
}

/// Stricter than the library, which reads meaningless bytes from texts of other forms.
KovaMacAddr ParseMac(const std::string& text) {
    const bool colons = text.find(':') != text.npos;
    bool right = text.size() == (colons ? 17 : 12);
    for (size_t i = 0; right && i < text.size(); ++i) {
        const bool is_colon = colons && i % 3 == 2;
        right = is_colon ? text[i] == ':' : std::isxdigit(static_cast<unsigned char>(text[i])) != 0;
    }
    if (!right) throw UsageError("--mac " + NameText(text) + ": not a MAC address (02:00:00:00:00:01)");
    return KovaMacAddr(text);
}

// Requests of the tool's own: the library tells that a step failed, but neither which one nor why.

int Ask(unsigned long number, const ifreq& request) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return errno;
    ifreq copy = request;
    const int error = ::ioctl(fd, number, &copy) < 0 ? errno : 0;
    ::close(fd);
    return error;
}

ifreq RequestFor(const std::string& name) {
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    return request;
}

/// The errno of a failure, 0 for success.
int SetInKernel(unsigned long number, const std::string& name, in_addr_t address) {
    sockaddr_in value{};
    value.sin_family = AF_INET;
    value.sin_addr.s_addr = address;
    ifreq request = RequestFor(name);
    memcpy(&request.ifr_addr, &value, sizeof value);
    return Ask(number, request);
}

/// Repeats the steps of `Reconfigure` up to the one that fails, to tell it. Returns if all succeed now.
void ConfigureOrFail(Interface& interface) {
    const std::string name = interface.GetName();
    const struct {
        unsigned long number;
        const char* what;
        in_addr_t address;
    } steps[] = {{SIOCSIFADDR, "set the address of", interface.GetAddress().GetIp()},
                 {SIOCSIFNETMASK, "set the netmask of", interface.GetNetMask().GetIp()},
                 {SIOCSIFBRDADDR, "set the broadcast address of", interface.GetBCastAddr().GetIp()}};
    for (const auto& step : steps) {
        if (const int error = SetInKernel(step.number, name, step.address); error != 0)
            Fail(step.what, name, error);
    }
}

void SetMacOrFail(const std::string& name, const KovaMacAddr& mac) {
    ifreq request = RequestFor(name);
    request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
    memcpy(request.ifr_hwaddr.sa_data, mac.GetUnsigned(), KovaMacAddr::kSize);
    if (const int error = Ask(SIOCSIFHWADDR, request); error != 0)
        Fail("set the MAC address of", name, error);
}

/// The library knows interfaces with an address only.
void GiveFirstAddress(const std::string& name, in_addr_t address) {
    if (const int error = SetInKernel(SIOCSIFADDR, name, address); error != 0)
        Fail("set the address of", name, error);
}

/// What `kova interfaces set` is to set.
struct Wanted {
    std::optional<in_addr_t> address;
    std::optional<in_addr_t> netmask;
    std::optional<KovaMacAddr> mac;

    explicit Wanted(const InterfaceSetOptions& options) {
        if (!options.address.empty()) address = ParseIp("--address", options.address);
        if (!options.netmask.empty()) netmask = ParseNetmask(options.netmask);
        if (!options.mac.empty()) mac = ParseMac(options.mac);
        if (!address && !netmask && !mac)
            throw UsageError("nothing to set: give --address, --netmask or --mac");
        if (address == in_addr_t{0})
            throw UsageError("--address 0.0.0.0: 'kova interfaces down' takes it away");
    }
};

bool IsListed(const std::string& name) {
    KovaNetInterfaces table;
    Gather(table);
    return table[name.c_str()].GetInterfaceId().GetId() >= 0;
}

void SetMac(Interface& interface, const KovaMacAddr& mac) {
    if (interface.GetType() != KovaNetInterfaces::IF_TYPE_ETHERNET)
        throw UsageError(std::string(interface.GetName()) + " has no MAC address that could be set");
    if (!interface.SetMacAddress(mac)) SetMacOrFail(interface.GetName(), mac);
}

void SetAddresses(Interface& interface, const Wanted& wanted) {
    if (wanted.address) interface.SetAddress(KovaInetAddr(*wanted.address, 0));
    if (wanted.netmask) interface.SetNetMask(KovaInetAddr(*wanted.netmask, 0));
    if (!interface.Reconfigure()) ConfigureOrFail(interface);
}

}  // namespace

int InterfaceList(const InterfaceListOptions& options) {
    KovaNetInterfaces table;
    Gather(table);
    if (options.json) {
        Print(Array(table));
    } else {
        table.Print();
    }
    return kExitOk;
}

int InterfaceUp(const std::string& name) {
    CheckExists(name);
    KovaNetInterfaces table;
    Gather(table);
    Interface& interface = Find(table, name);
    if (interface.GetStatus() == KovaNetInterfaces::IF_STATUS_UP) {
        Print(NameText(name) + " is up already\n");
        return kExitOk;
    }
    if (!interface.SetStatus(KovaNetInterfaces::IF_STATUS_UP)) {
        if (table.GetError() != KovaBaseObject::KOVA_ERR_NONE) Fail("take up", name, table.GetError());
        ConfigureOrFail(interface);
    }
    Print(NameText(name) + " is up: address " + IpText(interface.GetAddress()) + ", netmask " +
          IpText(interface.GetNetMask()) + "\n");
    return kExitOk;
}

int InterfaceDown(const std::string& name) {
    CheckExists(name);
    KovaNetInterfaces table;
    Gather(table);
    Interface& interface = Find(table, name);
    if (interface.GetStatus() == KovaNetInterfaces::IF_STATUS_DOWN) {
        Print(NameText(name) + " is down already\n");
        return kExitOk;
    }
    // The result says nothing: the kernel has no netmask to take away once the address is gone, which counts
    // as a failure.
    interface.SetStatus(KovaNetInterfaces::IF_STATUS_DOWN);
    const KovaInetAddr address = interface.GetAddress();
    const KernelState state = StateOf(name, address.GetIp());
    if (state.has_address) {
        if (const int error = SetInKernel(SIOCSIFADDR, name, 0); error != 0)
            Fail("take the address of", name, error);
    }
    // The device of an alias stays up.
    const bool is_alias = name != BaseName(name);
    if (state.up && !is_alias) Fail("take down", name, table.GetError());
    Print(NameText(name) + (is_alias ? " has lost" : " is down and has lost") + " its address " +
          IpText(address) + "\n");
    return kExitOk;
}

int InterfaceSet(const InterfaceSetOptions& options) {
    const Wanted wanted(options);
    const std::string& name = options.name;
    CheckExists(name);
    if (wanted.address && !IsListed(name)) {
        if (!wanted.netmask) throw UsageError(NameText(name) + " has no address yet: give --netmask, too");
        GiveFirstAddress(name, *wanted.address);
    }
    KovaNetInterfaces table;
    Gather(table);
    Interface& interface = Find(table, name);
    if (wanted.mac) SetMac(interface, *wanted.mac);
    if (wanted.address || wanted.netmask) SetAddresses(interface, wanted);
    Print(NameText(name) + ": address " + IpText(interface.GetAddress()) + ", netmask " +
          IpText(interface.GetNetMask()) + ", MAC " + interface.GetMacAddress().Ascii() + "\n");
    return kExitOk;
}

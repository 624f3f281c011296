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

/// Interfaces in the library's table.
constexpr int kMostListed = 7;

/// Fills the table. Without the privilege to change anything: with it, the table would take the addresses of
/// all interfaces that are down.
void Gather(KovaNetInterfaces& table) {
    const NetAdminOff off;
    errno = 0;
    if (!table.GatherInterfaces())
        throw std::runtime_error("cannot read the list of interfaces: " + FailureText(errno));
    table.ClearError();
}

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

bool IsAlias(const std::string& name) { return name != BaseName(name); }

/// What the kernel says of an interface.
struct KernelState {
    bool up = false;
    bool loopback = false;
    int addresses = 0;  ///< IPv4 addresses of this very name
    in_addr_t address = 0;
    in_addr_t netmask = 0;

    void AddAddress(const ifaddrs& entry) {
        ++addresses;
        address = IpOf(entry.ifa_addr);
        netmask = IpOf(entry.ifa_netmask);
    }

  private:
    static in_addr_t IpOf(const sockaddr* address) {
        if (address == nullptr) return 0;
        sockaddr_in one;
        memcpy(&one, address, sizeof one);
        return one.sin_addr.s_addr;
    }
};

/// Throws UsageError if there is no such device.
KernelState StateOf(const std::string& name) {
    InterfaceIndex(BaseName(name));
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) < 0) throw std::system_error(errno, std::generic_category(), "getifaddrs");
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
    KernelState state;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (BaseName(name) != BaseName(entry->ifa_name)) continue;
        state.up |= (entry->ifa_flags & IFF_UP) != 0;
        state.loopback |= (entry->ifa_flags & IFF_LOOPBACK) != 0;
        const bool is_ipv4 = entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET;
        if (is_ipv4 && name == entry->ifa_name) state.AddAddress(*entry);
    }
    return state;
}

std::string AddressesText(const KernelState& state) {
    if (state.addresses == 0) return "no address";
    return "address " + IpText(KovaInetAddr(state.address, 0)) + ", netmask " +
           IpText(KovaInetAddr(state.netmask, 0));
}

[[noreturn]] void Fail(const std::string& what, const std::string& name, int error) {
    throw std::runtime_error("cannot " + what + " " + NameText(name) + ": " + FailureText(error) +
                             PrivilegeHint(error, kCapability));
}

Interface& Find(KovaNetInterfaces& table, const std::string& name) {
    Interface& found = table[name.c_str()];
    if (found.GetInterfaceId().GetId() >= 0) return found;
    const bool has_address = StateOf(name).addresses != 0;
    throw UsageError("interface " + NameText(name) + " is not in the library's table: " +
                     (has_address ? "its address is not among the first seven"
                                  : "it has no IPv4 address ('kova interfaces set' gives it one)"));
}

/// The kernel's requests name no address: they would change now this one, now that one.
void CheckOneAddress(const std::string& name, const KernelState& state) {
    if (state.addresses > 1)
        throw UsageError("interface " + NameText(name) + " has " + std::to_string(state.addresses) +
                         " IPv4 addresses of this name; it can be changed with one only");
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

/// By name: the library knows interfaces with an address only.
void SetMac(const std::string& name, const KovaMacAddr& mac) {
    ifreq request = RequestFor(name);
    request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
    memcpy(request.ifr_hwaddr.sa_data, mac.GetUnsigned(), KovaMacAddr::kSize);
    if (const int error = Ask(SIOCSIFHWADDR, request); error != 0)
        Fail("set the MAC address of", name, error);
}

/// As above.
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

    bool ChangesAddresses() const { return address || netmask; }
};

/// Whether a first address would be among the seven of the table: the kernel lists devices by their indexes.
bool WouldBeListed(const std::string& name) {
    KovaNetInterfaces table;
    Gather(table);
    const int count = table.Count().GetId();
    if (count < kMostListed) return true;
    return InterfaceIndex(BaseName(name)) < InterfaceIndex(BaseName(table[count - 1].GetName()));
}

void CheckFirstAddress(const std::string& name, const Wanted& wanted) {
    if (!wanted.address || !wanted.netmask)
        throw UsageError(NameText(name) + " has no address yet: give both --address and --netmask");
    if (!WouldBeListed(name))
        throw UsageError(
            NameText(name) +
            " gets no address: it would not be among the first seven, which the library's table has");
}

/// Throws UsageError for what cannot be set, before anything is. Returns what there is.
KernelState CheckSettable(const std::string& name, const Wanted& wanted) {
    const KernelState state = StateOf(name);
    if (wanted.mac && state.loopback)
        throw UsageError(NameText(name) + " has no MAC address that could be set");
    if (!wanted.ChangesAddresses()) return state;
    CheckOneAddress(name, state);
    if (state.addresses == 0) {
        CheckFirstAddress(name, wanted);
    } else {
        KovaNetInterfaces table;
        Gather(table);
        Find(table, name);
    }
    return state;
}

void SetAddresses(const std::string& name, const Wanted& wanted) {
    KovaNetInterfaces table;
    Gather(table);
    Interface& interface = Find(table, name);
    if (wanted.address) interface.SetAddress(KovaInetAddr(*wanted.address, 0));
    if (wanted.netmask) interface.SetNetMask(KovaInetAddr(*wanted.netmask, 0));
    if (!interface.Reconfigure()) ConfigureOrFail(interface);
}

}  // namespace

unsigned InterfaceIndex(const std::string& name) {
    const unsigned index = if_nametoindex(name.c_str());
    if (index == 0) throw UsageError("no interface " + NameText(name));
    return index;
}

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
    const KernelState before = StateOf(name);
    KovaNetInterfaces table;
    Gather(table);
    Interface& interface = Find(table, name);
    if (interface.GetStatus() == KovaNetInterfaces::IF_STATUS_UP) {
        Print(NameText(name) + " is up already\n");
        return kExitOk;
    }
    // The kernel takes the request for an alias, too, and does nothing.
    if (IsAlias(name))
        throw std::runtime_error("cannot take up " + NameText(name) + ": its device " +
                                 NameText(BaseName(name)) + " is down");
    CheckOneAddress(name, before);
    if (!interface.SetStatus(KovaNetInterfaces::IF_STATUS_UP)) {
        if (table.GetError() != KovaBaseObject::KOVA_ERR_NONE) Fail("take up", name, table.GetError());
        ConfigureOrFail(interface);
    }
    const KernelState state = StateOf(name);
    if (!state.up) Fail("take up", name, table.GetError());
    Print(NameText(name) + " is up: " + AddressesText(state) + "\n");
    return kExitOk;
}

int InterfaceDown(const std::string& name) {
    const KernelState before = StateOf(name);
    KovaNetInterfaces table;
    Gather(table);
    Interface& interface = Find(table, name);
    if (interface.GetStatus() == KovaNetInterfaces::IF_STATUS_DOWN) {
        Print(NameText(name) + " is down already\n");
        return kExitOk;
    }
    CheckOneAddress(name, before);
    // The result says nothing: the kernel has no netmask to take away once the address is gone, which counts
    // as a failure.
    interface.SetStatus(KovaNetInterfaces::IF_STATUS_DOWN);
    const KernelState state = StateOf(name);
    if (state.addresses != 0) {
        if (const int error = SetInKernel(SIOCSIFADDR, name, 0); error != 0)
            Fail("take the address of", name, error);
    }
    // The device of an alias stays up.
    if (state.up && !IsAlias(name)) Fail("take down", name, table.GetError());
    Print(NameText(name) + (IsAlias(name) ? " has lost" : " is down and has lost") + " its address " +
          IpText(interface.GetAddress()) + "\n");
    return kExitOk;
}

int InterfaceSet(const InterfaceSetOptions& options) {
    const Wanted wanted(options);
    const std::string& name = options.name;
    const KernelState before = CheckSettable(name, wanted);
    if (wanted.mac) SetMac(name, *wanted.mac);
    if (wanted.ChangesAddresses()) {
        if (before.addresses == 0) GiveFirstAddress(name, *wanted.address);
        SetAddresses(name, wanted);
    }
    KovaMacAddr mac;
    mac.FetchFromDevice(name.c_str());
    Print(NameText(name) + ": " + AddressesText(StateOf(name)) + ", MAC " + mac.Ascii() + "\n");
    return kExitOk;
}

#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/second_host.h"
#include "support/trace_recorder.h"

#include <kova/net_interfaces.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <linux/capability.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Interface = KovaNetInterfaces::KovaNetInterface;
using Texts = std::vector<std::string>;

constexpr int kInvalid = 30018;
constexpr char kHeading[] =
    "Ethernet Interfaces:\n"
    "Id Typ Address          Netmask          SubNet       Status Name        MAC                Alias\n";

/// Network-order word of a dotted address.
in_addr_t Ip(const char* dotted) {
    in_addr address{};
    EXPECT_EQ(1, ::inet_pton(AF_INET, dotted, &address)) << dotted;
    return address.s_addr;
}

KovaInetAddr Address(const char* dotted) { return {Ip(dotted), 0}; }

/// The address as number, as the trace shows it.
uint32_t Number(const char* dotted) { return ntohl(Ip(dotted)); }

std::string Text(const KovaInetAddr& address) { return static_cast<const char*>(address); }

Texts operator+(Texts a, const Texts& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/// An interface as a kernel lists it.
struct Link {
    std::string name;
    const char* address;
    const char* netmask = "255.255.255.0";
    short flags = IFF_UP | IFF_BROADCAST;
    unsigned char mac = 1;  ///< its last byte, behind 02:00:00:00:00; 0 is all zero
    sa_family_t family = AF_INET;
};

/// Answers the library's requests about interfaces in place of the kernel, and notes them.
class FakeKernel {
  public:
    FakeKernel(std::initializer_list<Link> known) : FakeKernel(std::vector<Link>(known)) {}
    explicit FakeKernel(std::vector<Link> known) : links(std::move(known)) {
        m_Requests.When([](int, unsigned long request, void*) { return request != FIONBIO; });
    }

    /// Refuses the request that comes after `count` others with EIO.
    void RefuseAfter(size_t count) {
        m_Left = count;
        m_Refuses = true;
    }
    bool HasRefused() const { return !m_Refuses; }

    /// The requests since the last call, without what a socket is prepared with.
    Texts Requests() {
        Texts texts;
        for (const std::string& text : m_Journal.Texts(fake::ioctl)) {
            if (text.find("FIONBIO") == std::string::npos) texts.push_back(text.substr(sizeof "ioctl"));
        }
        m_Journal.Clear();
        return texts;
    }
    fake::Journal& Calls() { return m_Journal; }

    std::vector<Link> links;
    std::optional<int> list_length;  ///< told in place of the list's real length

  private:
    static int Refuse(int error) {
        errno = error;
        return -1;
    }

    static void Store(ifreq& entry, const char* dotted, sa_family_t family = AF_INET) {
        sockaddr_in address{};
        address.sin_family = family;
        address.sin_port = 99;
        address.sin_addr.s_addr = Ip(dotted);
        std::memcpy(&entry.ifr_addr, &address, sizeof address);
    }

    int List(ifconf& list) const {
        const std::array<char, 512> zeros{};
        EXPECT_EQ(0, std::memcmp(list.ifc_buf, zeros.data(), zeros.size()));
        int length = 0;
        for (const Link& link : links) {
            ifreq entry{};
            // Names of all sixteen characters included.
            std::memcpy(entry.ifr_name, link.name.data(), link.name.size());
            Store(entry, link.address, link.family);
            std::memcpy(list.ifc_buf + length, &entry, sizeof entry);
            length += static_cast<int>(sizeof entry);
        }
        list.ifc_len = list_length.value_or(length);
        return 0;
    }

    int Answer(unsigned long request, void* argument) {
        if (m_Refuses && m_Left-- == 0) {
            m_Refuses = false;
            return Refuse(EIO);
        }
        if (request == SIOCGIFCONF) return List(*static_cast<ifconf*>(argument));
        ifreq& asked = *static_cast<ifreq*>(argument);
        for (Link& link : links) {
            if (link.name.substr(0, IFNAMSIZ - 1) == asked.ifr_name) return Answer(request, asked, link);
        }
        return Refuse(ENODEV);
    }

    static int Answer(unsigned long request, ifreq& asked, Link& link) {
        switch (request) {
            case SIOCGIFFLAGS:
                asked.ifr_flags = link.flags;
                return 0;
            case SIOCGIFNETMASK:
                Store(asked, link.netmask);
                return 0;
            case SIOCGIFADDR:
            case SIOCGIFBRDADDR:
                Store(asked, link.address);
                return 0;
            case SIOCGIFHWADDR: {
                const unsigned char first = link.mac == 0 ? 0 : 2;
                const unsigned char bytes[] = {first, 0, 0, 0, 0, link.mac};
                std::memcpy(asked.ifr_hwaddr.sa_data, bytes, sizeof bytes);
                return 0;
            }
            case SIOCSIFHWADDR:
                link.mac = static_cast<unsigned char>(asked.ifr_hwaddr.sa_data[5]);
                return 0;
            default:
                return 0;
        }
    }

    bool m_Refuses = false;
    size_t m_Left = 0;
    fake::Journal m_Journal{&fake::socket, &fake::ioctl, &fake::close};
    fake::Replace<int(int, unsigned long, void*)> m_Requests{
        fake::ioctl,
        [this](int, unsigned long request, void* argument) { return Answer(request, argument); }};
};

/// What the requests of each operation look like, for an interface called `name`.
Texts AskAddresses(const std::string& name) {
    return {"SIOCGIFADDR " + name + " 0.0.0.0:0", "SIOCGIFNETMASK " + name + " 0.0.0.0:0",
            "SIOCGIFBRDADDR " + name + " 0.0.0.0:0"};
}

Texts SetAddresses(const std::string& name, const std::string& address, const std::string& netmask,
                   const std::string& broadcast) {
    return {"SIOCSIFADDR " + name + " " + address + ":0", "SIOCSIFNETMASK " + name + " " + netmask + ":0",
            "SIOCSIFBRDADDR " + name + " " + broadcast + ":0"};
}

Texts ClearAddresses(const std::string& name) { return SetAddresses(name, "0.0.0.0", "0.0.0.0", "0.0.0.0"); }

Texts Flags(const std::string& name, const std::string& flags) {
    return {"SIOCGIFFLAGS " + name, "SIOCSIFFLAGS " + name + " " + flags};
}

/// The other requests that gathering makes about one interface.
Texts AskNetMaskAndMac(const std::string& name) {
    return {"SIOCGIFNETMASK " + name + " 0.0.0.0:0", "SIOCGIFHWADDR " + name};
}

/// A table in a network of its own that has nothing but `lo`, 127.0.0.1/8.
class NetInterfaces : public KovaTest {
  protected:
    NetInterfaces() {
        EXPECT_EQ(0, ::unshare(CLONE_NEWNET));
        Shell("ip link set lo up");
    }

    /// Gathers from a fake kernel and forgets how.
    void Gather(FakeKernel& kernel) {
        EXPECT_TRUE(table.GatherInterfaces());
        Forget(kernel);
    }
    void Forget(FakeKernel& kernel) {
        kernel.Requests();
        table.ClearError();
        trace.Clear();
    }

    void ExpectRecord(int slot, const char* name, const char* address, const char* netmask, int type,
                      int status) {
        Interface& one = table[slot];
        EXPECT_EQ(one.GetInterfaceId(), slot);
        EXPECT_STREQ(one.GetName(), name);
        EXPECT_EQ(Text(one.GetAddress()), address);
        EXPECT_EQ(Text(one.GetNetMask()), netmask);
        EXPECT_EQ(one.GetSubNet().GetIp(), Ip(address) & Ip(netmask));
        EXPECT_EQ(one.GetBCastAddr().GetIp(), Ip(address) | ~Ip(netmask));
        EXPECT_EQ(one.GetType(), type);
        EXPECT_EQ(one.GetStatus(), status);
    }

    /// What Print writes below its heading.
    std::string Listing() {
        testing::internal::CaptureStdout();
        table.Print();
        std::fflush(stdout);
        const std::string text = testing::internal::GetCapturedStdout();
        EXPECT_EQ(text.substr(0, sizeof kHeading - 1), kHeading);
        return text.size() < sizeof kHeading ? "" : text.substr(sizeof kHeading - 1);
    }

    KovaNetInterfaces table;
    TraceRecorder trace;
};

const std::vector<Link> kLoopbackAndTwo{{"lo", "127.0.0.1", "255.0.0.0", IFF_UP | IFF_LOOPBACK, 0},
                                        {"eth0", "10.1.2.3", "255.255.255.0", IFF_UP | IFF_BROADCAST, 1},
                                        {"eth0:1", "10.2.3.4", "255.255.0.0", IFF_UP | IFF_BROADCAST, 1}};

// The table before and after gathering

TEST_F(NetInterfaces, EnumerationsHaveTheirNumbers) {
    static_assert(std::is_same_v<std::underlying_type_t<KovaNetInterfaces::IfTypeT>, int>);
    static_assert(std::is_same_v<std::underlying_type_t<KovaNetInterfaces::IfStatusT>, int>);
    EXPECT_EQ(KovaNetInterfaces::IF_TYPE_NONE, 0);
    EXPECT_EQ(KovaNetInterfaces::IF_TYPE_LOOPBACK, 1);
    EXPECT_EQ(KovaNetInterfaces::IF_TYPE_ETHERNET, 2);
    EXPECT_EQ(KovaNetInterfaces::IF_TYPE_EXTERN, 3);
    EXPECT_EQ(KovaNetInterfaces::IF_STATUS_UP, 1);
    EXPECT_EQ(KovaNetInterfaces::IF_STATUS_DOWN, 2);
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_INVALID_INTERFACE, kInvalid);
}

TEST_F(NetInterfaces, CannotBeCopiedAndHasAVirtualDestructor) {
    static_assert(!std::is_copy_constructible_v<KovaNetInterfaces>);
    static_assert(!std::is_copy_assignable_v<KovaNetInterfaces>);
    static_assert(std::has_virtual_destructor_v<KovaNetInterfaces>);
    static_assert(!std::is_base_of_v<KovaBaseObject, KovaNetInterfaces>);
    static_assert(!std::is_polymorphic_v<Interface>);
}

TEST_F(NetInterfaces, StartsEmptyWithoutAskingTheKernel) {
    const fake::Journal calls;
    KovaNetInterfaces fresh;
    EXPECT_EQ(fresh.Count(), 0);
    EXPECT_EQ(fresh.GetError(), 0);
    EXPECT_FALSE(fresh.IsDirectReachable(Address("127.0.0.1")));
    EXPECT_EQ(fresh[0].GetInterfaceId(), -1);
    EXPECT_EQ(fresh[""].GetInterfaceId(), -1);
    EXPECT_EQ(calls.Texts(), Texts{});
}

TEST_F(NetInterfaces, GatheringAsksInAFixedOrder) {
    FakeKernel kernel(kLoopbackAndTwo);
    EXPECT_TRUE(table.GatherInterfaces());
    EXPECT_EQ(kernel.Requests(), Texts{"SIOCGIFCONF 512"} + Texts{"SIOCGIFFLAGS lo"} +
                                     AskNetMaskAndMac("lo") + Texts{"SIOCGIFFLAGS eth0"} +
                                     AskNetMaskAndMac("eth0") + Texts{"SIOCGIFFLAGS eth0:1"} +
                                     AskNetMaskAndMac("eth0:1"));
    EXPECT_EQ(trace.Count("gather interfaces"), 1u);
    EXPECT_EQ(trace.All().front().hash, TraceHash("gather interfaces")) << "before anything else";
    EXPECT_EQ(table.Count(), 3);
    EXPECT_EQ(table.GetError(), 0);
    ExpectRecord(0, "lo", "127.0.0.1", "255.0.0.0", 1, 1);
    ExpectRecord(1, "eth0", "10.1.2.3", "255.255.255.0", 2, 1);
    ExpectRecord(2, "eth0:1", "10.2.3.4", "255.255.0.0", 2, 1);
    EXPECT_EQ(table[2].GetAlias(), 1);
    EXPECT_STREQ(table[2].GetBaseName(), "eth0");
}

TEST_F(NetInterfaces, AsksThroughIpv4DatagramSocketsThatItCloses) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    EXPECT_TRUE(table.GatherInterfaces());
    EXPECT_EQ(kernel.Calls().Texts(fake::socket),
              (Texts{"socket AF_INET SOCK_DGRAM 0", "socket AF_INET6 SOCK_STREAM 0"}))
        << "the second one asks for the MAC address";
    EXPECT_EQ(kernel.Calls().Count(fake::close), 2u);
    kernel.Requests();
    table[0].SetFlag(IFF_PROMISC, true);
    table[0].Reconfigure();
    table[0].Deconfigure();
    table[0].SetMacAddress(KovaMacAddr("02:00:00:00:00:09"));
    const Texts datagram(4, "socket AF_INET SOCK_DGRAM 0");
    EXPECT_EQ(kernel.Calls().Texts(fake::socket), datagram + Texts{"socket AF_INET6 SOCK_STREAM 0"});
    EXPECT_EQ(kernel.Calls().Count(fake::close), 5u);
}

TEST_F(NetInterfaces, StoredAddressesHaveNeitherPortNorScope) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    KovaInetAddr address(Ip("10.7.8.9"), htons(80));
    address.SetScope(3);
    EXPECT_EQ(table[0].GetAddress().GetPort(), 0);
    EXPECT_TRUE(table[0].SetAddress(address));
    EXPECT_TRUE(table[0].SetNetMask(KovaInetAddr(Ip("255.255.0.0"), htons(80))));
    for (const KovaInetAddr* const stored :
         {&table[0].GetAddress(), &table[0].GetNetMask(), &table[0].GetSubNet(), &table[0].GetBCastAddr()}) {
        EXPECT_EQ(stored->GetPort(), 0);
        EXPECT_EQ(stored->GetScope(), KovaInetAddr::kNoScope);
    }
    EXPECT_EQ(Text(table[0].GetAddress()), "10.7.8.9");
}

TEST_F(NetInterfaces, LooksAtSevenEntriesOnly) {
    std::vector<Link> nine;
    for (const char* name : {"a", "b", "c", "d", "e", "f", "g", "h", "i"}) nine.push_back({name, "10.0.0.1"});
    FakeKernel kernel(nine);
    Gather(kernel);
    EXPECT_EQ(table.Count(), 7);
    for (int i = 0; i < 7; ++i) EXPECT_STREQ(table[i].GetName(), nine[static_cast<size_t>(i)].name.c_str());
    EXPECT_EQ(table["g"].GetInterfaceId(), 6);
    EXPECT_EQ(table["h"].GetInterfaceId(), -1);
    EXPECT_EQ(table[7].GetInterfaceId(), -1);
}

TEST_F(NetInterfaces, EntriesOfOtherFamiliesAreLeftOutAndCountAmongTheSeven) {
    std::vector<Link> nine;
    for (const char* name : {"a", "b", "c", "d", "e", "f", "g", "h", "i"}) nine.push_back({name, "10.0.0.1"});
    nine[0].family = AF_INET6;
    nine[3].family = AF_UNSPEC;
    FakeKernel kernel(nine);
    EXPECT_TRUE(table.GatherInterfaces());
    EXPECT_EQ(table.Count(), 5);
    const char* const kept[] = {"b", "c", "e", "f", "g"};
    for (int i = 0; i < 5; ++i) {
        EXPECT_STREQ(table[i].GetName(), kept[i]);
        EXPECT_EQ(table[i].GetInterfaceId(), i);
    }
    for (const std::string& request : kernel.Requests()) {
        for (const char* const name : {" a", " d", " h", " i"})
            EXPECT_EQ(request.find(name), std::string::npos);
    }
}

TEST_F(NetInterfaces, SenselessLengthOfTheListIsBounded) {
    FakeKernel kernel{{"a", "10.0.0.1"}, {"b", "10.0.0.2"}};
    for (const auto& [length, count] :
         std::vector<std::pair<int, int>>{{INT32_MAX, 2},
                                          {0, 0},
                                          {static_cast<int>(sizeof(ifreq)) - 1, 0},
                                          {static_cast<int>(2 * sizeof(ifreq)) - 1, 1},
                                          {-1, 0},
                                          {INT32_MIN, 0}}) {
        kernel.list_length = length;
        EXPECT_TRUE(table.GatherInterfaces());
        EXPECT_EQ(table.Count(), count) << length;
    }
}

TEST_F(NetInterfaces, ListedNameEndsAtItsSixteenthByte) {
    FakeKernel kernel{{"abcdefghijklmnop", "10.0.0.1"}};
    Gather(kernel);
    EXPECT_STREQ(table[0].GetName(), "abcdefghijklmno");
    EXPECT_EQ(Text(table[0].GetNetMask()), "255.255.255.0") << "the kernel was asked by the cut name";
}

TEST_F(NetInterfaces, WithoutAListTheTableStaysAsItIs) {
    FakeKernel kernel(kLoopbackAndTwo);
    Gather(kernel);
    table.SetErrorCode(KovaBaseObject::KOVA_ERR_OVERRUN);
    kernel.links.clear();
    kernel.RefuseAfter(0);
    EXPECT_FALSE(table.GatherInterfaces());
    EXPECT_EQ(kernel.Requests(), Texts{"SIOCGIFCONF 512"});
    EXPECT_TRUE(trace.Has("interface list errno=%d", {EIO}));
    EXPECT_EQ(table.GetError(), KovaBaseObject::KOVA_ERR_OVERRUN);
    EXPECT_EQ(table.Count(), 3);
    ExpectRecord(1, "eth0", "10.1.2.3", "255.255.255.0", 2, 1);
}

TEST_F(NetInterfaces, WithoutASocketThereIsNoList) {
    FakeKernel kernel(kLoopbackAndTwo);
    Gather(kernel);
    const fake::Always sockets(fake::socket, fake::Fail(EMFILE));
    EXPECT_FALSE(table.GatherInterfaces());
    EXPECT_TRUE(trace.Has("interface list errno=%d", {EMFILE}));
    EXPECT_EQ(kernel.Requests(), Texts{});
    EXPECT_EQ(table.Count(), 3);
}

TEST_F(NetInterfaces, InterfaceWithoutFlagsIsTakenDownAndCountsAsEthernet) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    kernel.RefuseAfter(1);
    EXPECT_TRUE(table.GatherInterfaces());
    EXPECT_EQ(kernel.Requests(), Texts{"SIOCGIFCONF 512"} + Texts{"SIOCGIFFLAGS eth0"} +
                                     ClearAddresses("eth0") + Flags("eth0", "IFF_BROADCAST") +
                                     AskNetMaskAndMac("eth0"));
    EXPECT_TRUE(trace.Has("interface flags errno=%d", {EIO}));
    ExpectRecord(0, "eth0", "10.1.2.3", "255.255.255.0", 2, 2);
    EXPECT_EQ(table.GetError(), 0);
}

TEST_F(NetInterfaces, LoopbackWithoutFlagsCountsAsEthernetToo) {
    FakeKernel kernel{{"lo", "127.0.0.1", "255.0.0.0", IFF_UP | IFF_LOOPBACK}};
    Gather(kernel);
    EXPECT_EQ(table[0].GetType(), 1);
    kernel.RefuseAfter(1);
    EXPECT_TRUE(table.GatherInterfaces());
    EXPECT_EQ(table[0].GetType(), 2);
}

TEST_F(NetInterfaces, InterfaceWithoutNetMaskHasMaskZero) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    kernel.RefuseAfter(2);
    EXPECT_TRUE(table.GatherInterfaces());
    EXPECT_TRUE(trace.Has("interface netmask errno=%d", {EIO}));
    ExpectRecord(0, "eth0", "10.1.2.3", "0.0.0.0", 2, 1);
    EXPECT_EQ(Text(table[0].GetBCastAddr()), "255.255.255.255");
    EXPECT_EQ(table.GetError(), 0);
}

TEST_F(NetInterfaces, InterfaceWithoutMacHasAnInvalidOneUntilItIsAskedAgain) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    kernel.RefuseAfter(3);
    EXPECT_TRUE(table.GatherInterfaces());
    EXPECT_TRUE(kernel.HasRefused());
    EXPECT_EQ(table.Count(), 1);
    kernel.Requests();
    EXPECT_STREQ(table[0].GetMacAddress().Ascii(), "02:00:00:00:00:01");
    EXPECT_STREQ(table[0].GetMacAddress().Ascii(), "02:00:00:00:00:01");
    EXPECT_EQ(kernel.Requests(), Texts{"SIOCGIFHWADDR eth0"});
}

TEST_F(NetInterfaces, AnyRefusedRequestLeavesTheOtherInterfacesAlone) {
    const std::vector<Link> links{{"lo", "127.0.0.1", "255.0.0.0", IFF_UP | IFF_LOOPBACK, 0},
                                  {"eth0", "10.1.2.3", "255.255.255.0", IFF_BROADCAST, 1},
                                  {"eth1", "10.2.3.4", "255.255.0.0", IFF_UP | IFF_BROADCAST, 2}};
    FakeKernel kernel(links);
    EXPECT_TRUE(KovaNetInterfaces().GatherInterfaces());
    const size_t requests = kernel.Requests().size();
    EXPECT_EQ(requests, 1u + 3u + 8u + 3u);
    for (size_t refused = 1; refused < requests; ++refused) {
        KovaNetInterfaces fresh;
        trace.Clear();
        kernel.RefuseAfter(refused);
        EXPECT_TRUE(fresh.GatherInterfaces()) << refused;
        EXPECT_TRUE(kernel.HasRefused());
        EXPECT_EQ(trace.Count("ioctl request=%x errno=%d"), 1u) << refused;
        EXPECT_EQ(fresh.Count(), 3) << refused;
        // The down interface is told its state in two steps: the first one, and the flag.
        const bool flag = refused == 8 || refused == 9;
        EXPECT_EQ(fresh.GetError(), flag ? EIO : 0) << refused;
        for (int i = 0; i < 3; ++i) {
            const size_t first = i == 0 ? 1 : i == 1 ? 4 : 12;
            const size_t end = i == 0 ? 4 : i == 1 ? 12 : 15;
            if (refused >= first && refused < end) continue;
            const Link& link = links[static_cast<size_t>(i)];
            EXPECT_EQ(fresh[i].GetAddress().GetIp(), Ip(link.address)) << refused;
            EXPECT_EQ(fresh[i].GetNetMask().GetIp(), Ip(link.netmask)) << refused;
            EXPECT_EQ(fresh[i].GetType(), i == 0 ? 1 : 2) << refused;
            EXPECT_EQ(fresh[i].GetStatus(), i == 1 ? 2 : 1) << refused;
            EXPECT_EQ(fresh[i].GetMacAddress().GetUnsigned()[5], link.mac) << refused;
        }
    }
}

TEST_F(NetInterfaces, FirstGatheringDeconfiguresAnInterfaceThatIsDownLaterOnesDoNot) {
    FakeKernel kernel{{"eth0", "10.1.2.3", "255.255.255.0", IFF_BROADCAST | IFF_MULTICAST}};
    EXPECT_TRUE(table.GatherInterfaces());
    const Texts asked{"SIOCGIFCONF 512", "SIOCGIFFLAGS eth0"};
    EXPECT_EQ(kernel.Requests(), asked + ClearAddresses("eth0") +
                                     Flags("eth0", "IFF_BROADCAST|IFF_MULTICAST") + AskNetMaskAndMac("eth0"));
    ExpectRecord(0, "eth0", "10.1.2.3", "255.255.255.0", 2, 2);
    EXPECT_TRUE(table.GatherInterfaces());
    EXPECT_EQ(kernel.Requests(), asked + Texts{"SIOCGIFNETMASK eth0 0.0.0.0:0"}) << "the MAC is known by now";
}

TEST_F(NetInterfaces, GatheringReconfiguresAnInterfaceThatCameUpWithTheMaskOfBefore) {
    FakeKernel kernel{{"eth0", "10.1.2.3", "255.255.255.0", 0}};
    Gather(kernel);
    kernel.links[0] = {"eth0", "10.9.8.7", "255.255.0.0", IFF_UP};
    table.SetErrorCode(KovaBaseObject::KOVA_ERR_OVERRUN);
    EXPECT_TRUE(table.GatherInterfaces());
    EXPECT_EQ(kernel.Requests(),
              Texts{"SIOCGIFCONF 512"} + Texts{"SIOCGIFFLAGS eth0"} + AskAddresses("eth0") +
                  SetAddresses("eth0", "10.9.8.7", "255.255.255.0", "10.9.8.255") + AskAddresses("eth0") +
                  Flags("eth0", "IFF_UP") + Texts{"SIOCGIFNETMASK eth0 0.0.0.0:0"});
    ExpectRecord(0, "eth0", "10.9.8.7", "255.255.0.0", 2, 1);
    EXPECT_EQ(table.GetError(), 0) << "reconfiguring cleared it";
}

TEST_F(NetInterfaces, StatusBelongsToTheSlotNotToTheInterface) {
    FakeKernel kernel{{"eth0", "10.1.2.3", "255.255.255.0", 0}, {"eth1", "10.2.3.4", "255.255.0.0"}};
    Gather(kernel);
    kernel.links.erase(kernel.links.begin());
    EXPECT_TRUE(table.GatherInterfaces());
    EXPECT_EQ(kernel.Requests(),
              Texts{"SIOCGIFCONF 512"} + Texts{"SIOCGIFFLAGS eth1"} + AskAddresses("eth1") +
                  SetAddresses("eth1", "10.2.3.4", "255.255.255.0", "10.2.3.255") + AskAddresses("eth1") +
                  Flags("eth1", "IFF_UP|IFF_BROADCAST") + Texts{"SIOCGIFNETMASK eth1 0.0.0.0:0"});
}

TEST_F(NetInterfaces, RecordKeepsTheMacThatItFetchedOnceWhateverComesIntoIt) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    kernel.links[0] = {"eth1", "10.2.3.4", "255.255.0.0", IFF_UP, 7};
    EXPECT_TRUE(table.GatherInterfaces());
    EXPECT_STREQ(table["eth1"].GetMacAddress().Ascii(), "02:00:00:00:00:01");
    EXPECT_EQ(kernel.Requests(),
              (Texts{"SIOCGIFCONF 512", "SIOCGIFFLAGS eth1", "SIOCGIFNETMASK eth1 0.0.0.0:0"}));
}

TEST_F(NetInterfaces, GatheringAgainOverwritesFromTheFirstRecordOn) {
    FakeKernel kernel(kLoopbackAndTwo);
    Gather(kernel);
    Interface& first = table[0];
    table[0].SetType(KovaNetInterfaces::IF_TYPE_EXTERN);
    table[0].SetInterfaceId(9);
    kernel.links.erase(kernel.links.begin());
    EXPECT_TRUE(table.GatherInterfaces());
    EXPECT_EQ(table.Count(), 2);
    EXPECT_EQ(&table[0], &first);
    ExpectRecord(0, "eth0", "10.1.2.3", "255.255.255.0", 2, 1);
    ExpectRecord(1, "eth0:1", "10.2.3.4", "255.255.0.0", 2, 1);
    EXPECT_EQ(table["lo"].GetInterfaceId(), -1);
    EXPECT_EQ(table[2].GetInterfaceId(), -1) << "what was the third record is out of sight";
    EXPECT_FALSE(table.IsLoopbackAddress(Address("127.0.0.1")));
}

TEST_F(NetInterfaces, GatheringForgetsTheTypeThatARecordHad) {
    FakeKernel kernel(kLoopbackAndTwo);
    Gather(kernel);
    EXPECT_EQ(table[0].GetType(), 1);
    kernel.links.erase(kernel.links.begin());
    table[1].SetType(KovaNetInterfaces::IF_TYPE_LOOPBACK);
    EXPECT_TRUE(table.GatherInterfaces());
    EXPECT_EQ(table[0].GetType(), 2) << "no longer that of lo";
    EXPECT_EQ(table[1].GetType(), 2) << "nor what a caller said";
}

TEST_F(NetInterfaces, IdsOfAllKindsOfNumbersAreUnderstood) {
    FakeKernel kernel(kLoopbackAndTwo);
    Gather(kernel);
    EXPECT_STREQ(table[table.Count() - 1].GetName(), "eth0:1");
    EXPECT_STREQ(table[KovaId(1)].GetName(), "eth0");
    EXPECT_STREQ(table[KovaPortId(1)].GetName(), "eth0");
    KovaIfId id(0);
    EXPECT_STREQ(table[++id].GetName(), "eth0");
    EXPECT_STREQ(table[0].GetName(), "lo");
    EXPECT_STREQ(table[0u].GetName(), "lo");
    EXPECT_STREQ(table[2L].GetName(), "eth0:1");
}

TEST_F(NetInterfaces, InvalidMacFindsNothing) {
    FakeKernel kernel{{"lo", "127.0.0.1", "255.0.0.0", IFF_UP | IFF_LOOPBACK, 0}};
    Gather(kernel);
    EXPECT_EQ(table[KovaMacAddr(KovaMacAddr::ZERO)].GetInterfaceId(), 0);
    EXPECT_EQ(table[KovaMacAddr()].GetInterfaceId(), -1);
    EXPECT_EQ(table[KovaMacAddr("rubbish")].GetInterfaceId(), -1);
    EXPECT_EQ(table[std::string("lo")].GetInterfaceId(), -1) << "a string is a MAC address";
}

TEST_F(NetInterfaces, InitTracesTheRecordsAndIsTrueWhateverHappens) {
    FakeKernel kernel(kLoopbackAndTwo);
    constexpr char kRecord[] =
        "interface id=%d type=%d status=%d address=%x netmask=%x subnet=%x broadcast=%x alias=%d";
    EXPECT_TRUE(table.Init());
    EXPECT_EQ(trace.Count("gather interfaces"), 1u);
    EXPECT_EQ(trace.Count(kRecord), 3u);
    EXPECT_TRUE(trace.Has(kRecord, {0, 1, 1, Number("127.0.0.1"), Number("255.0.0.0"), Number("127.0.0.0"),
                                    Number("127.255.255.255"), 0}));
    EXPECT_TRUE(trace.Has(kRecord, {2, 2, 1, Number("10.2.3.4"), Number("255.255.0.0"), Number("10.2.0.0"),
                                    Number("10.2.255.255"), 1}));
    trace.Clear();
    kernel.RefuseAfter(0);
    EXPECT_TRUE(table.Init());
    EXPECT_TRUE(trace.Has("interface list errno=%d", {EIO}));
    EXPECT_EQ(trace.Count(kRecord), 3u);
    trace.Clear();
    table.TraceInterfaces();
    EXPECT_EQ(trace.All().size(), 3u);
}

// Lookups

TEST_F(NetInterfaces, FindsByIdNameAddressNetworkAndMac) {
    FakeKernel kernel{{"lo", "127.0.0.1", "255.0.0.0", IFF_UP | IFF_LOOPBACK, 0},
                      {"eth0", "10.1.2.3", "255.255.255.0", IFF_UP, 5},
                      {"eth1", "10.2.3.4", "255.255.0.0", IFF_UP, 6}};
    Gather(kernel);
    EXPECT_STREQ(table[KovaIfId(1)].GetName(), "eth0");
    EXPECT_STREQ(table[0].GetName(), "lo") << "a literal 0 is an id";
    EXPECT_EQ(table["eth1"].GetInterfaceId(), 2);
    EXPECT_EQ(table[Address("10.1.2.3")].GetInterfaceId(), 1);
    EXPECT_EQ(table[Address("10.1.2.0")].GetInterfaceId(), 1);
    EXPECT_EQ(table[Address("10.2.0.0")].GetInterfaceId(), 2);
    EXPECT_EQ(table[KovaInetAddr(Ip("10.2.3.4"), htons(80))].GetInterfaceId(), 2) << "ports do not matter";
    EXPECT_EQ(table[KovaMacAddr("02:00:00:00:00:06")].GetInterfaceId(), 2);
    EXPECT_EQ(table[std::string("020000000005")].GetInterfaceId(), 1) << "a string is a MAC address";
    EXPECT_EQ(table.GetError(), 0);
    EXPECT_TRUE(trace.All().empty());
}

TEST_F(NetInterfaces, FindsTheFirstOfSeveral) {
    FakeKernel kernel{{"eth0", "10.1.2.0", "255.255.255.255"},
                      {"eth1", "10.1.2.3"},
                      {"eth1", "10.1.2.3", "255.255.255.0"},
                      {"eth2", "10.1.2.9"}};
    Gather(kernel);
    EXPECT_EQ(&table["eth1"], &table[1]);
    EXPECT_EQ(&table[Address("10.1.2.3")], &table[1]);
    EXPECT_EQ(&table[Address("10.1.2.0")], &table[0]) << "an address here, the network of those behind";
    EXPECT_EQ(&table[KovaMacAddr("02:00:00:00:00:01")], &table[0]);
    Interface& third = table[2];
    third.SetInterfaceId(1);
    EXPECT_NE(&table[1], &third);
    EXPECT_EQ(table[2].GetInterfaceId(), -1);
}

TEST_F(NetInterfaces, FindsByTheIdThatARecordWasGiven) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    EXPECT_TRUE(table[0].SetInterfaceId(12));
    EXPECT_STREQ(table[12].GetName(), "eth0");
    EXPECT_EQ(table[0].GetInterfaceId(), -1);
}

TEST_F(NetInterfaces, ComparesNamesExactly) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    for (const char* const name : {"eth", "eth00", "ETH0", "", "eth0:1", "eth*"})
        EXPECT_EQ(table[name].GetInterfaceId(), -1) << name;
    EXPECT_EQ(table[static_cast<const char*>(nullptr)].GetInterfaceId(), -1);
    EXPECT_EQ(table["eth0"].GetInterfaceId(), 0);
}

TEST_F(NetInterfaces, LookupThatFindsNothingIsRecordedAndTraced) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    const auto expect_nothing = [&](const std::function<Interface&()>& look, const char* text) {
        Forget(kernel);
        Interface& found = look();
        EXPECT_EQ(table.GetError(), kInvalid) << text;
        EXPECT_EQ(trace.Count(text), 1u) << text;
        EXPECT_EQ(trace.All().size(), 1u) << text;
        EXPECT_EQ(&found, &table["nothing"]) << text;
    };
    expect_nothing([&]() -> Interface& { return table["eth1"]; }, "no interface name=%s");
    expect_nothing([&]() -> Interface& { return table[KovaMacAddr("020000000009")]; },
                   "no interface of this mac");
    expect_nothing([&]() -> Interface& { return table[1]; }, "no interface id=%d");
    expect_nothing([&]() -> Interface& { return table[-1]; }, "no interface id=%d");
    expect_nothing([&]() -> Interface& { return table[Address("10.1.2.4")]; }, "no interface address=%x");
    trace.Clear();
    table[-1].GetError();
    EXPECT_TRUE(trace.Has("no interface id=%d", {-1}));
    table[Address("10.1.2.255")].GetError();
    EXPECT_TRUE(trace.Has("no interface address=%x", {Number("10.1.2.255")}));
}

TEST_F(NetInterfaces, LookupByMacAsksAgainForThoseThatAreMissing) {
    FakeKernel kernel(
        {{"eth0", "10.1.2.3", "255.255.255.0", IFF_UP, 5}, {"eth1", "10.2.3.4", "255.255.255.0", IFF_UP, 6}});
    kernel.RefuseAfter(3);
    Gather(kernel);
    EXPECT_EQ(table[KovaMacAddr("02:00:00:00:00:05")].GetInterfaceId(), 0);
    EXPECT_EQ(kernel.Requests(), Texts{"SIOCGIFHWADDR eth0"});
    EXPECT_EQ(table[KovaMacAddr("02:00:00:00:00:06")].GetInterfaceId(), 1);
    EXPECT_EQ(kernel.Requests(), Texts{});
}

// The record that stands for no interface

TEST_F(NetInterfaces, RecordOfNoInterfaceFailsInEverything) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    Interface& none = table["nothing"];
    const KovaInetAddr address = Address("10.0.0.1");
    const std::vector<std::function<bool()>> operations{
        [&] { return none.GetInterfaceId() != -1; },
        [&] { return none.SetInterfaceId(3); },
        [&] { return *none.GetName() != '\0'; },
        [&] { return *none.GetBaseName() != '\0'; },
        [&] { return none.GetAddress() != Address("0.0.0.0"); },
        [&] { return none.GetNetMask() != Address("0.0.0.0"); },
        [&] { return none.GetSubNet() != Address("0.0.0.0"); },
        [&] { return none.GetBCastAddr() != Address("0.0.0.0"); },
        [&] { return none.GetStatus() != 0; },
        [&] { return none.GetType() != 0; },
        [&] { return none.GetAlias() != 0; },
        [&] { return none.Alias() != 0; },
        [&] { return none.GetMacAddress().IsValid(); },
        [&] { return none.SetType(KovaNetInterfaces::IF_TYPE_EXTERN); },
        [&] { return none.SetName("eth0"); },
        [&] { return none.SetAddress(address); },
        [&] { return none.SetNetMask(address); },
        [&] { return none.SetStatus(KovaNetInterfaces::IF_STATUS_DOWN); },
        [&] { return none.SetFlag(IFF_UP, false); },
        [&] { return none.Reconfigure(); },
        [&] { return none.Deconfigure(); },
        [&] { return none.SetMacAddress(KovaMacAddr("02:00:00:00:00:01")); },
        [&] { return none.ResetInterface(); },
    };
    for (int round = 0; round < 2; ++round) {
        for (size_t i = 0; i < operations.size(); ++i) {
            Forget(kernel);
            EXPECT_FALSE(operations[i]()) << i;
            EXPECT_EQ(table.GetError(), kInvalid) << i;
            EXPECT_TRUE(trace.Has("invalid interface id=%d", {-1})) << i;
            EXPECT_EQ(trace.All().size(), 1u) << i;
            EXPECT_EQ(kernel.Requests(), Texts{}) << i;
        }
    }
}

TEST_F(NetInterfaces, ErrorAccessorsOfAnyRecordAreThoseOfTheTable) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    for (Interface* const record : {&table[0], &table["nothing"]}) {
        table.ClearError();
        trace.Clear();
        record->SetErrorCode(KovaBaseObject::KOVA_ERR_OVERRUN);
        EXPECT_TRUE(trace.Has("interfaces code=%d", {30019}));
        EXPECT_EQ(trace.All().size(), 1u);
        EXPECT_EQ(table.GetError(), KovaBaseObject::KOVA_ERR_OVERRUN);
        table.SetErrorCode(static_cast<KovaNetInterfaces::ErrorT>(EIO));
        EXPECT_TRUE(trace.Has("interfaces code=%d", {EIO}));
        EXPECT_EQ(record->GetError(), EIO);
        record->ClearError();
        EXPECT_EQ(table.GetError(), 0);
        EXPECT_EQ(trace.All().size(), 2u);
    }
}

TEST_F(NetInterfaces, NegativeIdMakesARecordInvalidUntilTheNextGathering) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}, {"eth1", "10.2.3.4"}};
    Gather(kernel);
    Interface& first = table[0];
    EXPECT_TRUE(first.SetInterfaceId(-7));
    EXPECT_FALSE(first.SetInterfaceId(0));
    EXPECT_TRUE(trace.Has("invalid interface id=%d", {-7}));
    EXPECT_EQ(table.GetError(), kInvalid);
    EXPECT_EQ(first.GetType(), 0);
    EXPECT_FALSE(first.SetName("eth9"));
    EXPECT_EQ(&table["eth0"], &first);
    EXPECT_TRUE(table.GatherInterfaces());
    ExpectRecord(0, "eth0", "10.1.2.3", "255.255.255.0", 2, 1);
}

// Fields of a record

TEST_F(NetInterfaces, NameHasABaseAndAnAlias) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    struct Case {
        const char* name;
        const char* base;
        int alias;
    };
    for (const Case& one : {Case{"eth1:2", "eth1", 2},
                            {"eth1", "eth1", 0},
                            {"eth1.100", "eth1", 0},
                            {"eth1.100:7", "eth1", 7},
                            {"eth1:7.3", "eth1", 7},
                            {"eth1:2:3", "eth1", 2},
                            {"eth1:", "eth1", 0},
                            {"eth1:x", "eth1", 0},
                            {"eth1: 12ab", "eth1", 12},
                            {"eth1:-4", "eth1", -4},
                            {"eth1:010", "eth1", 10},
                            {"e:2147483648", "e", 2147483647},
                            {"e:-99999999999", "e", INT32_MIN},
                            {":5", "", 5},
                            {".5", "", 0},
                            {"", "", 0},
                            {"abcdefghijklmno", "abcdefghijklmno", 0}}) {
        EXPECT_TRUE(table[0].SetName(one.name));
        EXPECT_STREQ(table[0].GetName(), one.name);
        EXPECT_STREQ(table[0].GetBaseName(), one.base);
        EXPECT_EQ(table[0].GetAlias(), one.alias) << one.name;
        EXPECT_EQ(table[0].Alias(), one.alias) << one.name;
    }
    EXPECT_EQ(table.GetError(), 0);
    EXPECT_EQ(kernel.Requests(), Texts{});
}

TEST_F(NetInterfaces, OwnNameCanBeGivenAgain) {
    FakeKernel kernel{{"eth0:3", "10.1.2.3"}};
    Gather(kernel);
    EXPECT_TRUE(table[0].SetName(table[0].GetName()));
    EXPECT_STREQ(table[0].GetName(), "eth0:3");
    EXPECT_TRUE(table[0].SetName(table[0].GetBaseName()));
    EXPECT_STREQ(table[0].GetName(), "eth0");
    EXPECT_EQ(table[0].GetAlias(), 0);
}

TEST_F(NetInterfaces, NameOfSixteenCharactersIsRefusedAndChangesNothing) {
    FakeKernel kernel{{"eth1:2", "10.1.2.3"}};
    Gather(kernel);
    for (const char* const name :
         {"abcdefghijklmnop", "abcdefghijklm:5x", "a much longer name of no interface"}) {
        Forget(kernel);
        EXPECT_FALSE(table[0].SetName(name));
        EXPECT_EQ(table.GetError(), EINVAL);
        EXPECT_TRUE(trace.Has("interfaces code=%d", {EINVAL}));
        EXPECT_STREQ(table[0].GetName(), "eth1:2");
        EXPECT_STREQ(table[0].GetBaseName(), "eth1");
        EXPECT_EQ(table[0].GetAlias(), 2);
    }
    table.ClearError();
    EXPECT_TRUE(table[0].SetName(nullptr));
    EXPECT_STREQ(table[0].GetName(), "");
    EXPECT_STREQ(table[0].GetBaseName(), "");
    EXPECT_EQ(table[0].GetAlias(), 0);
    EXPECT_EQ(table.GetError(), 0);
}

TEST_F(NetInterfaces, NetworkAndBroadcastFollowAddressAndMask) {
    FakeKernel kernel{{"eth0", "172.16.5.4", "255.255.0.0"}};
    Gather(kernel);
    struct Case {
        const char* address;
        const char* mask;
        const char* network;
        const char* broadcast;
    };
    for (const Case& one : {Case{"10.1.2.3", "255.255.255.0", "10.1.2.0", "10.1.2.255"},
                            {"10.1.2.3", "0.0.0.0", "0.0.0.0", "255.255.255.255"},
                            {"10.1.2.3", "255.255.255.255", "10.1.2.3", "10.1.2.3"},
                            {"192.168.77.129", "255.255.255.192", "192.168.77.128", "192.168.77.191"},
                            {"255.255.255.255", "255.0.255.0", "255.0.255.0", "255.255.255.255"},
                            {"0.0.0.0", "128.0.0.1", "0.0.0.0", "127.255.255.254"}}) {
        EXPECT_TRUE(table[0].SetAddress(Address(one.address)));
        EXPECT_TRUE(table[0].SetNetMask(Address(one.mask)));
        EXPECT_EQ(Text(table[0].GetAddress()), one.address);
        EXPECT_EQ(Text(table[0].GetNetMask()), one.mask);
        EXPECT_EQ(Text(table[0].GetSubNet()), one.network);
        EXPECT_EQ(Text(table[0].GetBCastAddr()), one.broadcast);
    }
    EXPECT_TRUE(table[0].SetNetMask(Address("255.255.0.0")));
    EXPECT_TRUE(table[0].SetAddress(Address("10.1.2.3")));
    EXPECT_EQ(Text(table[0].GetSubNet()), "10.1.0.0") << "also when the address comes last";
    EXPECT_EQ(Text(table[0].GetBCastAddr()), "10.1.255.255");
    EXPECT_EQ(kernel.Requests(), Texts{});
    EXPECT_TRUE(trace.All().empty());
}

TEST_F(NetInterfaces, RecordTakesItsOwnAddressesAsArguments) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    EXPECT_TRUE(table[0].SetAddress(table[0].GetBCastAddr()));
    EXPECT_EQ(Text(table[0].GetAddress()), "10.1.2.255");
    EXPECT_TRUE(table[0].SetNetMask(table[0].GetNetMask()));
    EXPECT_EQ(Text(table[0].GetSubNet()), "10.1.2.0");
}

TEST_F(NetInterfaces, TypeIsWhatACallerMakesIt) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    for (const auto type : {KovaNetInterfaces::IF_TYPE_EXTERN, KovaNetInterfaces::IF_TYPE_LOOPBACK,
                            KovaNetInterfaces::IF_TYPE_NONE, KovaNetInterfaces::IF_TYPE_ETHERNET}) {
        EXPECT_TRUE(table[0].SetType(type));
        EXPECT_EQ(table[0].GetType(), type);
    }
    EXPECT_EQ(kernel.Requests(), Texts{});
}

// Kinds of addresses

TEST_F(NetInterfaces, LocalIsAnAddressOfTypeNoneOnly) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}, {"eth1", "10.2.3.4"}};
    Gather(kernel);
    EXPECT_FALSE(table.IsLocalAddress(Address("10.1.2.3"))) << "gathered as Ethernet";
    for (const auto& [type, local] : std::vector<std::pair<KovaNetInterfaces::IfTypeT, bool>>{
             {KovaNetInterfaces::IF_TYPE_NONE, true},
             {KovaNetInterfaces::IF_TYPE_LOOPBACK, false},
             {KovaNetInterfaces::IF_TYPE_EXTERN, false}}) {
        table[0].SetType(type);
        EXPECT_EQ(table.IsLocalAddress(Address("10.1.2.3")), local) << type;
        EXPECT_FALSE(table.IsLocalAddress(Address("10.2.3.4")));
        EXPECT_FALSE(table.IsLocalAddress(Address("10.1.2.4")));
    }
    table[1].SetType(KovaNetInterfaces::IF_TYPE_NONE);
    EXPECT_TRUE(table.IsLocalAddress(Address("10.2.3.4"))) << "not the first record only";
    EXPECT_FALSE(table.IsLocalAddress(KovaInetAddr(Ip("10.2.3.4"), htons(80))))
        << "equality is of ports, too";
}

TEST_F(NetInterfaces, LoopbackIsAnAddressOfTheLoopbackItself) {
    FakeKernel kernel(kLoopbackAndTwo);
    Gather(kernel);
    EXPECT_TRUE(table.IsLoopbackAddress(Address("127.0.0.1")));
    EXPECT_FALSE(table.IsLoopbackAddress(Address("127.0.0.2")));
    EXPECT_FALSE(table.IsLoopbackAddress(Address("127.0.0.0")));
    EXPECT_FALSE(table.IsLoopbackAddress(Address("10.1.2.3")));
    EXPECT_FALSE(table.IsLoopbackAddress(KovaInetAddr(Ip("127.0.0.1"), htons(80))));
    table[1].SetType(KovaNetInterfaces::IF_TYPE_LOOPBACK);
    EXPECT_TRUE(table.IsLoopbackAddress(Address("10.1.2.3")));
}

TEST_F(NetInterfaces, ExternIsAnAddressInANetworkOfTypeExternOrNone) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}, {"eth1", "10.2.3.4", "255.255.0.0"}};
    Gather(kernel);
    EXPECT_FALSE(table.IsExternAddress(Address("10.2.9.9")));
    for (const auto& [type, is_extern] : std::vector<std::pair<KovaNetInterfaces::IfTypeT, bool>>{
             {KovaNetInterfaces::IF_TYPE_NONE, true},
             {KovaNetInterfaces::IF_TYPE_LOOPBACK, false},
             {KovaNetInterfaces::IF_TYPE_EXTERN, true}}) {
        table[1].SetType(type);
        EXPECT_EQ(table.IsExternAddress(Address("10.2.9.9")), is_extern) << type;
        EXPECT_EQ(table.IsExternAddress(KovaInetAddr(Ip("10.2.3.4"), htons(80))), is_extern) << type;
        EXPECT_FALSE(table.IsExternAddress(Address("10.3.0.0")));
        EXPECT_FALSE(table.IsExternAddress(Address("10.1.2.3")));
    }
}

TEST_F(NetInterfaces, ReachableIsAnAddressInANetworkThatIsUp) {
    FakeKernel kernel{{"eth0", "10.1.2.3"},
                      {"eth1", "10.2.3.4", "255.255.0.0", 0},
                      {"eth2", "10.3.0.129", "255.255.255.128"}};
    Gather(kernel);
    EXPECT_TRUE(table.IsDirectReachable(Address("10.1.2.200")));
    EXPECT_TRUE(table.IsDirectReachable(KovaInetAddr(Ip("10.1.2.0"), htons(80))));
    EXPECT_FALSE(table.IsDirectReachable(Address("10.1.3.3")));
    EXPECT_FALSE(table.IsDirectReachable(Address("10.2.3.4"))) << "down";
    EXPECT_TRUE(table.IsDirectReachable(Address("10.3.0.255")));
    EXPECT_FALSE(table.IsDirectReachable(Address("10.3.0.127")));
    table[0].SetNetMask(Address("0.0.0.0"));
    EXPECT_TRUE(table.IsDirectReachable(Address("8.8.8.8"))) << "everything lies in a network of mask zero";
    EXPECT_EQ(kernel.Requests(), Texts{});
    EXPECT_EQ(table.GetError(), 0);
    EXPECT_TRUE(trace.All().empty());
}

// Changes of the kernel's configuration

TEST_F(NetInterfaces, StatusThatIsThereAlreadyChangesNothing) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    EXPECT_FALSE(table[0].SetStatus(KovaNetInterfaces::IF_STATUS_UP));
    EXPECT_EQ(table[0].GetStatus(), 1);
    EXPECT_EQ(kernel.Requests(), Texts{});
    EXPECT_TRUE(trace.All().empty());
    EXPECT_EQ(table.GetError(), 0);
}

TEST_F(NetInterfaces, StatusDownDeconfiguresAndUpReconfigures) {
    FakeKernel kernel{{"eth0", "10.1.2.3", "255.255.255.0", IFF_UP | IFF_MULTICAST}};
    Gather(kernel);
    EXPECT_TRUE(table[0].SetStatus(KovaNetInterfaces::IF_STATUS_DOWN));
    EXPECT_EQ(table[0].GetStatus(), 2);
    EXPECT_EQ(kernel.Requests(), ClearAddresses("eth0") + Flags("eth0", "IFF_MULTICAST"));
    ExpectRecord(0, "eth0", "10.1.2.3", "255.255.255.0", 2, 2);
    EXPECT_FALSE(table[0].SetStatus(KovaNetInterfaces::IF_STATUS_DOWN));
    EXPECT_EQ(kernel.Requests(), Texts{});

    kernel.links[0].flags = IFF_MULTICAST;
    EXPECT_TRUE(table[0].SetStatus(KovaNetInterfaces::IF_STATUS_UP));
    EXPECT_EQ(table[0].GetStatus(), 1);
    EXPECT_EQ(kernel.Requests(), AskAddresses("eth0") +
                                     SetAddresses("eth0", "10.1.2.3", "255.255.255.0", "10.1.2.255") +
                                     AskAddresses("eth0") + Flags("eth0", "IFF_UP|IFF_MULTICAST"));
    EXPECT_TRUE(trace.All().empty()) << "nothing failed";
}

TEST_F(NetInterfaces, AnyStatusButUpTakesTheInterfaceDown) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    EXPECT_TRUE(table[0].SetStatus(static_cast<KovaNetInterfaces::IfStatusT>(0)));
    EXPECT_EQ(table[0].GetStatus(), 0);
    EXPECT_EQ(kernel.Requests(), ClearAddresses("eth0") + Flags("eth0", "IFF_BROADCAST"));
    EXPECT_FALSE(table.IsDirectReachable(Address("10.1.2.3")));
}

TEST_F(NetInterfaces, StatusIsStoredWhateverFails) {
    for (size_t refused = 0; refused < 5; ++refused) {
        FakeKernel kernel{{"eth0", "10.1.2.3"}};
        KovaNetInterfaces fresh;
        EXPECT_TRUE(fresh.GatherInterfaces());
        kernel.Requests();
        kernel.RefuseAfter(refused);
        EXPECT_FALSE(fresh[0].SetStatus(KovaNetInterfaces::IF_STATUS_DOWN)) << refused;
        EXPECT_TRUE(kernel.HasRefused());
        EXPECT_EQ(fresh[0].GetStatus(), 2) << refused;
        EXPECT_EQ(fresh.GetError(), refused < 3 ? 0 : EIO) << refused;
        const size_t asked = kernel.Requests().size();
        EXPECT_EQ(asked, refused < 3 ? refused + 3 : refused + 1)
            << "the flag is set in any case " << refused;
    }
}

TEST_F(NetInterfaces, StatusUpIsStoredWhateverFails) {
    // Three looks, three writes of addresses, three looks, the flags read and written.
    for (size_t refused = 0; refused < 11; ++refused) {
        FakeKernel kernel{{"eth0", "10.1.2.3"}};
        KovaNetInterfaces fresh;
        EXPECT_TRUE(fresh.GatherInterfaces());
        EXPECT_TRUE(fresh[0].SetStatus(KovaNetInterfaces::IF_STATUS_DOWN));
        kernel.Requests();
        kernel.RefuseAfter(refused);
        const bool matters = (refused >= 3 && refused < 6) || refused >= 9;
        EXPECT_EQ(fresh[0].SetStatus(KovaNetInterfaces::IF_STATUS_UP), !matters) << refused;
        EXPECT_TRUE(kernel.HasRefused());
        EXPECT_EQ(fresh[0].GetStatus(), 1) << refused;
        EXPECT_EQ(fresh.GetError(), refused >= 9 ? EIO : 0) << refused;
        const auto requests = kernel.Requests();
        EXPECT_NE(requests.back().find(refused == 9 ? "SIOCGIFFLAGS" : "SIOCSIFFLAGS"), std::string::npos)
            << "the flag is set in any case " << refused;
    }
}

TEST_F(NetInterfaces, FlagsAreReadChangedAndWrittenBack) {
    FakeKernel kernel{{"eth0", "10.1.2.3", "255.255.255.0", IFF_UP | IFF_MULTICAST}};
    Gather(kernel);
    EXPECT_TRUE(table[0].SetFlag(IFF_PROMISC, true));
    EXPECT_EQ(kernel.Requests(), Flags("eth0", "IFF_UP|IFF_PROMISC|IFF_MULTICAST"));
    EXPECT_TRUE(table[0].SetFlag(IFF_UP | IFF_MULTICAST, false));
    EXPECT_EQ(kernel.Requests(), Flags("eth0", "0"));
    EXPECT_TRUE(table[0].SetFlag(IFF_PROMISC, false));
    EXPECT_EQ(kernel.Requests(), Flags("eth0", "IFF_UP|IFF_MULTICAST"));
    EXPECT_EQ(table[0].GetStatus(), 1) << "the record's status is another thing";
    EXPECT_TRUE(trace.All().empty());
}

TEST_F(NetInterfaces, FlagsThatCannotBeReadOrWrittenLeaveErrnoInTheTable) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    for (const size_t refused : {0, 1}) {
        Forget(kernel);
        kernel.RefuseAfter(refused);
        EXPECT_FALSE(table[0].SetFlag(IFF_UP, false));
        EXPECT_EQ(table.GetError(), EIO);
        EXPECT_TRUE(
            trace.Has("ioctl request=%x errno=%d", {refused == 0 ? SIOCGIFFLAGS : SIOCSIFFLAGS, EIO}));
        EXPECT_TRUE(trace.Has("interfaces code=%d", {EIO}));
        EXPECT_EQ(kernel.Requests().size(), refused + 1);
    }
    Forget(kernel);
    const fake::Always sockets(fake::socket, fake::Fail(EMFILE));
    EXPECT_FALSE(table[0].SetFlag(IFF_UP, false));
    EXPECT_EQ(table.GetError(), EMFILE);
    EXPECT_EQ(kernel.Requests(), Texts{});
}

TEST_F(NetInterfaces, ReconfigureWritesTheRecordBetweenTwoLooks) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    table[0].SetAddress(Address("172.16.77.5"));
    table[0].SetNetMask(Address("255.255.240.0"));
    table.SetErrorCode(KovaBaseObject::KOVA_ERR_OVERRUN);
    trace.Clear();
    testing::internal::CaptureStdout();
    EXPECT_TRUE(table[0].Reconfigure());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "what it sees is for no one";
    EXPECT_EQ(kernel.Requests(), AskAddresses("eth0") +
                                     SetAddresses("eth0", "172.16.77.5", "255.255.240.0", "172.16.79.255") +
                                     AskAddresses("eth0"));
    EXPECT_EQ(table.GetError(), 0);
    EXPECT_TRUE(trace.All().empty());
}

TEST_F(NetInterfaces, ReconfigureStopsAtTheFirstFailureAndStoresNone) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    const Texts all = AskAddresses("eth0") + SetAddresses("eth0", "10.1.2.3", "255.255.255.0", "10.1.2.255") +
                      AskAddresses("eth0");
    struct Case {
        size_t refused;
        size_t requests;
        const char* text;
        const char* value;
    };
    for (const Case& one : {Case{3, 4, "interface address=%x errno=%d", "10.1.2.3"},
                            {4, 5, "interface netmask=%x errno=%d", "255.255.255.0"},
                            {5, 9, "interface broadcast=%x errno=%d", "10.1.2.255"}}) {
        Forget(kernel);
        table.SetErrorCode(KovaBaseObject::KOVA_ERR_OVERRUN);
        kernel.RefuseAfter(one.refused);
        EXPECT_FALSE(table[0].Reconfigure()) << one.text;
        EXPECT_EQ(kernel.Requests(), Texts(all.begin(), all.begin() + static_cast<long>(one.requests)));
        EXPECT_TRUE(trace.Has(one.text, {Number(one.value), EIO})) << one.text;
        EXPECT_EQ(table.GetError(), 0) << one.text;
    }
    for (const size_t look : {0, 1, 2, 6, 7, 8}) {
        kernel.Requests();
        kernel.RefuseAfter(look);
        EXPECT_TRUE(table[0].Reconfigure()) << look;
        EXPECT_TRUE(kernel.HasRefused());
        EXPECT_EQ(kernel.Requests(), all) << look;
        EXPECT_EQ(table.GetError(), 0) << look;
    }
}

TEST_F(NetInterfaces, DeconfigureStopsAtTheFirstFailure) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    EXPECT_TRUE(table[0].Deconfigure());
    const Texts all = kernel.Requests();
    EXPECT_EQ(all, ClearAddresses("eth0"));
    EXPECT_TRUE(trace.All().empty());
    const std::array<int64_t, 3> requests{SIOCSIFADDR, SIOCSIFNETMASK, SIOCSIFBRDADDR};
    for (size_t refused = 0; refused < 3; ++refused) {
        table.SetErrorCode(KovaBaseObject::KOVA_ERR_OVERRUN);
        kernel.RefuseAfter(refused);
        EXPECT_FALSE(table[0].Deconfigure());
        EXPECT_EQ(kernel.Requests(), Texts(all.begin(), all.begin() + static_cast<long>(refused) + 1));
        EXPECT_TRUE(trace.Has("deconfigure request=%x errno=%d", {requests[refused], EIO}));
        EXPECT_EQ(table.GetError(), KovaBaseObject::KOVA_ERR_OVERRUN) << "neither stored nor cleared";
    }
    ExpectRecord(0, "eth0", "10.1.2.3", "255.255.255.0", 2, 1);
}

TEST_F(NetInterfaces, ResetTakesTheInterfaceDownReconfiguresItAndTakesItUp) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    table.SetErrorCode(KovaBaseObject::KOVA_ERR_OVERRUN);
    trace.Clear();
    EXPECT_TRUE(table[0].ResetInterface());
    EXPECT_EQ(kernel.Requests(), Flags("eth0", "IFF_BROADCAST") + AskAddresses("eth0") +
                                     SetAddresses("eth0", "10.1.2.3", "255.255.255.0", "10.1.2.255") +
                                     AskAddresses("eth0") + Flags("eth0", "IFF_UP|IFF_BROADCAST"));
    EXPECT_EQ(table.GetError(), 0);
    EXPECT_EQ(table[0].GetStatus(), 1);
    EXPECT_TRUE(trace.All().empty());
}

TEST_F(NetInterfaces, ResetOfAnInterfaceThatIsNotUpClearsTheErrorOnly) {
    FakeKernel kernel{{"eth0", "10.1.2.3", "255.255.255.0", 0}};
    Gather(kernel);
    table.SetErrorCode(KovaBaseObject::KOVA_ERR_OVERRUN);
    EXPECT_FALSE(table[0].ResetInterface());
    EXPECT_EQ(kernel.Requests(), Texts{});
    EXPECT_EQ(table.GetError(), 0);
}

TEST_F(NetInterfaces, ResetGoesOnWhateverFails) {
    for (size_t refused = 0; refused < 13; ++refused) {
        FakeKernel kernel{{"eth0", "10.1.2.3"}};
        Gather(kernel);
        kernel.RefuseAfter(refused);
        const bool stops_early = refused == 0 || refused == 11;
        const bool reconfigured = refused < 5 || refused > 7;
        const bool up = refused < 11;
        EXPECT_EQ(table[0].ResetInterface(), reconfigured && up) << refused;
        EXPECT_TRUE(kernel.HasRefused());
        const Texts requests = kernel.Requests();
        const size_t left_out = refused == 5 ? 5 : refused == 6 ? 4 : stops_early ? 1 : 0;
        EXPECT_EQ(requests.size(), 13 - left_out) << refused;
        EXPECT_EQ(requests.back(),
                  refused == 11 ? "SIOCGIFFLAGS eth0" : "SIOCSIFFLAGS eth0 IFF_UP|IFF_BROADCAST")
            << refused;
        EXPECT_EQ(table.GetError(), up ? 0 : EIO) << "reconfiguring clears what taking down left " << refused;
        EXPECT_EQ(trace.Count("interface not reset id=%d"), reconfigured ? 0u : 1u) << refused;
        EXPECT_EQ(table[0].GetStatus(), 1) << refused;
    }
}

TEST_F(NetInterfaces, MacIsWrittenAsEthernetAddressAndReadBack) {
    FakeKernel kernel{{"eth0", "10.1.2.3", "255.255.255.0", IFF_UP, 1}};
    Gather(kernel);
    EXPECT_TRUE(table[0].SetMacAddress(KovaMacAddr("02:a0:00:ff:00:09")));
    EXPECT_EQ(kernel.Requests(), (Texts{"SIOCSIFHWADDR eth0 1 0x02a000ff0009", "SIOCGIFHWADDR eth0"}));
    EXPECT_STREQ(table[0].GetMacAddress().Ascii(), "02:00:00:00:00:09")
        << "what the kernel says, not what was set";
    EXPECT_EQ(kernel.Requests(), Texts{});
}

TEST_F(NetInterfaces, MacIsReadBackAlsoWhenItCouldNotBeWritten) {
    FakeKernel kernel{{"eth0", "10.1.2.3", "255.255.255.0", IFF_UP, 1}};
    Gather(kernel);
    kernel.links[0].mac = 7;
    kernel.RefuseAfter(0);
    EXPECT_FALSE(table[0].SetMacAddress(KovaMacAddr("02:00:00:00:00:09")));
    EXPECT_EQ(kernel.Requests(), (Texts{"SIOCSIFHWADDR eth0 1 0x020000000009", "SIOCGIFHWADDR eth0"}));
    EXPECT_TRUE(trace.Has("ioctl request=%x errno=%d", {SIOCSIFHWADDR, EIO}));
    EXPECT_STREQ(table[0].GetMacAddress().Ascii(), "02:00:00:00:00:07");
    EXPECT_EQ(table.GetError(), 0);

    kernel.RefuseAfter(1);
    EXPECT_TRUE(table[0].SetMacAddress(KovaMacAddr("02:00:00:00:00:09"))) << "writing is what counts";
    kernel.links.clear();
    EXPECT_FALSE(table[0].GetMacAddress().IsValid());
}

TEST_F(NetInterfaces, MacOfOtherTypesIsNotWritten) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    for (const auto type : {KovaNetInterfaces::IF_TYPE_NONE, KovaNetInterfaces::IF_TYPE_LOOPBACK,
                            KovaNetInterfaces::IF_TYPE_EXTERN}) {
        table[0].SetType(type);
        EXPECT_FALSE(table[0].SetMacAddress(KovaMacAddr("02:00:00:00:00:09")));
    }
    EXPECT_EQ(kernel.Requests(), Texts{});
    EXPECT_STREQ(table[0].GetMacAddress().Ascii(), "02:00:00:00:00:01");
}

TEST_F(NetInterfaces, WithoutASocketNothingIsChanged) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    Gather(kernel);
    const fake::Always sockets(fake::socket, fake::Fail(EMFILE));
    EXPECT_FALSE(table[0].Reconfigure());
    EXPECT_TRUE(trace.Has("interface address=%x errno=%d", {Number("10.1.2.3"), EMFILE}));
    EXPECT_FALSE(table[0].Deconfigure());
    EXPECT_TRUE(trace.Has("deconfigure request=%x errno=%d", {SIOCSIFADDR, EMFILE}));
    EXPECT_FALSE(table[0].SetMacAddress(KovaMacAddr("02:00:00:00:00:09")));
    EXPECT_FALSE(table[0].GetMacAddress().IsValid()) << "nor read back";
    EXPECT_EQ(kernel.Requests(), Texts{});
}

// The listing

TEST_F(NetInterfaces, ListingOfAnEmptyTableIsItsHeading) { EXPECT_EQ(Listing(), ""); }

TEST_F(NetInterfaces, ListingHasFixedColumnsThatAreNotThoseOfTheHeading) {
    FakeKernel kernel{{"lo", "127.0.0.1", "255.0.0.0", IFF_UP | IFF_LOOPBACK, 0},
                      {"eth0", "10.1.2.3", "255.255.255.0", 0, 0xAB},
                      {"eth0:12", "192.168.100.200", "255.255.255.255", IFF_UP, 2},
                      {"abcdefghijklmno", "10.2.3.4", "0.0.0.0", IFF_UP, 3}};
    Gather(kernel);
    EXPECT_EQ(
        Listing(),
        "00 001 127.0.0.1        255.0.0.0        127.0.0.0         1 lo          00:00:00:00:00:00 0\n"
        "01 002 10.1.2.3         255.255.255.0    10.1.2.0          2 eth0        02:00:00:00:00:ab 0\n"
        "02 002 192.168.100.200  255.255.255.255  192.168.100.200   1 eth0:12     02:00:00:00:00:02 12\n"
        "03 002 10.2.3.4         0.0.0.0          0.0.0.0           1 abcdefghijkl02:00:00:00:00:03 0\n");
}

TEST_F(NetInterfaces, ListingShowsWhatCallersMadeOfARecord) {
    FakeKernel kernel{{"eth0", "10.1.2.3"}};
    kernel.RefuseAfter(3);
    Gather(kernel);
    Interface& one = table[0];
    one.SetType(KovaNetInterfaces::IF_TYPE_EXTERN);
    one.SetName("e:-3");
    one.SetInterfaceId(123);
    EXPECT_EQ(
        Listing(),
        "123 003 10.1.2.3         255.255.255.0    10.1.2.0          1 e:-3        MAC Addr invalid -3\n");
}

// Real networks

/// An IPv4 address as the kernel tells it in another way than by ioctl.
struct KernelAddress {
    std::string label;
    std::string address;
    std::string netmask;
    std::string broadcast;

    bool operator==(const KernelAddress& other) const = default;
};

void PrintTo(const KernelAddress& one, std::ostream* stream) {
    *stream << one.label << " " << one.address << "/" << one.netmask << " " << one.broadcast;
}

std::string Dotted(const sockaddr* address) {
    if (address == nullptr) return "";
    sockaddr_in ip4;
    std::memcpy(&ip4, address, sizeof ip4);
    char text[INET_ADDRSTRLEN];
    return ::inet_ntop(AF_INET, &ip4.sin_addr, text, sizeof text);
}

void ForEachAddress(const std::function<void(const ifaddrs&)>& work) {
    ifaddrs* list = nullptr;
    EXPECT_EQ(0, ::getifaddrs(&list));
    for (const ifaddrs* one = list; one != nullptr; one = one->ifa_next) {
        if (one->ifa_addr != nullptr) work(*one);
    }
    ::freeifaddrs(list);
}

std::vector<KernelAddress> KernelAddresses(const std::string& label = "") {
    std::vector<KernelAddress> addresses;
    ForEachAddress([&](const ifaddrs& one) {
        if (one.ifa_addr->sa_family != AF_INET || (!label.empty() && label != one.ifa_name)) return;
        const sockaddr* const broadcast = (one.ifa_flags & IFF_BROADCAST) != 0 ? one.ifa_broadaddr : nullptr;
        addresses.push_back({one.ifa_name, Dotted(one.ifa_addr), Dotted(one.ifa_netmask), Dotted(broadcast)});
    });
    return addresses;
}

bool IsUpInKernel(const std::string& name) {
    unsigned flags = 0;
    ForEachAddress([&](const ifaddrs& one) {
        if (name == one.ifa_name) flags = one.ifa_flags;
    });
    return (flags & IFF_UP) != 0;
}

std::string MacInKernel(const std::string& name) {
    std::string mac;
    ForEachAddress([&](const ifaddrs& one) {
        if (one.ifa_addr->sa_family != AF_PACKET || name != one.ifa_name) return;
        const auto* const link = reinterpret_cast<const sockaddr_ll*>(one.ifa_addr);
        mac = KovaMacAddr(static_cast<const unsigned char*>(link->sll_addr)).Ascii();
    });
    return mac;
}

/// A cable between two links of this network; only the first one is given addresses. Both are up.
void MakeCable(const std::string& name, const std::string& peer) {
    // The board's `ip` cannot name the peer; the kernel takes the first free name.
    Shell("ip link add " + name + " type veth && ip link set veth0 name " + peer);
    Shell("ip link set " + name + " up && ip link set " + peer + " up");
}

void AddAddress(const std::string& name, const std::string& address, const std::string& label = "") {
    Shell("ip addr add " + address + " dev " + name + (label.empty() ? "" : " label " + label));
}

class NetInterfacesOfTheKernel : public NetInterfaces {
  protected:
    /// The table has what the kernel tells, in its order.
    void ExpectAll(const std::vector<KernelAddress>& addresses) {
        EXPECT_EQ(table.Count(), static_cast<int>(addresses.size()));
        for (int i = 0; i < table.Count(); ++i) {
            const KernelAddress& one = addresses[static_cast<size_t>(i)];
            const bool loopback = one.label == "lo";
            ExpectRecord(i, one.label.c_str(), one.address.c_str(), one.netmask.c_str(), loopback ? 1 : 2, 1);
            EXPECT_EQ(table[i].GetMacAddress().Ascii(), MacInKernel(table[i].GetBaseName())) << one.label;
        }
    }
};

TEST_F(NetInterfacesOfTheKernel, LoopbackAloneIsListed) {
    EXPECT_TRUE(table.Init());
    EXPECT_EQ(table.Count(), 1);
    EXPECT_TRUE(table.IsLoopbackAddress(Address("127.0.0.1")));
    EXPECT_EQ(
        Listing(),
        "00 001 127.0.0.1        255.0.0.0        127.0.0.0         1 lo          00:00:00:00:00:00 0\n");
    EXPECT_EQ(table.GetError(), 0);
}

TEST_F(NetInterfacesOfTheKernel, SeveralCablesAndAliasesAreListed) {
    MakeCable("ka0", "ka1");
    MakeCable("kb0", "kb1");
    AddAddress("ka0", "10.1.2.3/24");
    AddAddress("ka0", "10.2.3.4/16", "ka0:1");
    AddAddress("kb0", "192.168.7.129/26");
    AddAddress("kb1", "172.16.0.1/32");
    Shell("ip link set ka0 address 02:00:00:00:00:0a && ip link set kb0 address 02:00:00:00:00:0b");
    Shell("ip link set kb1 address 02:00:00:00:00:1b");
    EXPECT_TRUE(table.Init());
    const std::vector<KernelAddress> addresses = KernelAddresses();
    EXPECT_EQ(addresses.size(), 5u);
    ExpectAll(addresses);
    EXPECT_EQ(KernelAddresses(), addresses) << "gathering changed nothing";
    EXPECT_EQ(table["ka0:1"].GetAlias(), 1);
    EXPECT_EQ(table[KovaMacAddr("02:00:00:00:00:0b")].GetAddress(), Address("192.168.7.129"));
    EXPECT_STREQ(table[Address("192.168.7.128")].GetName(), "kb0");
    EXPECT_TRUE(table.IsDirectReachable(Address("192.168.7.191")));
    EXPECT_FALSE(table.IsDirectReachable(Address("192.168.7.192")));
    EXPECT_EQ(
        Listing(),
        "00 001 127.0.0.1        255.0.0.0        127.0.0.0         1 lo          00:00:00:00:00:00 0\n"
        "01 002 10.1.2.3         255.255.255.0    10.1.2.0          1 ka0         02:00:00:00:00:0a 0\n"
        "02 002 10.2.3.4         255.255.0.0      10.2.0.0          1 ka0:1       02:00:00:00:00:0a 1\n"
        "03 002 172.16.0.1       255.255.255.255  172.16.0.1        1 kb1         02:00:00:00:00:1b 0\n"
        "04 002 192.168.7.129    255.255.255.192  192.168.7.128     1 kb0         02:00:00:00:00:0b 0\n");
    EXPECT_EQ(table.GetError(), 0);
}

TEST_F(NetInterfacesOfTheKernel, OfNineAddressesTheFirstSevenAreListed) {
    MakeCable("ka0", "ka1");
    for (int i = 1; i <= 8; ++i) {
        const std::string n = std::to_string(i);
        AddAddress("ka0", "10." + n + ".0.1/16", "ka0:" + n);
    }
    EXPECT_TRUE(table.Init());
    std::vector<KernelAddress> addresses = KernelAddresses();
    EXPECT_EQ(addresses.size(), 9u);
    addresses.resize(7);
    ExpectAll(addresses);
    EXPECT_EQ(table["ka0:6"].GetInterfaceId(), 6);
    EXPECT_EQ(table["ka0:7"].GetInterfaceId(), -1);
}

TEST_F(NetInterfacesOfTheKernel, InterfaceWithIpv6OnlyIsNotListed) {
    MakeCable("ka0", "ka1");
    MakeCable("kb0", "kb1");
    Shell("ip addr add fd00::1/64 dev ka0");
    AddAddress("kb0", "10.1.2.3/24");
    EXPECT_TRUE(table.Init());
    EXPECT_EQ(table.Count(), 2);
    EXPECT_EQ(table["ka0"].GetInterfaceId(), -1);
    EXPECT_EQ(table["kb0"].GetInterfaceId(), 1);
}

TEST_F(NetInterfacesOfTheKernel, NamesOfFifteenCharactersWork) {
    MakeCable("abcdefghijklmno", "kap");
    AddAddress("abcdefghijklmno", "10.1.2.3/24");
    Shell("ip link set abcdefghijklmno address 02:00:00:00:00:0f");
    EXPECT_TRUE(table.Init());
    ExpectAll(KernelAddresses());
    EXPECT_STREQ(table["abcdefghijklmno"].GetMacAddress().Ascii(), "02:00:00:00:00:0f");
    table["abcdefghijklmno"].SetAddress(Address("10.1.2.4"));
    EXPECT_TRUE(table["abcdefghijklmno"].Reconfigure());
    EXPECT_EQ(KernelAddresses("abcdefghijklmno"),
              (std::vector<KernelAddress>{{"abcdefghijklmno", "10.1.2.4", "255.255.255.0", "10.1.2.255"}}));
}

TEST_F(NetInterfacesOfTheKernel, InterfaceThatIsDownLosesItsAddress) {
    MakeCable("ka0", "ka1");
    AddAddress("ka0", "10.1.2.3/24");
    Shell("ip link set ka0 address 02:00:00:00:00:0a && ip link set ka0 down");
    EXPECT_TRUE(table.Init());
    EXPECT_EQ(KernelAddresses("ka0"), std::vector<KernelAddress>{});
    EXPECT_FALSE(IsUpInKernel("ka0"));
    // Without an address there is no mask to take away, and none to read.
    EXPECT_TRUE(trace.Has("deconfigure request=%x errno=%d", {SIOCSIFNETMASK, EADDRNOTAVAIL}));
    EXPECT_TRUE(trace.Has("interface netmask errno=%d", {EADDRNOTAVAIL}));
    ExpectRecord(1, "ka0", "10.1.2.3", "0.0.0.0", 2, 2);
    EXPECT_EQ(
        Listing(),
        "00 001 127.0.0.1        255.0.0.0        127.0.0.0         1 lo          00:00:00:00:00:00 0\n"
        "01 002 10.1.2.3         0.0.0.0          0.0.0.0           2 ka0         02:00:00:00:00:0a 0\n");
    EXPECT_FALSE(table.IsDirectReachable(Address("10.1.2.3")));
    EXPECT_TRUE(table.Init());
    EXPECT_EQ(table.Count(), 1) << "without an address it is in no list";
}

TEST_F(NetInterfacesOfTheKernel, InterfaceThatMovesIntoTheSlotOfOneThatWasDownIsReconfigured) {
    MakeCable("ka0", "ka1");
    MakeCable("kb0", "kb1");
    AddAddress("ka0", "10.1.2.3/24");
    AddAddress("kb0", "10.2.3.4/16 broadcast 10.2.255.255");
    Shell("ip link set ka0 down");
    EXPECT_TRUE(table.Init());
    EXPECT_EQ(KernelAddresses("kb0"),
              (std::vector<KernelAddress>{{"kb0", "10.2.3.4", "255.255.0.0", "10.2.255.255"}}));
    EXPECT_TRUE(table.Init());
    EXPECT_EQ(table["kb0"].GetInterfaceId(), 1);
    EXPECT_EQ(table["kb0"].GetStatus(), 1);
    // The slot's mask was that of an interface without address.
    EXPECT_EQ(KernelAddresses("kb0"),
              (std::vector<KernelAddress>{{"kb0", "10.2.3.4", "0.0.0.0", "255.255.255.255"}}));
    EXPECT_EQ(Text(table["kb0"].GetNetMask()), "0.0.0.0");
}

TEST_F(NetInterfacesOfTheKernel, InterfaceThatDisappearsWhileItIsGatheredCountsAsDown) {
    for (const unsigned long request : {SIOCGIFFLAGS, SIOCGIFNETMASK, SIOCGIFHWADDR}) {
        MakeCable("ka0", "ka1");
        MakeCable("kb0", "kb1");
        AddAddress("ka0", "10.1.2.3/24");
        AddAddress("kb0", "10.2.3.4/16");
        KovaNetInterfaces fresh;
        trace.Clear();
        {
            bool gone = false;
            fake::Replace pull(fake::ioctl, [&](int fd, unsigned long asked, void* argument) {
                if (!std::exchange(gone, true)) Shell("ip link del ka0");
                return fake::ioctl.Real(fd, asked, argument);
            });
            pull.When([&](int, unsigned long asked, void* argument) {
                return asked == request && std::strcmp(static_cast<ifreq*>(argument)->ifr_name, "ka0") == 0;
            });
            EXPECT_TRUE(fresh.GatherInterfaces());
            EXPECT_TRUE(gone);
        }
        EXPECT_EQ(fresh.Count(), 3);
        EXPECT_EQ(fresh["ka0"].GetType(), 2);
        EXPECT_EQ(fresh["ka0"].GetStatus(), request == SIOCGIFFLAGS ? 2 : 1);
        EXPECT_EQ(Text(fresh["ka0"].GetNetMask()), request == SIOCGIFHWADDR ? "255.255.255.0" : "0.0.0.0");
        EXPECT_FALSE(fresh["ka0"].GetMacAddress().IsValid());
        EXPECT_EQ(trace.Count("interface flags errno=%d"), request == SIOCGIFFLAGS ? 1u : 0u);
        EXPECT_EQ(trace.Count("interface netmask errno=%d"), request == SIOCGIFHWADDR ? 0u : 1u);
        EXPECT_EQ(fresh.GetError(), request == SIOCGIFFLAGS ? ENODEV : 0);
        EXPECT_EQ(Text(fresh["kb0"].GetNetMask()), "255.255.0.0");
        EXPECT_EQ(fresh["kb0"].GetStatus(), 1);
        Shell("ip link del kb0");
    }
}

TEST_F(NetInterfacesOfTheKernel, ReconfigureChangesTheKernel) {
    MakeCable("ka0", "ka1");
    AddAddress("ka0", "10.1.2.3/24");
    EXPECT_TRUE(table.Init());
    Interface& one = table["ka0"];
    one.SetAddress(Address("172.16.77.5"));
    one.SetNetMask(Address("255.255.240.0"));
    EXPECT_EQ(KernelAddresses("ka0").at(0).address, "10.1.2.3") << "not before it is told";
    EXPECT_TRUE(one.Reconfigure());
    EXPECT_EQ(KernelAddresses("ka0"),
              (std::vector<KernelAddress>{{"ka0", "172.16.77.5", "255.255.240.0", "172.16.79.255"}}));
    EXPECT_TRUE(table.GatherInterfaces());
    ExpectRecord(1, "ka0", "172.16.77.5", "255.255.240.0", 2, 1);
}

TEST_F(NetInterfacesOfTheKernel, StatusChangesTheKernelBothWays) {
    MakeCable("ka0", "ka1");
    AddAddress("ka0", "10.1.2.3/24");
    EXPECT_TRUE(table.Init());
    Interface& one = table["ka0"];
    EXPECT_FALSE(one.SetStatus(KovaNetInterfaces::IF_STATUS_DOWN)) << "the mask goes with the address";
    EXPECT_EQ(one.GetStatus(), 2);
    EXPECT_FALSE(IsUpInKernel("ka0"));
    EXPECT_EQ(KernelAddresses("ka0"), std::vector<KernelAddress>{});
    EXPECT_TRUE(one.SetStatus(KovaNetInterfaces::IF_STATUS_UP));
    EXPECT_TRUE(IsUpInKernel("ka0"));
    EXPECT_EQ(KernelAddresses("ka0"),
              (std::vector<KernelAddress>{{"ka0", "10.1.2.3", "255.255.255.0", "10.1.2.255"}}));
}

TEST_F(NetInterfacesOfTheKernel, DownOfAnAliasLeavesTheInterfaceUp) {
    MakeCable("ka0", "ka1");
    AddAddress("ka0", "10.1.2.3/24");
    AddAddress("ka0", "10.2.3.4/16", "ka0:1");
    EXPECT_TRUE(table.Init());
    table["ka0:1"].SetStatus(KovaNetInterfaces::IF_STATUS_DOWN);
    EXPECT_TRUE(IsUpInKernel("ka0"));
    EXPECT_EQ(KernelAddresses("ka0:1"), std::vector<KernelAddress>{});
    EXPECT_EQ(KernelAddresses("ka0").size(), 1u);
}

TEST_F(NetInterfacesOfTheKernel, MacAddressChangesInTheKernel) {
    MakeCable("ka0", "ka1");
    AddAddress("ka0", "10.1.2.3/24");
    EXPECT_TRUE(table.Init());
    EXPECT_TRUE(table["ka0"].SetMacAddress(KovaMacAddr("02:12:34:56:78:9a")));
    EXPECT_EQ(MacInKernel("ka0"), "02:12:34:56:78:9a");
    EXPECT_STREQ(table["ka0"].GetMacAddress().Ascii(), "02:12:34:56:78:9a");
    // A group address is none for an interface.
    EXPECT_FALSE(table["ka0"].SetMacAddress(KovaMacAddr("01:12:34:56:78:9a")));
    EXPECT_TRUE(trace.Has("ioctl request=%x errno=%d", {SIOCSIFHWADDR, EADDRNOTAVAIL}));
    EXPECT_STREQ(table["ka0"].GetMacAddress().Ascii(), "02:12:34:56:78:9a");
}

/// Hears of each change of a link.
class LinkMonitor {
  public:
    LinkMonitor() : m_Socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {
        sockaddr_nl group{};
        group.nl_family = AF_NETLINK;
        group.nl_groups = RTMGRP_LINK;
        EXPECT_EQ(0, ::bind(m_Socket, reinterpret_cast<sockaddr*>(&group), sizeof group));
    }

    /// "down" and "up", as often as the link became that.
    Texts Changes(const char* name) {
        const auto index = static_cast<int>(::if_nametoindex(name));
        Texts changes;
        alignas(nlmsghdr) char buffer[16384];
        for (;;) {
            const ssize_t size = ::recv(m_Socket, buffer, sizeof buffer, MSG_DONTWAIT);
            if (size <= 0) return changes;
            const auto* const header = reinterpret_cast<const nlmsghdr*>(buffer);
            if (header->nlmsg_type != RTM_NEWLINK) continue;
            ifinfomsg link;
            std::memcpy(&link, buffer + NLMSG_HDRLEN, sizeof link);
            const std::string now = (link.ifi_flags & IFF_UP) != 0 ? "up" : "down";
            if (link.ifi_index == index && (changes.empty() || changes.back() != now)) changes.push_back(now);
        }
    }

  private:
    Fd m_Socket;
};

TEST_F(NetInterfacesOfTheKernel, ResetTakesTheLinkDownAndUp) {
    MakeCable("ka0", "ka1");
    AddAddress("ka0", "10.1.2.3/24");
    EXPECT_TRUE(table.Init());
    LinkMonitor monitor;
    EXPECT_TRUE(table["ka0"].ResetInterface());
    EXPECT_EQ(monitor.Changes("ka0"), (Texts{"down", "up"}));
    EXPECT_TRUE(IsUpInKernel("ka0"));
    EXPECT_EQ(KernelAddresses("ka0"),
              (std::vector<KernelAddress>{{"ka0", "10.1.2.3", "255.255.255.0", "10.1.2.255"}}));
}

void DropPrivileges() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3]{};
    EXPECT_EQ(0, ::syscall(SYS_capset, &header, none));
}

TEST_F(NetInterfacesOfTheKernel, WithoutPrivilegeNothingIsChanged) {
    MakeCable("ka0", "ka1");
    AddAddress("ka0", "10.1.2.3/24");
    const std::vector<KernelAddress> before = KernelAddresses();
    const std::string mac = MacInKernel("ka0");
    DeadlineThread unprivileged([&] {
        DropPrivileges();
        EXPECT_TRUE(table.Init()) << "looking is for everyone";
        Interface& one = table["ka0"];
        EXPECT_EQ(table.GetError(), 0);
        EXPECT_FALSE(one.SetFlag(IFF_UP, false));
        EXPECT_EQ(table.GetError(), EPERM);
        EXPECT_TRUE(trace.Has("interfaces code=%d", {EPERM}));
        EXPECT_FALSE(one.Reconfigure());
        EXPECT_EQ(table.GetError(), 0);
        EXPECT_TRUE(trace.Has("interface address=%x errno=%d", {Number("10.1.2.3"), EPERM}));
        EXPECT_FALSE(one.Deconfigure());
        EXPECT_TRUE(trace.Has("deconfigure request=%x errno=%d", {SIOCSIFADDR, EPERM}));
        EXPECT_FALSE(one.SetMacAddress(KovaMacAddr("02:12:34:56:78:9a")));
        EXPECT_EQ(one.GetMacAddress().Ascii(), mac);
        EXPECT_FALSE(one.ResetInterface());
        EXPECT_EQ(table.GetError(), EPERM);
        EXPECT_EQ(trace.Count("interface not reset id=%d"), 1u);
        EXPECT_FALSE(one.SetStatus(KovaNetInterfaces::IF_STATUS_DOWN));
        EXPECT_EQ(one.GetStatus(), 2) << "the record has it all the same";
    });
    unprivileged.Join();
    EXPECT_EQ(KernelAddresses(), before);
    EXPECT_EQ(MacInKernel("ka0"), mac);
    EXPECT_TRUE(IsUpInKernel("ka0"));
}

}  // namespace

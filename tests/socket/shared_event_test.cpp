#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/recorded.h"
#include "support/trace_recorder.h"
#include "sync/locks.h"

#include <kova/shared_event.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#ifdef __SANITIZE_THREAD__
// Closing takes the descriptor away from under a wait of another thread, which is wanted. Nothing else may
// race.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() { return "race:^close$"; }
#endif

namespace {

using Texts = std::vector<std::string>;

constexpr char kPost[] = "bool KovaSharedEvent::Post()";
constexpr char kTimedWait[] = "bool KovaSharedEvent::TimedWait(int, bool)";
constexpr char kBind[] = "virtual bool KovaUDPSocket::Bind()";
constexpr char kRecvFrom[] = "virtual bool KovaUDPSocket::RecvFrom(void*, size_t)";
constexpr char kIoctl[] = "bool KovaSocketWrapper::Ioctl(long unsigned int, const void*)";
constexpr char kWrapperSendTo[] = "int KovaSocketWrapper::SendTo(const void*, size_t, sockaddr*, int)";

constexpr char kNoName[] = "event without name fd=%d";
constexpr char kPosting[] = "post event to=%x port=%u";

constexpr uint16_t kPort = 20003;
constexpr size_t kDatagram = 32;
constexpr size_t kLongestName = 31;

constexpr bool kExact = false;
constexpr bool kPattern = true;

constexpr KovaBaseObject::ErrorT kMismatch = KovaBaseObject::KOVA_ERR_SIZE_MISMATCH;

static_assert(KovaSharedEvent::kAddress == 0x7FFFFFFF);
static_assert(KovaSharedEvent::kPort == kPort);
static_assert(std::is_base_of_v<KovaUDPSocket, KovaSharedEvent>);
static_assert(!std::is_copy_constructible_v<KovaSharedEvent> && !std::is_copy_assignable_v<KovaSharedEvent>);
static_assert(std::is_same_v<bool (KovaSharedEvent::*)(), decltype(&KovaSharedEvent::Post)>);
static_assert(std::is_same_v<bool (KovaSharedEvent::*)(int, bool), decltype(&KovaSharedEvent::TimedWait)>);
static_assert(std::is_same_v<bool (KovaSharedEvent::*)(bool), decltype(&KovaSharedEvent::Wait)>);
static_assert(std::is_same_v<int (KovaSharedEvent::*)(), decltype(&KovaSharedEvent::EventCount)>);
static_assert(std::is_same_v<bool (KovaSharedEvent::*)(), decltype(&KovaSharedEvent::Flush)>);

/// An event whose error record a test can fill.
class Event : public KovaSharedEvent {
  public:
    using KovaSharedEvent::KovaSharedEvent;
    void Plant(int code) { _SetError_("planted", 1, code); }
};

/// The datagram that stands for an event.
std::string DatagramOf(std::string name) {
    name.resize(kDatagram, '\0');
    return name;
}

/// A kernel socket beside the event objects.
class Wire {
  public:
    Wire() : m_Fd(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        Set(SO_BROADCAST, 1);
        const timeval limit{10, 0};
        ::setsockopt(m_Fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }

    void Set(int option, int value) const {
        EXPECT_EQ(0, ::setsockopt(m_Fd, SOL_SOCKET, option, &value, sizeof value));
    }
    bool Bind() const {
        sockaddr_in6 any{};
        any.sin6_family = AF_INET6;
        any.sin6_port = htons(kPort);
        return ::bind(m_Fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0;
    }
    /// Broadcasts a datagram to everybody on the port of the events.
    void Broadcast(const std::string& data) const {
        sockaddr_in6 to{};
        to.sin6_family = AF_INET6;
        to.sin6_port = htons(kPort);
        EXPECT_EQ(1, ::inet_pton(AF_INET6, "::ffff:127.255.255.255", &to.sin6_addr));
        EXPECT_EQ(
            static_cast<ssize_t>(data.size()),
            ::sendto(m_Fd, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to));
    }
    /// The next datagram; loopback delivers while it is sent.
    std::string Receive() {
        char buffer[256];
        socklen_t length = sizeof m_Source;
        const ssize_t size =
            ::recvfrom(m_Fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&m_Source), &length);
        return size < 0 ? "nothing" : std::string(buffer, static_cast<size_t>(size));
    }
    bool HasNothing() const {
        char byte;
        return ::recv(m_Fd, &byte, sizeof byte, MSG_DONTWAIT | MSG_PEEK) < 0;
    }
    /// Where the last datagram came from.
    const sockaddr_in6& Source() const { return m_Source; }

  private:
    const Fd m_Fd;
    sockaddr_in6 m_Source{};
};

/// A kernel socket on the port of the events.
class Listener : public Wire {
  public:
    Listener() {
        Set(SO_REUSEADDR, 1);
        EXPECT_TRUE(Bind());
    }
};

int OptionOf(const KovaSocketWrapper& socket, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(0, ::getsockopt(socket.GetSocket(), SOL_SOCKET, option, &value, &length));
    return value;
}

/// Opens and binds the socket, as every first wait does.
void Ready(KovaSharedEvent& event) {
    EXPECT_FALSE(event.TimedWait(0, kExact));
    EXPECT_EQ(ETIMEDOUT, event.GetError());
}

/// What the event would have received of a broadcast: nothing more waits.
void ExpectNothingWaits(KovaSharedEvent& event) {
    EXPECT_FALSE(event.TimedWait(0, kPattern));
    EXPECT_EQ(ETIMEDOUT, event.GetError());
}

Texts FunctionsOf(const fake::Journal& journal) {
    Texts functions;
    for (const fake::Entry& entry : journal.Entries()) functions.push_back(entry.function);
    return functions;
}

/// The ioctl that asks for the waiting bytes.
bool AsksForBytes(int, unsigned long request, void*) { return request == FIONREAD; }

class SharedEvent : public KovaTest {
  protected:
    /// A socket that broadcasts; bound nowhere.
    Wire m_Wire;
};

// Construction

TEST_F(SharedEvent, StartsClosedWithTheEventAddressAsItsLocalOne) {
    Event event("e");
    EXPECT_EQ(-1, event.GetSocket());
    EXPECT_EQ(KOVA_SOCKET_CLOSED, event.GetMode());
    const KovaInetAddr& local = event.GetLocal();
    EXPECT_STREQ("127.255.255.255", local.GetAsciiIp());
    EXPECT_EQ(htonl(0x7FFFFFFF), local.GetIp());
    EXPECT_EQ(htons(20003), local.GetPort());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, event.GetError());
    EXPECT_EQ(nullptr, event.GetErrorFunction());
    Event unnamed;
    EXPECT_STREQ("127.255.255.255:20003", static_cast<const char*>(unnamed.GetLocal()));
}

TEST_F(SharedEvent, ConstructorCallsNothing) {
    const fake::Journal journal;
    Event unnamed;
    Event named("e");
    EXPECT_EQ(Texts{}, journal.Texts());
}

TEST_F(SharedEvent, SocketBroadcastsBlocksAndBypassesRouting) {
    Event unnamed;
    unnamed.SetEventName("e");
    Event named("e");
    for (Event* const event : {&unnamed, &named}) {
        Ready(*event);
        EXPECT_NE(0, OptionOf(*event, SO_BROADCAST));
        EXPECT_NE(0, OptionOf(*event, SO_DONTROUTE));
        EXPECT_NE(0, OptionOf(*event, SO_REUSEADDR));
        EXPECT_EQ(0, ::fcntl(event->GetSocket(), F_GETFL) & O_NONBLOCK);
    }
}

// Opening on demand

TEST_F(SharedEvent, FirstPostOpensBindsSendsAndFlushesInThisOrder) {
    Event event("first");
    const fake::Journal journal;
    EXPECT_TRUE(event.Post());
    const std::string fd = std::to_string(event.GetSocket());
    Texts texts = journal.Texts();
    Texts functions = FunctionsOf(journal);
    ASSERT_EQ(16u, texts.size()) << testing::PrintToString(texts);
    // The text of this request depends on the machine.
    EXPECT_EQ("ioctl", functions[11]);
    EXPECT_EQ("ioctl", functions[14]);
    texts[11] = texts[14] = "ioctl FIONREAD";
    EXPECT_EQ(
        (Texts{"socket AF_INET6 SOCK_DGRAM 0", "fcntl F_SETFD 1", "setsockopt SOL_SOCKET SO_DONTROUTE 1",
               "setsockopt SOL_SOCKET SO_BROADCAST 1", "setsockopt SOL_SOCKET SO_SNDTIMEO {3, 0}",
               "setsockopt SOL_SOCKET SO_RCVTIMEO {3, 0}", "setsockopt SOL_SOCKET SO_REUSEADDR 1",
               "bind [::]:20003", "setsockopt SOL_SOCKET SO_REUSEADDR 1",
               "sendto 32 MSG_NOSIGNAL [::ffff:127.255.255.255]:20003", "ioctl FIONBIO 1", "ioctl FIONREAD",
               "select " + std::to_string(event.GetSocket() + 1) + " {" + fd + "} {} {" + fd + "} {3, 0}",
               "recvfrom 32 0", "ioctl FIONREAD", "ioctl FIONBIO 0"}),
        texts);
    EXPECT_EQ(KOVA_SOCKET_OPENED, event.GetMode());
}

TEST_F(SharedEvent, FirstWaitOpensAndBindsInThisOrder) {
    Event event("first");
    const fake::Journal journal;
    EXPECT_FALSE(event.TimedWait(1, kExact));
    const std::string fd = std::to_string(event.GetSocket());
    EXPECT_EQ(
        (Texts{
            "socket AF_INET6 SOCK_DGRAM 0", "fcntl F_SETFD 1", "setsockopt SOL_SOCKET SO_DONTROUTE 1",
            "setsockopt SOL_SOCKET SO_BROADCAST 1", "setsockopt SOL_SOCKET SO_SNDTIMEO {3, 0}",
            "setsockopt SOL_SOCKET SO_RCVTIMEO {3, 0}", "setsockopt SOL_SOCKET SO_REUSEADDR 1",
            "bind [::]:20003", "setsockopt SOL_SOCKET SO_SNDTIMEO {0, 1000}",
            "setsockopt SOL_SOCKET SO_RCVTIMEO {0, 1000}",
            "select " + std::to_string(event.GetSocket() + 1) + " {" + fd + "} {} {" + fd + "} {0, 1000}"}),
        journal.Texts());
}

TEST_F(SharedEvent, OpenSocketIsUsedAsItIs) {
    Event event("open");
    EXPECT_TRUE(event.Post());
    const int fd = event.GetSocket();
    const fake::Journal journal{&fake::socket, &fake::bind, &fake::setsockopt};
    EXPECT_TRUE(event.Post());
    EXPECT_EQ(Texts{}, journal.Texts());
    Ready(event);
    EXPECT_EQ((Texts{"setsockopt SOL_SOCKET SO_SNDTIMEO {0, 0}", "setsockopt SOL_SOCKET SO_RCVTIMEO {0, 0}"}),
              journal.Texts());
    EXPECT_EQ(fd, event.GetSocket());
}

TEST_F(SharedEvent, WithoutSocketPostAndWaitAreNotASocketAndDoNotTraceIt) {
    const struct {
        const char* function;
        std::function<bool(Event&)> operation;
    } cases[] = {{kPost, [](Event& event) { return event.Post(); }},
                 {kTimedWait, [](Event& event) { return event.TimedWait(1000, kExact); }},
                 {kTimedWait, [](Event& event) { return event.Wait(kExact); }}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.function);
        Event event("e");
        const TraceRecorder recorder;
        const fake::Journal journal;
        const fake::Script sockets(fake::socket, {fake::Fail(EMFILE)});
        EXPECT_FALSE(c.operation(event));
        EXPECT_TRUE(Recorded(event, ENOTSOCK, c.function));
        ExpectRecords(recorder, {{"socket errno=%d", {EMFILE}}});
        EXPECT_EQ((Texts{"socket", "fcntl"}), FunctionsOf(journal));
        EXPECT_EQ(KOVA_SOCKET_CLOSED, event.GetMode());
    }
}

TEST_F(SharedEvent, PortHeldByAStrangerFailsWithTheErrorOfTheBind) {
    const Wire stranger;
    ASSERT_TRUE(stranger.Bind());
    const std::function<bool(Event&)> operations[] = {
        [](Event& event) { return event.Post(); },
        [](Event& event) { return event.TimedWait(60000, kExact); },
        [](Event& event) { return event.Wait(kExact); },
    };
    for (const auto& operation : operations) {
        Event event("e");
        const TraceRecorder recorder;
        const fake::Journal journal{&fake::socket, &fake::bind, &fake::sendto, &fake::select};
        EXPECT_FALSE(operation(event));
        EXPECT_TRUE(Recorded(event, EADDRINUSE, kBind));
        EXPECT_TRUE(recorder.Has("bind udp port=%u errno=%d", {kPort, EADDRINUSE}));
        EXPECT_EQ((Texts{"socket AF_INET6 SOCK_DGRAM 0", "bind [::]:20003"}), journal.Texts());
        EXPECT_EQ(KOVA_SOCKET_CLOSED, event.GetMode());
        EXPECT_EQ(-1, event.GetSocket());
    }
    EXPECT_TRUE(stranger.HasNothing());
}

TEST_F(SharedEvent, NextOperationTriesAgainAfterAFailedOne) {
    Event event("again");
    {
        const fake::Script binds(fake::bind, {fake::Fail(EACCES)});
        EXPECT_FALSE(event.Post());
        EXPECT_TRUE(Recorded(event, EACCES, kBind));
    }
    {
        const fake::Script sockets(fake::socket, {fake::Fail(ENFILE)});
        EXPECT_FALSE(event.TimedWait(0, kExact));
        EXPECT_TRUE(Recorded(event, ENOTSOCK, kTimedWait));
    }
    Listener listener;
    EXPECT_TRUE(event.Post());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, event.GetError());
    EXPECT_EQ(DatagramOf("again"), listener.Receive());
}

TEST_F(SharedEvent, FailedBindDoesNotEndLaterWaits) {
    Event event("later");
    {
        const fake::Script binds(fake::bind, {fake::Fail(EADDRINUSE)});
        EXPECT_FALSE(event.Post());
    }
    Ready(event);
    const auto post = [&](int n, fd_set* read, fd_set* write, fd_set* except, timeval* limit) {
        m_Wire.Broadcast(DatagramOf("later"));
        return fake::select.Real(n, read, write, except, limit);
    };
    const fake::Script selects(fake::select, {fake::Return(0), post});
    EXPECT_TRUE(event.Wait(kExact));
}

/// Descriptors from 1024 on can be had while it lives.
class HighDescriptors {
  public:
    static constexpr int kFirst = 1024;

    HighDescriptors() {
        EXPECT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &m_Before));
        rlimit wanted = m_Before;
        wanted.rlim_cur = std::max<rlim_t>(wanted.rlim_cur, kFirst + 64);
        wanted.rlim_max = std::max<rlim_t>(wanted.rlim_max, kFirst + 64);
        EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &wanted));
    }
    HighDescriptors(const HighDescriptors&) = delete;
    HighDescriptors& operator=(const HighDescriptors&) = delete;
    ~HighDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_Before); }

    static int Make(int domain, int type, int protocol) {
        const Fd low(fake::socket.Real(domain, type, protocol));
        return fake::fcntl.Real(low, F_DUPFD, kFirst);
    }

  private:
    rlimit m_Before{};
};

const struct {
    const char* function;
    std::function<bool(Event&)> operation;
} kOperations[] = {{kPost, [](Event& event) { return event.Post(); }},
                   {kTimedWait, [](Event& event) { return event.TimedWait(60000, kExact); }},
                   {kTimedWait, [](Event& event) { return event.Wait(kExact); }}};

TEST_F(SharedEvent, DescriptorThatCannotBeWaitedForIsRefused) {
    const HighDescriptors high;
    for (const auto& c : kOperations) {
        Event event("high");
        const fake::Script sockets(fake::socket, {HighDescriptors::Make});
        EXPECT_FALSE(c.operation(event));
        EXPECT_TRUE(Recorded(event, EINVAL, c.function));
        EXPECT_EQ(KOVA_SOCKET_CLOSED, event.GetMode());
    }
}

TEST_F(SharedEvent, DescriptorThatIsThereAndCannotBeWaitedForIsRefusedAndStays) {
    const HighDescriptors high;
    for (const bool adopted : {false, true}) {
        for (const auto& c : kOperations) {
            SCOPED_TRACE(c.function);
            Event event("high");
            const fake::Script sockets(fake::socket, {HighDescriptors::Make});
            if (adopted) {
                EXPECT_TRUE(event.SetSocket(::socket(AF_INET6, SOCK_DGRAM, 0)));
            } else {
                EXPECT_TRUE(event.Open());
            }
            const int fd = event.GetSocket();
            ASSERT_GE(fd, HighDescriptors::kFirst);
            const TraceRecorder recorder;
            const fake::Journal journal;
            EXPECT_FALSE(c.operation(event));
            EXPECT_TRUE(Recorded(event, EINVAL, c.function));
            ExpectRecords(recorder, {{"event fd=%d cannot be waited for", {fd}}});
            EXPECT_EQ(Texts{}, journal.Texts());
            EXPECT_EQ(fd, event.GetSocket());
        }
    }
}

TEST_F(SharedEvent, SocketWithoutReuseIsBoundAllTheSame) {
    Event event("e");
    fake::Always options(fake::setsockopt, fake::Fail(ENOPROTOOPT));
    options.When([](int, int, int option, const void*, socklen_t) { return option == SO_REUSEADDR; });
    EXPECT_TRUE(event.Post());
    EXPECT_EQ(2u, options.Calls());
}

// Names

TEST_F(SharedEvent, WithoutNameEndsTheProcess) {
    const std::function<void(Event&)> operations[] = {
        [](Event& event) { event.Post(); },
        [](Event& event) { event.TimedWait(0, kExact); },
        [](Event& event) { event.TimedWait(0, kPattern); },
        [](Event& event) { event.Wait(kExact); },
        [](Event& event) { event.Wait(kPattern); },
    };
    for (const auto& operation : operations) {
        for (const bool named_once : {false, true}) {
            ExpectAbend(
                [&] {
                    Event event;
                    if (named_once) {
                        event.SetEventName("once");
                        event.SetEventName("");
                    }
                    operation(event);
                },
                {{kNoName, {-1}}});
        }
    }
}

TEST_F(SharedEvent, WithoutNameDoesNothingOnAThreadThatIsAborting) {
    WhileAborting([] {
        Event event;
        const fake::Journal journal;
        for (const auto& operation : std::vector<std::function<bool()>>{
                 [&] { return event.Post(); }, [&] { return event.TimedWait(60000, kExact); },
                 [&] { return event.Wait(kPattern); }}) {
            const TraceRecorder recorder;
            // Of an earlier wait, which must not keep one without name going.
            event.Plant(ETIMEDOUT);
            EXPECT_FALSE(operation());
            ExpectRecords(recorder, {{kNoName, {-1}}, AbendAgain()});
            EXPECT_EQ(Texts{}, journal.Texts());
            EXPECT_EQ(KOVA_SOCKET_CLOSED, event.GetMode());
        }
    });
}

TEST_F(SharedEvent, PostSendsExactlyTheNameAndZeros) {
    Listener listener;
    Event event("job7");
    EXPECT_TRUE(event.Post());
    EXPECT_EQ(std::string("job7\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 32),
              listener.Receive());
    EXPECT_TRUE(listener.HasNothing()) << "one datagram each";
    EXPECT_EQ(htons(kPort), listener.Source().sin6_port);
    EXPECT_TRUE(IN6_IS_ADDR_V4MAPPED(&listener.Source().sin6_addr));
    EXPECT_EQ(127, listener.Source().sin6_addr.s6_addr[12]);
}

TEST_F(SharedEvent, NamesAreCutToThirtyOneCharacters) {
    const std::string text = "0123456789abcdefghijklmnopqrstuvwxyzABCD";
    Listener listener;
    for (const size_t length : {size_t{1}, size_t{30}, size_t{31}, size_t{32}, size_t{40}}) {
        const std::string name = text.substr(0, length);
        const std::string wanted = DatagramOf(name.substr(0, kLongestName));
        Event constructed(name.c_str());
        EXPECT_TRUE(constructed.Post());
        EXPECT_EQ(wanted, listener.Receive());
        Event named;
        named.SetEventName(name.c_str());
        EXPECT_TRUE(named.Post());
        EXPECT_EQ(wanted, listener.Receive());
    }
}

TEST_F(SharedEvent, CutNamesOfOneBeginningAreTheSameEvent) {
    const std::string beginning(31, 'n');
    Event waiter((beginning + "1").c_str());
    Ready(waiter);
    Event poster((beginning + "23456789").c_str());
    EXPECT_TRUE(poster.Post());
    EXPECT_TRUE(waiter.TimedWait(0, kExact));
}

TEST_F(SharedEvent, NewNameReplacesAllOfTheOldOne) {
    Listener listener;
    Event event("a very long name of an event..");
    event.SetEventName("ab");
    EXPECT_TRUE(event.Post());
    EXPECT_EQ(DatagramOf("ab"), listener.Receive());
}

TEST_F(SharedEvent, NullNameIsAnEmptyOne) {
    ExpectAbend([] { Event(nullptr).Post(); }, {{kNoName, {-1}}});
    ExpectAbend(
        [] {
            Event event("e");
            event.SetEventName(nullptr);
            event.Post();
        },
        {{kNoName, {-1}}});
}

TEST_F(SharedEvent, KeepsTheNameNotThePointer) {
    Listener listener;
    char name[] = "kept";
    Event event(name);
    std::memset(name, 'x', sizeof name - 1);
    EXPECT_TRUE(event.Post());
    EXPECT_EQ(DatagramOf("kept"), listener.Receive());
}

// Waiting

TEST_F(SharedEvent, WakesWaitersOfItsNameOnly) {
    Event a("a");
    Event b("b");
    Ready(a);
    Ready(b);
    EXPECT_TRUE(Event("b").Post());
    EXPECT_TRUE(b.TimedWait(60000, kExact));
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, b.GetError());

    EXPECT_FALSE(a.TimedWait(60000, kExact)) << "at once";
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, a.GetError());
    ExpectNothingWaits(a);
}

TEST_F(SharedEvent, NameThatDoesNotMatchEndsAWaitWithoutError) {
    Event event("a");
    Ready(event);
    for (const bool pattern : {kExact, kPattern}) {
        m_Wire.Broadcast(DatagramOf("b"));
        EXPECT_FALSE(event.Wait(pattern));
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, event.GetError());
    }
    ExpectNothingWaits(event);
}

TEST_F(SharedEvent, EveryPostIsOneWait) {
    Event event("n");
    Ready(event);
    Event poster("n");
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(poster.Post());
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(event.Wait(kExact));
    ExpectNothingWaits(event);
}

TEST_F(SharedEvent, AllObjectsOfTheNameAreWoken) {
    std::vector<std::unique_ptr<Event>> events;
    for (int i = 0; i < 20; ++i) {
        events.push_back(std::make_unique<Event>("all"));
        Ready(*events.back());
    }
    EXPECT_TRUE(Event("all").Post());
    for (const auto& event : events) EXPECT_TRUE(event->TimedWait(0, kExact));
}

TEST_F(SharedEvent, IsLostWhenNobodyHasThePortOpen) {
    EXPECT_TRUE(Event("lost").Post());
    Event late("lost");
    ExpectNothingWaits(late);
}

TEST_F(SharedEvent, ExactWaitComparesAllBytes) {
    Event event("name");
    Ready(event);
    std::string noise = DatagramOf("name");
    noise.back() = 'x';
    for (const std::string& data : {noise, DatagramOf("nam"), DatagramOf("names"), DatagramOf("Name"),
                                    DatagramOf(""), std::string(kDatagram, 'n')}) {
        m_Wire.Broadcast(data);
        EXPECT_FALSE(event.TimedWait(60000, kExact)) << data;
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, event.GetError());
    }
    m_Wire.Broadcast(DatagramOf("name"));
    EXPECT_TRUE(event.TimedWait(60000, kExact));
}

TEST_F(SharedEvent, ExactWaitTakesWildcardsAsTheyAre) {
    Event event("job*");
    Ready(event);
    EXPECT_TRUE(Event("job7").Post());
    EXPECT_FALSE(event.TimedWait(60000, kExact));
    EXPECT_TRUE(Event("job*").Post());
    EXPECT_TRUE(event.TimedWait(60000, kExact));
}

TEST_F(SharedEvent, PatternOfTheWaiterMatchesPostedNames) {
    const struct {
        const char* own;
        const char* posted;
        bool fires;
    } cases[] = {
        {"job*", "job7", true},   {"job*", "job", true},      {"job*", "jo", false},
        {"job7", "job7", true},   {"job7", "job8", false},    {"job?", "job7", true},
        {"job?", "job77", false}, {"job[0-5]", "job3", true}, {"job[0-5]", "job7", false},
        {"*", "anything", true},  {"*", "a/b", true},         {"*", ".hidden", true},
        {"a*c", "a/b/c", true},   {"job\\*", "job*", true},   {"job\\*", "job7", false},
        {"JOB*", "job7", false},  {"job7", "job*", false},
    };
    for (const auto& c : cases) {
        Event event(c.own);
        Ready(event);
        m_Wire.Broadcast(DatagramOf(c.posted));
        EXPECT_EQ(c.fires, event.TimedWait(60000, kPattern)) << c.own << " " << c.posted;
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, event.GetError());
    }
}

TEST_F(SharedEvent, PatternLooksAtTheNameBeforeItsFirstZero) {
    Event event("job?");
    Ready(event);
    std::string data = DatagramOf("job7");
    data.replace(10, 5, "noise");
    m_Wire.Broadcast(data);
    EXPECT_TRUE(event.TimedWait(60000, kPattern));
}

TEST_F(SharedEvent, PatternMatchesTheEmptyName) {
    Event star("*");
    Ready(star);
    m_Wire.Broadcast(DatagramOf(""));
    EXPECT_TRUE(star.TimedWait(60000, kPattern));
}

TEST_F(SharedEvent, NameWithoutTerminatorIsBounded) {
    const std::string unterminated(kDatagram, 'u');
    Event star("u*");
    Ready(star);
    m_Wire.Broadcast(unterminated);
    EXPECT_TRUE(star.TimedWait(60000, kPattern));

    Event end("*u");
    Ready(end);
    m_Wire.Broadcast(unterminated);
    EXPECT_TRUE(end.TimedWait(60000, kPattern)) << "nothing stands behind it";

    Event exact(std::string(kLongestName, 'u').c_str());
    Ready(exact);
    m_Wire.Broadcast(unterminated);
    EXPECT_FALSE(exact.TimedWait(60000, kExact)) << "its last byte is zero";
    m_Wire.Broadcast(unterminated);
    EXPECT_FALSE(exact.TimedWait(60000, kPattern)) << "32 characters are no name of 31";
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, exact.GetError());
}

TEST_F(SharedEvent, ShorterDatagramIsASizeMismatchAndConsumed) {
    Event event("*");
    Ready(event);
    for (const size_t size : {size_t{0}, size_t{1}, size_t{4}, size_t{31}}) {
        for (const bool pattern : {kExact, kPattern}) {
            SCOPED_TRACE(size);
            m_Wire.Broadcast(std::string(size, '*'));
            const TraceRecorder recorder;
            EXPECT_FALSE(event.TimedWait(60000, pattern));
            EXPECT_TRUE(Recorded(event, kMismatch, kRecvFrom));
            EXPECT_TRUE(recorder.Has("datagram size received=%u wanted=%u",
                                     {static_cast<int64_t>(size), static_cast<int64_t>(kDatagram)}));
        }
    }
    ExpectNothingWaits(event);
}

TEST_F(SharedEvent, OfALongerDatagramTheFirstBytesAreTheName) {
    Event event("long");
    Ready(event);
    for (const size_t size : {size_t{33}, size_t{64}, size_t{8192}}) {
        std::string data = DatagramOf("long");
        data.resize(size, 'x');
        m_Wire.Broadcast(data);
        EXPECT_TRUE(event.TimedWait(60000, kExact)) << size;
        data[0] = 'x';
        m_Wire.Broadcast(data);
        EXPECT_FALSE(event.TimedWait(60000, kPattern)) << size;
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, event.GetError());
    }
    ExpectNothingWaits(event);
}

TEST_F(SharedEvent, WrongSizeEndsAWait) {
    Event event("e");
    Ready(event);
    m_Wire.Broadcast("x");
    EXPECT_FALSE(event.Wait(kExact));
    EXPECT_TRUE(Recorded(event, kMismatch, kRecvFrom));
}

TEST_F(SharedEvent, TimeOutIsRecordedByTheSocketAndNotBeforeItsTime) {
    Event event("e");
    const TraceRecorder recorder;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(event.TimedWait(100, kExact));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_TRUE(Recorded(event, ETIMEDOUT, kRecvFrom));
    EXPECT_TRUE(recorder.Has("udp receive fd=%d ms=%d", {event.GetSocket(), 100}));
}

TEST_F(SharedEvent, NegativeTimeOutIsOverAtOnce) {
    Event event("e");
    for (const int ms : {-1, -1000, INT_MIN}) {
        EXPECT_FALSE(event.TimedWait(ms, kExact));
        EXPECT_TRUE(Recorded(event, ETIMEDOUT, kRecvFrom));
    }
    m_Wire.Broadcast(DatagramOf("e"));
    EXPECT_TRUE(event.TimedWait(INT_MAX, kExact));
}

TEST_F(SharedEvent, TimedWaitSetsTheTimeoutOfTheSocket) {
    Event event("e");
    Ready(event);
    const fake::Journal journal{&fake::setsockopt, &fake::select};
    EXPECT_FALSE(event.TimedWait(20, kExact));
    const std::string fd = std::to_string(event.GetSocket());
    EXPECT_EQ(
        (Texts{
            "setsockopt SOL_SOCKET SO_SNDTIMEO {0, 20000}", "setsockopt SOL_SOCKET SO_RCVTIMEO {0, 20000}",
            "select " + std::to_string(event.GetSocket() + 1) + " {" + fd + "} {} {" + fd + "} {0, 20000}"}),
        journal.Texts());
}

TEST_F(SharedEvent, SocketErrorsAreKept) {
    Event event("e");
    Ready(event);
    m_Wire.Broadcast(DatagramOf("e"));
    const TraceRecorder recorder;
    const fake::Script receives(fake::recvfrom, {fake::Fail(EIO)});
    EXPECT_FALSE(event.TimedWait(60000, kExact));
    EXPECT_TRUE(Recorded(event, EIO, kRecvFrom));
    EXPECT_TRUE(recorder.Has("recvfrom fd=%d errno=%d", {event.GetSocket(), EIO}));
}

TEST_F(SharedEvent, WaitRepeatsSlicesOfAMinute) {
    Event event("slices");
    Ready(event);
    std::vector<std::pair<long, long>> limits;
    const auto time_out = [&](int, fd_set*, fd_set*, fd_set*, timeval* limit) {
        limits.emplace_back(limit->tv_sec, limit->tv_usec);
        return 0;
    };
    const auto post = [&](int n, fd_set* read, fd_set* write, fd_set* except, timeval* limit) {
        limits.emplace_back(limit->tv_sec, limit->tv_usec);
        m_Wire.Broadcast(DatagramOf("slices"));
        return fake::select.Real(n, read, write, except, limit);
    };
    for (const bool pattern : {kExact, kPattern}) {
        limits.clear();
        const fake::Script selects(fake::select, {time_out, time_out, time_out, post});
        EXPECT_TRUE(event.Wait(pattern));
        EXPECT_EQ((std::vector<std::pair<long, long>>(4, {60, 0})), limits);
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, event.GetError());
    }
}

TEST_F(SharedEvent, WaitEndsWithAnyErrorButATimeOut) {
    Event event("e");
    Ready(event);
    const auto readable = [](int, fd_set*, fd_set*, fd_set*, timeval*) { return 1; };
    const fake::Script selects(fake::select, {fake::Return(0), readable});
    const fake::Script receives(fake::recvfrom, {fake::Fail(ENOMEM)});
    EXPECT_FALSE(event.Wait(kExact));
    EXPECT_TRUE(Recorded(event, ENOMEM, kRecvFrom));
}

TEST_F(SharedEvent, WaitSurvivesSignals) {
    Event event("e");
    Ready(event);
    m_Wire.Broadcast(DatagramOf("e"));
    const fake::Script selects(fake::select, {fake::Fail(EINTR), fake::Fail(EINTR), fake::Real()});
    EXPECT_TRUE(event.Wait(kExact));
}

TEST_F(SharedEvent, WaitWhoseSelectFailsGoesOnAfterAPauseEachTime) {
    constexpr int kAttempts = 5;
    Event event("e");
    Ready(event);
    const TraceRecorder recorder;
    fake::Always selects(fake::select, fake::Fail(EBADF), fake::kThisThread);
    int pauses = 0;
    const fake::Replace pause(
        fake::nanosleep,
        [&](const timespec* time, timespec*) {
            EXPECT_EQ(0, time->tv_sec);
            EXPECT_EQ(10000000, time->tv_nsec);
            if (++pauses == kAttempts) event.Close();
            return 0;
        },
        fake::kThisThread);
    EXPECT_FALSE(event.Wait(kExact));
    EXPECT_TRUE(Recorded(event, ETIMEDOUT, kRecvFrom));
    EXPECT_EQ(kAttempts, pauses);
    EXPECT_EQ(size_t{kAttempts}, selects.Calls());
    EXPECT_EQ(size_t{kAttempts}, recorder.Count("udp wait fd=%d code=%d stop=%d"));
}

TEST_F(SharedEvent, WaitIgnoresAnErrorFromBefore) {
    Event event("e");
    Ready(event);
    event.Plant(EIO);
    const auto post = [&](int n, fd_set* read, fd_set* write, fd_set* except, timeval* limit) {
        m_Wire.Broadcast(DatagramOf("e"));
        return fake::select.Real(n, read, write, except, limit);
    };
    const fake::Script selects(fake::select, {fake::Return(0), post});
    EXPECT_TRUE(event.Wait(kExact));
}

// Posting

TEST_F(SharedEvent, PostTracesTheAddress) {
    Event event("e");
    Ready(event);
    const TraceRecorder recorder;
    EXPECT_TRUE(event.Post());
    EXPECT_TRUE(recorder.Has(kPosting, {static_cast<int64_t>(htonl(0x7FFFFFFF)), kPort}));
}

TEST_F(SharedEvent, PosterDoesNotSeeItsOwnEvent) {
    Event event("own");
    EXPECT_TRUE(event.Post());
    EXPECT_EQ(0, event.EventCount());
    ExpectNothingWaits(event);
    EXPECT_TRUE(event.Post());
    ExpectNothingWaits(event);
}

TEST_F(SharedEvent, PosterLosesEarlierEvents) {
    Event event("e");
    Ready(event);
    for (int i = 0; i < 5; ++i) m_Wire.Broadcast(DatagramOf("e"));
    EXPECT_TRUE(event.Post());
    ExpectNothingWaits(event);
    m_Wire.Broadcast(DatagramOf("e"));
    EXPECT_TRUE(event.TimedWait(0, kExact)) << "later ones arrive";
}

TEST_F(SharedEvent, SuccessfulPostLeavesNoError) {
    Event event("e");
    event.Plant(EIO);
    EXPECT_TRUE(event.Post());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, event.GetError());
    event.TimedWait(0, kExact);
    EXPECT_TRUE(event.Post());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, event.GetError());
}

TEST_F(SharedEvent, SuccessfulPostLeavesNoErrorWhateverItsFlushMeets) {
    Event event("e");
    Ready(event);
    {
        fake::Script asks(fake::ioctl, {fake::Fail(EIO)});
        asks.When(AsksForBytes);
        EXPECT_TRUE(event.Post());
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, event.GetError()) << "could not ask what waits";
    }
    {
        const fake::Script receives(fake::recvfrom, {fake::Fail(EIO), fake::Real()});
        EXPECT_TRUE(event.Post());
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, event.GetError()) << "could not drop";
    }
    {
        const fake::Always ioctls(fake::ioctl, fake::Fail(ENXIO));
        EXPECT_TRUE(event.Post()) << "what counts is the send";
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, event.GetError());
    }
}

TEST_F(SharedEvent, ErrorOfAFailedPostSurvivesItsFlush) {
    Event event("e");
    Ready(event);
    m_Wire.Broadcast(DatagramOf("e"));
    const TraceRecorder recorder;
    const fake::Script sends(fake::sendto, {fake::Fail(ENETUNREACH)});
    EXPECT_FALSE(event.Post());
    EXPECT_TRUE(Recorded(event, ENETUNREACH, kWrapperSendTo));
    EXPECT_TRUE(recorder.Has("sendto fd=%d size=%u errno=%d", {event.GetSocket(), 32, ENETUNREACH}));
    ExpectNothingWaits(event);
}

TEST_F(SharedEvent, FailedPostFlushesAllTheSame) {
    Event event("e");
    Ready(event);
    for (int i = 0; i < 3; ++i) m_Wire.Broadcast(DatagramOf("e"));
    const fake::Script sends(fake::sendto, {fake::Fail(EACCES)});
    const fake::Journal journal{&fake::sendto, &fake::recvfrom};
    EXPECT_FALSE(event.Post());
    EXPECT_EQ((Texts{"sendto", "recvfrom", "recvfrom", "recvfrom"}), FunctionsOf(journal));
    EXPECT_EQ(EACCES, event.GetError());
}

TEST_F(SharedEvent, PostThatIsSentInPartHasFailed) {
    Event event("e");
    Ready(event);
    const fake::Script sends(fake::sendto, {fake::Return(31)});
    EXPECT_FALSE(event.Post());
}

TEST_F(SharedEvent, PostGoesToTheEventAddressWhoeverWroteLast) {
    Listener listener;
    Event event("e");
    Ready(event);
    listener.Broadcast(DatagramOf("e"));
    EXPECT_TRUE(event.TimedWait(60000, kExact));
    const fake::Journal journal{&fake::sendto};
    EXPECT_TRUE(event.Post());
    EXPECT_EQ(Texts{"sendto 32 MSG_NOSIGNAL [::ffff:127.255.255.255]:20003"}, journal.Texts());
}

// Counting and flushing

TEST_F(SharedEvent, CountIsTheWaitingBytesBy32) {
    Event event("e");
    Ready(event);
    const struct {
        int bytes;
        int count;
    } cases[] = {
        {0, 0}, {1, 0}, {31, 0}, {32, 1}, {33, 1}, {63, 1}, {64, 2}, {3200, 100}, {0x7FFFFFFF, 0x3FFFFFF}};
    for (const auto& c : cases) {
        const fake::Script ioctls(fake::ioctl, {[&](int fd, unsigned long request, void* answer) {
                                      EXPECT_EQ(event.GetSocket(), fd);
                                      EXPECT_EQ(FIONREAD, request);
                                      std::memcpy(answer, &c.bytes, sizeof c.bytes);
                                      return 0;
                                  }});
        EXPECT_EQ(c.count, event.EventCount()) << c.bytes;
    }
}

TEST_F(SharedEvent, RequestForTheCountIsThatOfTheTarget) {
#ifdef __powerpc__
    static_assert(FIONREAD == 0x4004667F);
#endif
    Event event("e");
    Ready(event);
    const fake::Journal journal{&fake::ioctl};
    event.EventCount();
    ASSERT_EQ(1u, journal.Entries().size());
}

TEST_F(SharedEvent, CountTellsOfTheFirstDatagram) {
    Event event("e");
    Ready(event);
    EXPECT_EQ(0, event.EventCount());
    m_Wire.Broadcast(DatagramOf("e"));
    m_Wire.Broadcast(DatagramOf("e"));
    EXPECT_EQ(1, event.EventCount());
    EXPECT_TRUE(event.TimedWait(0, kExact));
    EXPECT_EQ(1, event.EventCount());
    EXPECT_TRUE(event.TimedWait(0, kExact));
    EXPECT_EQ(0, event.EventCount());
}

TEST_F(SharedEvent, CountThatCannotBeAskedIsZeroAndRecorded) {
    Event event("e");
    Ready(event);
    m_Wire.Broadcast(DatagramOf("e"));
    const TraceRecorder recorder;
    const fake::Script ioctls(fake::ioctl, {fake::Fail(EIO)});
    EXPECT_EQ(0, event.EventCount());
    EXPECT_TRUE(Recorded(event, EIO, kIoctl));
    EXPECT_TRUE(recorder.Has("ioctl request=%x errno=%d", {static_cast<int64_t>(FIONREAD), EIO}));
}

TEST_F(SharedEvent, CountAndFlushOfAClosedEventDoNotKeepItFromBinding) {
    for (const bool flush : {false, true}) {
        SCOPED_TRACE(flush);
        Event event("e");
        if (flush) {
            event.Flush();
        } else {
            EXPECT_EQ(0, event.EventCount());
        }
        Ready(event);
        m_Wire.Broadcast(DatagramOf("e"));
        EXPECT_TRUE(event.TimedWait(0, kExact));
    }
}

TEST_F(SharedEvent, FlushDropsWhatWaits) {
    Event event("e");
    Ready(event);
    for (int i = 0; i < 50; ++i) m_Wire.Broadcast(DatagramOf(i % 2 == 0 ? "e" : "other"));
    EXPECT_TRUE(event.Flush());
    EXPECT_EQ(0, event.EventCount());
    ExpectNothingWaits(event);
    EXPECT_TRUE(event.Flush()) << "nothing there is fine, too";
}

TEST_F(SharedEvent, FlushDoesNotBlockAndLeavesTheSocketBlocking) {
    Event event("e");
    Ready(event);
    m_Wire.Broadcast(DatagramOf("e"));
    const fake::Journal journal{&fake::ioctl, &fake::recvfrom};
    EXPECT_TRUE(event.Flush());
    const Texts texts = journal.Texts();
    ASSERT_EQ(5u, texts.size()) << testing::PrintToString(texts);
    EXPECT_EQ("ioctl FIONBIO 1", texts[0]);
    EXPECT_EQ("recvfrom 32 0", texts[2]);
    EXPECT_EQ("ioctl FIONBIO 0", texts[4]);
    EXPECT_EQ(0, ::fcntl(event.GetSocket(), F_GETFL) & O_NONBLOCK);
}

TEST_F(SharedEvent, FlushDropsLongerDatagrams) {
    Event event("e");
    Ready(event);
    for (const size_t size : {size_t{33}, size_t{64}, size_t{4096}}) m_Wire.Broadcast(std::string(size, 'x'));
    EXPECT_TRUE(event.Flush());
    ExpectNothingWaits(event);
}

TEST_F(SharedEvent, FlushStopsAtADatagramThatCountsAsNone) {
    Event event("e");
    for (const size_t size : {size_t{0}, size_t{1}, size_t{31}}) {
        SCOPED_TRACE(size);
        Ready(event);
        m_Wire.Broadcast(DatagramOf("e"));
        m_Wire.Broadcast(std::string(size, 'x'));
        m_Wire.Broadcast(DatagramOf("e"));
        EXPECT_TRUE(event.Flush());
        EXPECT_FALSE(event.TimedWait(60000, kExact));
        EXPECT_TRUE(Recorded(event, kMismatch, kRecvFrom));
        EXPECT_TRUE(event.TimedWait(60000, kExact));
    }
}

TEST_F(SharedEvent, FlushEndsWhenWhatWaitsCannotBeTaken) {
    Event event("e");
    Ready(event);
    // More often than once only where it does not end.
    const auto something_waits = [](int, unsigned long, void* answer) {
        std::memcpy(answer, &kDatagram, sizeof(int));
        return 0;
    };
    const auto nothing = [](int, unsigned long, void* answer) {
        std::memset(answer, 0, sizeof(int));
        return 0;
    };
    int asked = 0;
    fake::Replace asks(fake::ioctl, [&](int fd, unsigned long request, void* answer) {
        return ++asked > 3 ? nothing(fd, request, answer) : something_waits(fd, request, answer);
    });
    asks.When(AsksForBytes);
    const fake::Counter receives(fake::recvfrom);
    EXPECT_TRUE(event.Flush());
    EXPECT_EQ(1, asked);
    EXPECT_EQ(0u, receives.Calls());
    EXPECT_TRUE(event.Post());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, event.GetError());
}

TEST_F(SharedEvent, FlushTellsWhetherTheSocketBlocksAgain) {
    Event event("e");
    Ready(event);
    fake::Script ioctls(fake::ioctl, {fake::Real(), fake::Fail(EIO)});
    ioctls.When([](int, unsigned long request, void*) { return request == FIONBIO; });
    EXPECT_FALSE(event.Flush());
    EXPECT_TRUE(Recorded(event, EIO, kIoctl));
}

// Closing

TEST_F(SharedEvent, CloseSendsOneByteAndReleasesTheSocket) {
    Listener listener;
    Event event("e");
    Ready(event);
    const int fd = event.GetSocket();
    const fake::Journal journal;
    event.Close();
    EXPECT_EQ((Texts{"sendto 1 MSG_NOSIGNAL [::ffff:127.255.255.255]:20003",
                     "setsockopt SOL_SOCKET SO_LINGER {1, 1}", "shutdown SHUT_RDWR", "close"}),
              journal.Texts());
    EXPECT_EQ(1u, listener.Receive().size());
    EXPECT_TRUE(listener.HasNothing());
    EXPECT_FALSE(IsOpenFd(fd));
    EXPECT_EQ(-1, event.GetSocket());
    EXPECT_EQ(KOVA_SOCKET_CLOSED, event.GetMode());
}

TEST_F(SharedEvent, CloseIsVirtual) {
    Listener listener;
    Event event("e");
    Ready(event);
    KovaUDPSocket& socket = event;
    socket.Close();
    EXPECT_EQ(1u, listener.Receive().size());
}

TEST_F(SharedEvent, CloseEndsTheWaitsOfOtherObjectsToo) {
    Event other("other");
    Ready(other);
    Event event("e");
    Ready(event);
    event.Close();
    EXPECT_FALSE(other.Wait(kPattern));
    EXPECT_TRUE(Recorded(other, kMismatch, kRecvFrom));
}

TEST_F(SharedEvent, CloseOfAnEventThatWasNeverOpenSendsAllTheSame) {
    Listener listener;
    Event event("e");
    event.Close();
    EXPECT_EQ(1u, listener.Receive().size());
    EXPECT_EQ(-1, event.GetSocket());
    EXPECT_EQ(KOVA_SOCKET_CLOSED, event.GetMode());
}

TEST_F(SharedEvent, CloseThatCannotSendClosesAllTheSame) {
    Event event("e");
    Ready(event);
    const int fd = event.GetSocket();
    const fake::Script sends(fake::sendto, {fake::Fail(ENETDOWN)});
    event.Close();
    EXPECT_FALSE(IsOpenFd(fd));
    EXPECT_EQ(KOVA_SOCKET_CLOSED, event.GetMode());
}

TEST_F(SharedEvent, CloseKeepsAnErrorRecordedBefore) {
    Event event("e");
    Ready(event);
    event.Plant(EIO);
    event.Close();
    EXPECT_TRUE(Recorded(event, EIO, "planted"));
}

TEST_F(SharedEvent, SecondCloseLeavesNoDescriptor) {
    Event event("e");
    Ready(event);
    event.Close();
    event.Close();
    EXPECT_EQ(-1, event.GetSocket());
    EXPECT_EQ(KOVA_SOCKET_CLOSED, event.GetMode());
}

TEST_F(SharedEvent, WaitAfterCloseEndsAtOnce) {
    Event event("e");
    Ready(event);
    event.Close();
    for (const bool pattern : {kExact, kPattern}) {
        fake::Always selects(fake::select, [&](int, fd_set*, fd_set*, fd_set*, timeval*) {
            ADD_FAILURE() << "waits";
            return 0;
        });
        EXPECT_FALSE(event.Wait(pattern));
    }
}

TEST_F(SharedEvent, ClosedEventPostsAndWaitsForATimeAgain) {
    Event event("e");
    Ready(event);
    event.Close();
    Listener listener;
    EXPECT_TRUE(event.Post());
    EXPECT_EQ(DatagramOf("e"), listener.Receive());
    m_Wire.Broadcast(DatagramOf("e"));
    EXPECT_TRUE(event.TimedWait(60000, kExact));
    m_Wire.Broadcast(DatagramOf("x"));
    EXPECT_FALSE(event.Wait(kExact)) << "but not without end";
}

TEST_F(SharedEvent, ReopenedEventSurvivesSignals) {
    Event event("e");
    Ready(event);
    event.Close();
    Ready(event);
    m_Wire.Broadcast(DatagramOf("e"));
    const fake::Script selects(fake::select, {fake::Fail(EINTR), fake::Real()});
    EXPECT_TRUE(event.TimedWait(60000, kExact));
}

TEST_F(SharedEvent, CloseBetweenOpeningAndReceivingEndsAWait) {
    Event event("e");
    Ready(event);
    fake::Script options(fake::setsockopt, {[&](int, int, int, const void*, socklen_t) {
                             event.Close();
                             return 0;
                         }});
    options.When([](int, int, int option, const void*, socklen_t) { return option == SO_RCVTIMEO; });
    const fake::Counter selects(fake::select);
    EXPECT_FALSE(event.Wait(kExact));
    EXPECT_EQ(0u, selects.Calls());
}

TEST_F(SharedEvent, SignalAfterACloseEndsAWait) {
    Event event("e");
    Ready(event);
    const fake::Script selects(fake::select, {[&](int, fd_set*, fd_set*, fd_set*, timeval*) {
                                   event.Close();
                                   errno = EINTR;
                                   return -1;
                               }});
    EXPECT_FALSE(event.Wait(kExact));
}

TEST_F(SharedEvent, DestructorClosesAndSendsNothing) {
    Listener listener;
    int fd = -1;
    {
        Event event("e");
        Ready(event);
        fd = event.GetSocket();
        const std::unique_ptr<KovaSocketWrapper> other = std::make_unique<Event>("f");
        Ready(dynamic_cast<KovaSharedEvent&>(*other));
    }
    EXPECT_FALSE(IsOpenFd(fd));
    EXPECT_TRUE(listener.HasNothing());
}

TEST_F(SharedEvent, DestructorOfAClosedEventCallsNothing) {
    auto event = std::make_unique<Event>("e");
    const fake::Journal journal;
    event.reset();
    EXPECT_EQ(Texts{}, journal.Texts());
}

// Serving

/// Serves events on a thread of its own; the hook is called with each.
class ServedEvent : public Event {
  public:
    explicit ServedEvent(std::function<void(ServedEvent&)> hook) : Event("served"), m_Hook(std::move(hook)) {}

    void CallBack(KovaUDPSocket*) override {
        char name[kDatagram];
        EXPECT_TRUE(RecvFrom(name, sizeof name));
        EXPECT_EQ(DatagramOf("served"), std::string(name, sizeof name));
        ++m_Served;
        m_Hook(*this);
    }
    int Served() const { return m_Served; }

  private:
    const std::function<void(ServedEvent&)> m_Hook;
    std::atomic<int> m_Served{0};
};

TEST_F(SharedEvent, ServerOnAnOpenEventServesUntilShutdown) {
    ServedEvent event([](ServedEvent&) {});
    Ready(event);
    std::atomic<bool> result{false};
    DeadlineThread thread([&] { result = event.Server(); });
    ASSERT_TRUE(WaitUntil([&] { return event.GetMode() == KOVA_SOCKET_SERVING || thread.HasEnded(); }));
    for (int i = 1; i <= 3; ++i) {
        m_Wire.Broadcast(DatagramOf("served"));
        ASSERT_TRUE(WaitUntil([&] { return event.Served() == i || thread.HasEnded(); }));
    }
    EXPECT_FALSE(thread.HasEnded());
    event.Shutdown();
    thread.Join();
    EXPECT_TRUE(result);
    EXPECT_EQ(3, event.Served());
    EXPECT_EQ(-1, event.GetSocket());
}

TEST_F(SharedEvent, PostInAHookDoesNotKeepAStoppedServerGoing) {
    ServedEvent event([](ServedEvent& self) {
        self.Shutdown();
        EXPECT_TRUE(self.Post());
    });
    std::atomic<bool> result{false};
    DeadlineThread thread([&] { result = event.Server(); });
    ASSERT_TRUE(WaitUntil([&] { return event.GetMode() == KOVA_SOCKET_SERVING || thread.HasEnded(); }));
    m_Wire.Broadcast(DatagramOf("served"));
    thread.Join();
    EXPECT_TRUE(result);
    EXPECT_EQ(1, event.Served());
    EXPECT_EQ(-1, event.GetSocket()) << "also what the post has opened";
}

TEST_F(SharedEvent, CloseInAHookDoesNotEndTheServer) {
    ServedEvent event([](ServedEvent& self) {
        self.Close();
        if (self.Served() < 3) {
            EXPECT_TRUE(self.Open());
            EXPECT_TRUE(self.Bind());
        } else {
            self.SetMode(KOVA_SOCKET_SERVING);
            self.Shutdown();
        }
    });
    DeadlineThread thread([&] { EXPECT_TRUE(event.Server()); });
    // What meets the closed socket is lost.
    EXPECT_TRUE(WaitUntil([&] {
        m_Wire.Broadcast(DatagramOf("served"));
        return thread.HasEnded();
    }));
    EXPECT_EQ(3, event.Served());
}

// Closing by another thread

/// Runs a wait without limit; the threads that are about to select are counted.
class Waiting {
  public:
    explicit Waiting(KovaSharedEvent& event, bool pattern = kExact)
        : m_Thread([this, &event, pattern] { m_Result = event.Wait(pattern); }) {}

    bool Result() {
        m_Thread.Join();
        return m_Result;
    }

  private:
    std::atomic<bool> m_Result{true};
    DeadlineThread m_Thread;
};

/// Counts the selects that have begun.
class Selects {
  public:
    bool Reach(int count) const {
        return WaitUntil([&] { return m_Begun >= count; });
    }

  private:
    std::atomic<int> m_Begun{0};
    fake::Replace<int(int, fd_set*, fd_set*, fd_set*, timeval*)> m_Select{
        fake::select, [this](int n, fd_set* read, fd_set* write, fd_set* except, timeval* limit) {
            ++m_Begun;
            return fake::select.Real(n, read, write, except, limit);
        }};
};

TEST_F(SharedEvent, CloseByAnotherThreadEndsAWait) {
    Event event("e");
    const Selects selects;
    Waiting waiting(event);
    ASSERT_TRUE(selects.Reach(1));
    const int64_t begin = NowMs();
    event.Close();
    EXPECT_FALSE(waiting.Result());
    EXPECT_LT(NowMs() - begin, 30000) << "long before the minute is over";
    EXPECT_EQ(-1, event.GetSocket());
}

TEST_F(SharedEvent, CloseBeforeTheSocketIsThereEndsAWait) {
    Event event("e");
    const fake::Script sockets(fake::socket, {[&](int domain, int type, int protocol) {
                                   event.Close();
                                   return fake::socket.Real(domain, type, protocol);
                               }});
    const fake::Always selects(fake::select, [](int, fd_set*, fd_set*, fd_set*, timeval*) {
        ADD_FAILURE() << "waits";
        return 0;
    });
    EXPECT_FALSE(event.Wait(kExact));
}

TEST_F(SharedEvent, CloseThatMeetsAnOpeningLeavesNoDescriptor) {
    Event event("e");
    const fake::Script sockets(fake::socket, {[&](int domain, int type, int protocol) {
                                   Ready(event);
                                   return fake::socket.Real(domain, type, protocol);
                               }});
    event.Close();
    EXPECT_EQ(-1, event.GetSocket());
}

TEST_F(SharedEvent, CloseAtAnyMomentEndsAWait) {
    constexpr int kRounds = 300;
    for (int round = 0; round < kRounds; ++round) {
        Event event("e");
        std::atomic<bool> started{false};
        std::atomic<bool> result{true};
        DeadlineThread thread([&] {
            started = true;
            result = event.Wait(round % 2 == 0);
        });
        while (!started) std::this_thread::yield();
        for (int i = 0; i < round % 30; ++i) std::this_thread::yield();
        event.Close();
        thread.Join();
        EXPECT_FALSE(result);
    }
}

TEST_F(SharedEvent, PostAndCloseFromOtherThreadsReachAllWaiters) {
    constexpr int kWaiters = 8;
    std::vector<std::unique_ptr<Event>> events;
    for (int i = 0; i < kWaiters; ++i) {
        events.push_back(std::make_unique<Event>("all"));
        Ready(*events.back());
    }
    std::vector<std::unique_ptr<Waiting>> waiting;
    for (const auto& event : events) waiting.push_back(std::make_unique<Waiting>(*event));
    Event poster("all");
    EXPECT_TRUE(poster.Post());
    for (const auto& one : waiting) EXPECT_TRUE(one->Result());
}

}  // namespace

// On the target the layout of objects is the binary interface: the place of every field and the slot of every
// virtual operation. The numbers are those of the 32-bit target. Hosts with 64-bit pointers check the order.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string>
#include <type_traits>
#include <vector>

// Everything that the headers below include is above; from here on their fields can be named.
#define private public
#define protected public
#include <kova/base_object.h>
#include <kova/clock.h>
#include <kova/file_list.h>
#include <kova/file_location.h>
#include <kova/file_notify.h>
#include <kova/filename.h>
#include <kova/flat_msg.h>
#include <kova/icmp_socket.h>
#include <kova/id.h>
#include <kova/inet_addr.h>
#include <kova/local_mutex.h>
#include <kova/local_rwlock.h>
#include <kova/local_semaphore.h>
#include <kova/mac_addr.h>
#include <kova/message_queue.h>
#include <kova/msg_pattern.h>
#include <kova/net32.h>
#include <kova/net_interfaces.h>
#include <kova/process.h>
#include <kova/raw_socket.h>
#include <kova/request.h>
#include <kova/shared_event.h>
#include <kova/shared_mutex.h>
#include <kova/shared_rwlock.h>
#include <kova/shared_semaphore.h>
#include <kova/socket_wrapper.h>
#include <kova/tcp_socket.h>
#include <kova/thread.h>
#include <kova/time_value.h>
#include <kova/udp_socket.h>
#undef private
#undef protected

namespace {

constexpr bool kIsTargetsSize = sizeof(void*) == 4;

template <typename Object, typename Field>
size_t OffsetOf(const Object& object, const Field& field) {
    return static_cast<size_t>(reinterpret_cast<const char*>(&field) -
                               reinterpret_cast<const char*>(&object));
}

struct Place {
    const char* field;
    size_t offset;  ///< in this build
    size_t size;
    size_t wanted;  ///< on the target
};

/// Fields follow each other without overlap, and lie where the target has them.
void ExpectPlaces(const std::vector<Place>& places) {
    size_t end = 0;
    for (const Place& place : places) {
        EXPECT_GE(place.offset, end) << place.field << " lies before the field that precedes it";
        end = place.offset + place.size;
        EXPECT_EQ(kIsTargetsSize ? place.wanted : place.offset, place.offset) << place.field;
    }
}

void ExpectSize(size_t wanted, size_t size) { EXPECT_EQ(kIsTargetsSize ? wanted : size, size); }

#define PLACE(object, field, wanted) \
    Place { #field, OffsetOf(object, (object).field), sizeof((object).field), wanted }

/// The slot of a virtual operation. A pointer to one is, in the C++ ABI of all our machines, 1 + the offset
/// in the virtual table.
template <typename Function>
size_t SlotOf(Function function) {
    uintptr_t words[2];
    static_assert(sizeof function == sizeof words);
    std::memcpy(words, &function, sizeof words);
    EXPECT_EQ(1u, words[0] & 1) << "not virtual";
    return (words[0] - 1) / sizeof(void*);
}

/// Every class begins with the destructor's two entries.
constexpr size_t kFirstSlot = 2;

// --- Records and values ---

TEST(Layout, Records) {
    const KovaTimeSpec time{};
    ExpectPlaces({PLACE(time, seconds, 0), PLACE(time, milliseconds, 4)});
    static_assert(sizeof time == 8);
    const KovaPTid id{};
    ExpectPlaces({PLACE(id, pid, 0), PLACE(id, tid, 4)});
    static_assert(sizeof id == 8);
    static_assert(sizeof(FdSetT) == 128);
    static_assert(sizeof(KovaSocketT) == 4 && std::is_signed_v<KovaSocketT>);
    static_assert(std::is_same_v<uint32_t, std::underlying_type_t<KovaSocketModeT>>);
    static_assert(sizeof(KovaSocketTypeT) == 4 && sizeof(KovaWaitModeT) == 4);
}

TEST(Layout, MessageHeaderIsTheWireFormat) {
    const sKovaMsgHeader header{};
    ExpectPlaces({PLACE(header, size, 0), PLACE(header, magic, 4), PLACE(header, version, 8),
                  PLACE(header, type, 12), PLACE(header, sendTid, 16), PLACE(header, sendTime, 20)});
    static_assert(sizeof header == 24);
    static_assert(std::is_same_v<sKovaMsgHeader, sKovaMsgHeaderT>);
}

TEST(Layout, Enumerations) {
    static_assert(KOVA_SOCKET_CLOSED == 0 && KOVA_SOCKET_OPENED == 1 && KOVA_SOCKET_CONNECTED == 3 &&
                  KOVA_SOCKET_SERVING == 4 && KOVA_SOCKET_ICMP == 5 && KOVA_SOCKET_RAW == 6);
    static_assert(KOVA_SOCKET_PLAIN == 0 && KOVA_SOCKET_HANDSHAKE == 1);
    static_assert(KOVA_WAIT_READ == 1 && KOVA_WAIT_WRITE == 2);
}

TEST(Layout, WrapCounter) {
    const KovaTimeWrapCounterSingleton counter;
    ExpectPlaces(
        {PLACE(counter, m_Counter, 0), PLACE(counter, m_Wraps, 8), PLACE(counter, m_TicksPerSecond, 16)});
    static_assert(sizeof counter == 24);
}

TEST(Layout, InetAddr) {
    const KovaInetAddr address(0, 0);
    ExpectPlaces({PLACE(address, m_Ip, 4), PLACE(address, m_Port, 20), PLACE(address, m_Text, 22),
                  PLACE(address, m_PortText, 68), PLACE(address, m_Scope, 76)});
    static_assert(sizeof address.m_Text == 46 && sizeof address.m_PortText == 8);
    ExpectSize(80, sizeof address);
}

// --- Classes with an error record ---

TEST(Layout, BaseObject) {
    const KovaBaseObject object;
    ExpectPlaces(
        {PLACE(object, m_ErrorCode, 4), PLACE(object, m_ErrorLine, 8), PLACE(object, m_ErrorFunction, 12)});
    ExpectSize(16, sizeof object);
}

TEST(Layout, SocketWrapper) {
    const KovaSocketWrapper wrapper;
    ExpectPlaces({PLACE(wrapper, m_Socket, 4), PLACE(wrapper, m_Mode, 8), PLACE(wrapper, m_Timeout, 12),
                  PLACE(wrapper, m_Received, 16), PLACE(wrapper, m_Stop, 20), PLACE(wrapper, m_Routing, 21),
                  PLACE(wrapper, m_Broadcast, 22), PLACE(wrapper, m_Blocking, 23),
                  PLACE(wrapper, m_Device, 24), PLACE(wrapper, KovaBaseObject::m_ErrorCode, 44)});
    static_assert(sizeof wrapper.m_Device == 16);
    ExpectSize(56, sizeof wrapper);
}

TEST(Layout, TcpSocket) {
    const KovaTCPSocket socket;
    ExpectPlaces({PLACE(socket, m_Device, 24), PLACE(socket, m_Type, 40), PLACE(socket, m_Local, 44),
                  PLACE(socket, m_Peer, 124), PLACE(socket, m_Table, 204), PLACE(socket, m_TableCount, 284),
                  PLACE(socket, m_AliveTimeout, 288), PLACE(socket, KovaBaseObject::m_ErrorCode, 296)});
    static_assert(sizeof socket.m_Table == 80);
    ExpectSize(308, sizeof socket);
}

TEST(Layout, UdpSocket) {
    const KovaUDPSocket socket;
    ExpectPlaces({PLACE(socket, m_Device, 24), PLACE(socket, m_Local, 40), PLACE(socket, m_Peer, 120),
                  PLACE(socket, m_Bound, 200), PLACE(socket, KovaBaseObject::m_ErrorCode, 208)});
    ExpectSize(220, sizeof socket);
}

TEST(Layout, IcmpSocket) {
    const KovaIcmpSocket socket;
    ExpectPlaces({PLACE(socket, m_Device, 24), PLACE(socket, m_Received, 40), PLACE(socket, m_RoundTrip, 44),
                  PLACE(socket, m_LastPeer, 52), PLACE(socket, m_LastLocal, 132),
                  PLACE(socket, KovaBaseObject::m_ErrorCode, 216)});
    ExpectSize(228, sizeof socket);
}

TEST(Layout, RawSocket) {
    const KovaRawSocket socket;
    ExpectPlaces({PLACE(socket, m_Device, 24), PLACE(socket, m_Received, 40), PLACE(socket, m_LastPeer, 44),
                  PLACE(socket, m_LastLocal, 124), PLACE(socket, m_LastPeerMac, 204),
                  PLACE(socket, m_LastLocalMac, 229), PLACE(socket, m_LastVlanId, 254),
                  PLACE(socket, m_LastVlanPriority, 256), PLACE(socket, m_LastWasVlan, 258),
                  PLACE(socket, m_LastProtocol, 259), PLACE(socket, m_FrameOffset, 260),
                  PLACE(socket, m_EthernetOffset, 264), PLACE(socket, m_IpOffset, 268),
                  PLACE(socket, m_ProtocolOffset, 272), PLACE(socket, m_DataOffset, 276),
                  PLACE(socket, m_DataLength, 280), PLACE(socket, m_RoundTrip, 284),
                  PLACE(socket, m_Sender, 292), PLACE(socket, KovaBaseObject::m_ErrorCode, 524)});
    ExpectSize(536, sizeof socket);
}

TEST(Layout, FlatMessage) {
    const KovaFlatMsg message;
    ExpectPlaces({PLACE(message, m_ErrorCode, 4), PLACE(message, m_Complete, 16), PLACE(message, m_Addr, 20),
                  PLACE(message, m_Buffer, 100), PLACE(message, m_Header, 104), PLACE(message, m_Body, 108),
                  PLACE(message, m_Inline, 112), PLACE(message, m_Capacity, 648)});
    static_assert(sizeof message.m_Inline == 536);
    ExpectSize(652, sizeof message);
}

// --- Values ---

TEST(Layout, Numbers) {
    const KovaNet32 number;
    ExpectPlaces({PLACE(number, m_Word, 0)});
    static_assert(sizeof number == 4);
    const KovaId id;
    ExpectPlaces({PLACE(id, m_Id, 0)});
    static_assert(sizeof(KovaId) == 4 && sizeof(KovaCageId) == 4 && sizeof(KovaNodeId) == 4 &&
                  sizeof(KovaCCId) == 4 && sizeof(KovaIfId) == 4 && sizeof(KovaNetId) == 4 &&
                  sizeof(KovaSegId) == 4 && sizeof(KovaPortId) == 4 && sizeof(KovaJackId) == 4 &&
                  sizeof(KovaPowerPortId) == 4 && sizeof(KovaPihId) == 4 && sizeof(KovaRoleId) == 4);
}

TEST(Layout, MacAddress) {
    const KovaMacAddr address;
    ExpectPlaces({PLACE(address, m_Bytes, 0), PLACE(address, m_Valid, 6), PLACE(address, m_Text, 7)});
    static_assert(sizeof address.m_Bytes == 6 && sizeof address.m_Valid == 1 && sizeof address.m_Text == 18);
    static_assert(sizeof address == 25 && alignof(KovaMacAddr) == 1);
}

TEST(Layout, TimeValues) {
    const KovaRealTime real(0);
    ExpectPlaces({PLACE(real, m_Value, 4), PLACE(real, m_Text, 8)});
    static_assert(sizeof real.m_Text == 64);
    ExpectSize(72, sizeof real);
    const KovaRelativeTime relative(0, true);
    ExpectPlaces({PLACE(relative, m_Value, 4), PLACE(relative, m_Text, 8), PLACE(relative, m_RealTime, 72)});
    ExpectSize(76, sizeof relative);
}

// --- Locks and threads ---

/// Conditions are aligned to 8 bytes on the target, to 4 on 32-bit x86.
constexpr bool kIsTargetsAlignment = alignof(pthread_cond_t) == 8;

constexpr size_t OnTarget(size_t target, size_t x86) { return kIsTargetsAlignment ? target : x86; }

TEST(Layout, LocalMutex) {
    const KovaLocalMutex mutex;
    ExpectPlaces({PLACE(mutex, m_Mutex, 4), PLACE(mutex, m_Trace, 28), PLACE(mutex, m_ErrorCode, 36)});
    static_assert(std::is_same_v<KovaMutexT, pthread_mutex_t>);
    ExpectSize(48, sizeof mutex);
}

TEST(Layout, LocalSemaphore) {
    const sKovaLocalSemaphore record{};
    ExpectPlaces({PLACE(record, mutex, 0), PLACE(record, condition, 24), PLACE(record, count, 72)});
    ExpectSize(OnTarget(80, 76), sizeof record);
    const KovaLocalSemaphore semaphore;
    ExpectPlaces({PLACE(semaphore, m_Semaphore, OnTarget(8, 4)), PLACE(semaphore, m_Trace, OnTarget(88, 80)),
                  PLACE(semaphore, m_ErrorCode, OnTarget(96, 88))});
    ExpectSize(OnTarget(112, 100), sizeof semaphore);
}

TEST(Layout, LocalReadWriteLock) {
    const KovaLocalReadWriteLock lock;
    ExpectPlaces({PLACE(lock, m_Readers, OnTarget(8, 4)), PLACE(lock, m_Drained, OnTarget(120, 104)),
                  PLACE(lock, m_Writer, OnTarget(232, 204)), PLACE(lock, m_Trace, OnTarget(280, 252)),
                  PLACE(lock, KovaBaseObject::m_ErrorCode, OnTarget(288, 260))});
    ExpectSize(OnTarget(304, 272), sizeof lock);
}

struct Idle : KovaThread {
    using KovaThread::KovaThread;
    int Run() override { return 0; }
};

TEST(Layout, Thread) {
    const Idle idle(0);
    const KovaThread& thread = idle;
    ExpectPlaces({PLACE(thread, m_Context, 4), PLACE(thread, m_Status, 8), PLACE(thread, m_StackSize, 12),
                  PLACE(thread, m_Tid, 16), PLACE(thread, m_PthreadId, 20), PLACE(thread, m_Priority, 24),
                  PLACE(thread, m_PrioClass, 28), PLACE(thread, m_PrioClassName, 32),
                  PLACE(thread, m_StackType, 36), PLACE(thread, m_EffectivePriority, 40),
                  PLACE(thread, m_Policy, 44), PLACE(thread, m_ErrorCode, 52)});
    ExpectSize(64, sizeof thread);
    EXPECT_STREQ("Regular", thread.m_PrioClassName);
    EXPECT_STREQ("Time-Critical", thread.m_PrioClassName + 20);
}

TEST(Layout, ThreadContext) {
    const KovaThreadContext context(0);
    ExpectPlaces(
        {PLACE(context, m_Thread, 4), PLACE(context, m_Tid, 8), PLACE(context, m_PthreadId, 12),
         PLACE(context, m_ThreadState, 16), PLACE(context, m_RetCode, 20), PLACE(context, m_Semaphore, 24),
         PLACE(context, m_SyncPoint, OnTarget(136, 124)), PLACE(context, m_ArgFlags, OnTarget(140, 128)),
         PLACE(context, m_MainContext, OnTarget(144, 132)), PLACE(context, m_TimeStamp, OnTarget(148, 136)),
         PLACE(context, m_Shutdown, OnTarget(152, 140)),
         PLACE(context, KovaBaseObject::m_ErrorCode, OnTarget(160, 148))});
    ExpectSize(OnTarget(176, 160), sizeof context);
}

// --- Companions of the message ---

struct Pattern : KovaMsgPattern {
    bool Pack(KovaFlatMsg&) override { return true; }
    bool Unpack(KovaFlatMsg&) override { return true; }
};

TEST(Layout, MessagePattern) {
    const Pattern derived;
    const KovaMsgPattern& pattern = derived;
    ExpectPlaces({PLACE(pattern, m_Owned, 4), PLACE(pattern, m_Header, 8), PLACE(pattern, m_Addr, 32),
                  PLACE(pattern, KovaBaseObject::m_ErrorCode, 116)});
    ExpectSize(128, sizeof pattern);
}

TEST(Layout, Request) {
    const KovaRequest request;
    ExpectPlaces({PLACE(request, m_Msg, 4), PLACE(request, m_Socket, 8), PLACE(request, m_ErrorCode, 16)});
    ExpectSize(28, sizeof request);
}

// --- Network interfaces ---

TEST(Layout, NetInterface) {
    const KovaNetInterfaces table;
    const KovaNetInterfaces::KovaNetInterface& record = table.m_Interfaces[0];
    ExpectPlaces({PLACE(record, m_Owner, 0), PLACE(record, m_Id, 4), PLACE(record, m_Address, 8),
                  PLACE(record, m_NetMask, 88), PLACE(record, m_SubNet, 168), PLACE(record, m_Broadcast, 248),
                  PLACE(record, m_Type, 328), PLACE(record, m_Status, 332), PLACE(record, m_Alias, 336),
                  PLACE(record, m_Mac, 340), PLACE(record, m_Name, 365), PLACE(record, m_BaseName, 381)});
    static_assert(sizeof record.m_Name == 16 && sizeof record.m_BaseName == 16);
    ExpectSize(400, sizeof record);
}

TEST(Layout, NetInterfaces) {
    const KovaNetInterfaces table;
    ExpectPlaces({PLACE(table, m_Interfaces, 4), PLACE(table, m_Count, 6804), PLACE(table, m_Error, 6808)});
    static_assert(sizeof table.m_Interfaces == 17 * sizeof table.m_Interfaces[0]);
    ExpectSize(6812, sizeof table);
}

// --- Files, and objects that processes share ---

TEST(Layout, Filename) {
    const KovaFilename name;
    ExpectPlaces({PLACE(name, m_ErrorCode, 4), PLACE(name, m_Path, 16)});
    ExpectSize(40, sizeof name);
}

TEST(Layout, SharedMutex) {
    const KovaSharedMutex mutex("layout");
    ExpectPlaces({PLACE(mutex, m_Handle, 4), PLACE(mutex, m_Name, 8), PLACE(mutex, m_Trace, 72),
                  PLACE(mutex, m_ErrorCode, 80)});
    static_assert(sizeof mutex.m_Name == 64 && sizeof mutex.m_Trace == 1);
    ExpectSize(92, sizeof mutex);
}

TEST(Layout, SharedSemaphore) {
    const KovaSharedSemaphore semaphore("layout", 0, 1);
    ExpectPlaces({PLACE(semaphore, m_Handle, 4), PLACE(semaphore, m_Name, 8), PLACE(semaphore, m_Trace, 72),
                  PLACE(semaphore, m_ErrorCode, 80)});
    static_assert(sizeof semaphore.m_Name == 64 && sizeof semaphore.m_Trace == 1);
    ExpectSize(92, sizeof semaphore);
}

TEST(Layout, SharedReadWriteLock) {
    const KovaSharedReadWriteLock lock("layout");
    ExpectPlaces({PLACE(lock, m_Semaphore, 4), PLACE(lock, m_Trace, 96),
                  PLACE(lock, KovaBaseObject::m_ErrorCode, 104)});
    ExpectSize(116, sizeof lock);
    static_assert(std::is_same_v<const int[2], decltype(KovaSharedReadWriteLock::m_InitVals)>);
    EXPECT_EQ(0, KovaSharedReadWriteLock::m_InitVals[0]);
    EXPECT_EQ(1, KovaSharedReadWriteLock::m_InitVals[1]);
}

TEST(Layout, MessageQueue) {
    char name[] = "layout";
    const KovaMessageQueue queue(name);
    ExpectPlaces({PLACE(queue, m_Handle, 4), PLACE(queue, m_Name, 8), PLACE(queue, m_Error, 72),
                  PLACE(queue, m_ErrorCode, 80)});
    static_assert(sizeof queue.m_Name == 64);
    ExpectSize(92, sizeof queue);
}

TEST(Layout, SharedEvent) {
    const KovaSharedEvent event;
    ExpectPlaces({PLACE(event, m_Bound, 200), PLACE(event, m_EventAddress, 204), PLACE(event, m_Name, 284),
                  PLACE(event, m_Closed, 316), PLACE(event, KovaBaseObject::m_ErrorCode, 324)});
    static_assert(sizeof event.m_Name == 32 && sizeof event.m_Closed == 1);
    ExpectSize(336, sizeof event);
}

TEST(Layout, FieldsThatThreadsShareAreLockFreeWords) {
    static_assert(decltype(sKovaLocalSemaphore::count)::is_always_lock_free);
    static_assert(decltype(KovaThread::m_Status)::is_always_lock_free);
    static_assert(decltype(KovaThread::m_PthreadId)::is_always_lock_free);
    static_assert(sizeof(KovaThread::m_PthreadId) == sizeof(pthread_t));
    static_assert(decltype(KovaThreadContext::m_Thread)::is_always_lock_free);
    static_assert(decltype(KovaThreadContext::m_ArgFlags)::is_always_lock_free);
    static_assert(sizeof(KovaThreadContext::m_Shutdown) == 1);
    static_assert(decltype(KovaBaseObject::m_ErrorCode)::is_always_lock_free);
    static_assert(decltype(KovaBaseObject::m_ErrorFunction)::is_always_lock_free);
    static_assert(decltype(KovaSocketWrapper::m_Socket)::is_always_lock_free);
    static_assert(decltype(KovaSocketWrapper::m_Stop)::is_always_lock_free);
    static_assert(decltype(KovaSocketWrapper::m_Blocking)::is_always_lock_free);
    static_assert(sizeof(KovaSocketWrapper::m_Stop) == 1 && sizeof(KovaSocketWrapper::m_Blocking) == 1);
}

// --- Virtual tables ---

/// Counts how it is destroyed.
template <typename Class>
struct Destroyed : Class {
    using Class::Class;
    ~Destroyed() override { ++s_Destroyed; }
    static void operator delete(void* object) {
        ++s_Deleted;
        ::operator delete(object);
    }
    static inline int s_Destroyed = 0;
    static inline int s_Deleted = 0;
};

/// Entry `slot` of an object's virtual table, called with the object alone.
void CallSlot(void* object, size_t slot) {
    void (**table)(void*);
    std::memcpy(&table, object, sizeof table);
    table[slot](object);
}

template <typename Class, typename... Args>
void ExpectDestructorPair(Args... args) {
    using Object = Destroyed<Class>;
    void* const memory = ::operator new(sizeof(Object));
    CallSlot(new (memory) Object(args...), 0);
    EXPECT_EQ(1, Object::s_Destroyed);
    EXPECT_EQ(0, Object::s_Deleted) << "the complete-object destructor comes first";
    CallSlot(new (memory) Object(args...), 1);
    EXPECT_EQ(2, Object::s_Destroyed);
    EXPECT_EQ(1, Object::s_Deleted) << "the deleting destructor comes second";
}

TEST(VirtualTable, BeginsWithTheDestructorPair) {
    ExpectDestructorPair<KovaBaseObject>();
    ExpectDestructorPair<KovaInetAddr>(0, 0);
    ExpectDestructorPair<KovaSocketWrapper>();
    ExpectDestructorPair<KovaTCPSocket>();
    ExpectDestructorPair<KovaUDPSocket>();
    ExpectDestructorPair<KovaIcmpSocket>();
    ExpectDestructorPair<KovaRawSocket>();
    ExpectDestructorPair<KovaNetInterfaces>();
    ExpectDestructorPair<KovaFlatMsg>();
    ExpectDestructorPair<KovaLocalMutex>();
    ExpectDestructorPair<KovaLocalSemaphore>();
    ExpectDestructorPair<KovaLocalReadWriteLock>();
    ExpectDestructorPair<KovaThreadContext>(0ul);
    ExpectDestructorPair<Idle>(0);
    ExpectDestructorPair<KovaRealTime>(0l);
    ExpectDestructorPair<KovaRelativeTime>(0l, true);
    ExpectDestructorPair<Pattern>();
    ExpectDestructorPair<KovaRequest>();
    ExpectDestructorPair<KovaFilename>();
    ExpectDestructorPair<KovaSharedMutex>("layout");
    ExpectDestructorPair<KovaSharedSemaphore>("layout", 0, 1);
    ExpectDestructorPair<KovaSharedReadWriteLock>("layout");
    char name[] = "layout";
    ExpectDestructorPair<KovaMessageQueue>(name);
    ExpectDestructorPair<KovaSharedEvent>();
}

/// A class derived from `Class` gets the first slot behind those of `Class`.
template <typename Class>
struct Next : Class {
    using Class::Class;
    virtual void Own() {}
};

TEST(VirtualTable, HoldsTheDestructorOnlyWhereNothingIsToBeOverridden) {
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaLocalMutex>::Own));
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaLocalSemaphore>::Own));
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaLocalReadWriteLock>::Own));
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaThreadContext>::Own));
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaRequest>::Own));
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaFilename>::Own));
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaSharedMutex>::Own));
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaSharedSemaphore>::Own));
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaSharedReadWriteLock>::Own));
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaMessageQueue>::Own));
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaBaseObject>::Own));
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaInetAddr>::Own));
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaFlatMsg>::Own));
    EXPECT_EQ(kFirstSlot, SlotOf(&Next<KovaNetInterfaces>::Own));
}

TEST(VirtualTable, ValuesHaveNone) {
    static_assert(!std::is_polymorphic_v<KovaMacAddr>);
    static_assert(!std::is_polymorphic_v<KovaNetInterfaces::KovaNetInterface>);
}

template <typename Class>
void ExpectWrapperSlots() {
    EXPECT_EQ(2u, SlotOf(&Class::SetTimeout));
    EXPECT_EQ(3u, SlotOf(&Class::SetBlocking));
    EXPECT_EQ(4u, SlotOf(&Class::SetRouting));
    EXPECT_EQ(5u, SlotOf(&Class::SetBroadcast));
    EXPECT_EQ(6u, SlotOf(&Class::Open));
}

TEST(VirtualTable, SocketWrapper) {
    ExpectWrapperSlots<KovaSocketWrapper>();
    EXPECT_EQ(7u, SlotOf(&Next<KovaSocketWrapper>::Own));
}

TEST(VirtualTable, TcpSocket) {
    ExpectWrapperSlots<KovaTCPSocket>();
    EXPECT_EQ(7u, SlotOf<void (KovaTCPSocket::*)(bool)>(&KovaTCPSocket::Close));
    EXPECT_EQ(8u, SlotOf<bool (KovaTCPSocket::*)(const void*, size_t)>(&KovaTCPSocket::Send));
    EXPECT_EQ(9u, SlotOf<bool (KovaTCPSocket::*)(void*, size_t)>(&KovaTCPSocket::Recv));
    EXPECT_EQ(10u, SlotOf(&KovaTCPSocket::ServerIntern));
    EXPECT_EQ(11u, SlotOf(&KovaTCPSocket::ConnectIntern));
    EXPECT_EQ(12u, SlotOf<KovaTCPSocket* (KovaTCPSocket::*)()>(&KovaTCPSocket::Accept));
    EXPECT_EQ(13u, SlotOf<void (KovaTCPSocket::*)(KovaTCPSocket*)>(&KovaTCPSocket::CallBack));
    EXPECT_EQ(14u, SlotOf<void (KovaTCPSocket::*)()>(&KovaTCPSocket::InitComplete));
    EXPECT_EQ(15u, SlotOf<void (KovaTCPSocket::*)()>(&KovaTCPSocket::DoIdle));
    EXPECT_EQ(16u, SlotOf(&Next<KovaTCPSocket>::Own));
}

TEST(VirtualTable, UdpSocket) {
    using Udp = KovaUDPSocket;
    ExpectWrapperSlots<Udp>();
    EXPECT_EQ(7u, SlotOf<bool (Udp::*)(unsigned int, unsigned short)>(&Udp::Server));
    EXPECT_EQ(8u, SlotOf<bool (Udp::*)(unsigned short)>(&Udp::Server));
    EXPECT_EQ(9u, SlotOf<bool (Udp::*)(const KovaInetAddr&)>(&Udp::Server));
    EXPECT_EQ(10u, SlotOf<bool (Udp::*)()>(&Udp::Server));
    EXPECT_EQ(11u, SlotOf<void (Udp::*)()>(&Udp::Close));
    EXPECT_EQ(12u, SlotOf<bool (Udp::*)(const void*, size_t, unsigned int, unsigned short)>(&Udp::SendTo));
    EXPECT_EQ(13u, SlotOf<bool (Udp::*)(const void*, size_t, KovaInetAddr&)>(&Udp::SendTo));
    EXPECT_EQ(14u, SlotOf(&Udp::RecvFrom));
    EXPECT_EQ(15u, SlotOf(&Udp::PeekFrom));
    EXPECT_EQ(16u, SlotOf(&Udp::Shutdown));
    EXPECT_EQ(17u, SlotOf(&Udp::Bind));
    EXPECT_EQ(18u, SlotOf<void (Udp::*)()>(&Udp::DoIdle));
    EXPECT_EQ(19u, SlotOf<void (Udp::*)(Udp*)>(&Udp::CallBack));
    EXPECT_EQ(20u, SlotOf<void (Udp::*)()>(&Udp::InitComplete));
    EXPECT_EQ(21u, SlotOf(&Udp::ServerIntern));
    EXPECT_EQ(22u, SlotOf(&Next<Udp>::Own));
}

TEST(VirtualTable, SharedEventIsAnUdpSocket) {
    EXPECT_EQ(11u, SlotOf<void (KovaSharedEvent::*)()>(&KovaSharedEvent::Close));
    EXPECT_EQ(22u, SlotOf(&Next<KovaSharedEvent>::Own));
}

TEST(VirtualTable, IcmpSocket) {
    ExpectWrapperSlots<KovaIcmpSocket>();
    EXPECT_EQ(7u, SlotOf(&Next<KovaIcmpSocket>::Own));
}

TEST(VirtualTable, RawSocket) {
    ExpectWrapperSlots<KovaRawSocket>();
    EXPECT_EQ(7u, SlotOf(&Next<KovaRawSocket>::Own));
}

TEST(VirtualTable, Time) {
    EXPECT_EQ(2u, SlotOf(&KovaTime::CTime));
    EXPECT_EQ(3u, SlotOf(&KovaTime::operator const char*));
    EXPECT_EQ(4u, SlotOf(&KovaTime::operator long));
    EXPECT_EQ(5u, SlotOf(&KovaTime::operator const long*));
    EXPECT_EQ(6u, SlotOf(&Next<KovaRealTime>::Own));
    EXPECT_EQ(6u, SlotOf(&Next<KovaRelativeTime>::Own));
}

TEST(VirtualTable, Thread) {
    EXPECT_EQ(2u, SlotOf(&KovaThread::Run));
    EXPECT_EQ(3u, SlotOf(&Next<KovaThread>::Own));
}

TEST(VirtualTable, MessagePattern) {
    EXPECT_EQ(2u, SlotOf(&KovaMsgPattern::Pack));
    EXPECT_EQ(3u, SlotOf(&KovaMsgPattern::Unpack));
    EXPECT_EQ(4u, SlotOf(&Next<KovaMsgPattern>::Own));
}

}  // namespace

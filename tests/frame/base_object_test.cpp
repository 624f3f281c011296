#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/base_object.h>
#include <kova/flat_msg.h>
#include <kova/inet_addr.h>
#include <kova/tcp_socket.h>
#include <kova/udp_socket.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <type_traits>

namespace {

/// Opens the setters to the tests.
struct Object : KovaBaseObject {
    using KovaBaseObject::_SetError_;
    using KovaBaseObject::_SetError_Trace_;
};

testing::AssertionResult Holds(const KovaBaseObject& object, int code, int line, const char* function) {
    if (object.GetError() == code && object.GetErrorLine() == line && object.GetErrorFunction() == function) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << object.GetError() << " line " << object.GetErrorLine() << " in "
                                       << (object.GetErrorFunction() ? object.GetErrorFunction() : "null");
}

constexpr const char kFunction[] = "bool KovaLocalMutex::Lock()";
constexpr const char kOther[] = "virtual bool KovaIcmpSocket::Open()";

class BaseObject : public KovaTest {};

TEST_F(BaseObject, NewObjectHasNoError) {
    EXPECT_TRUE(Holds(Object(), 0, 0, nullptr));
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, Object().GetError());
}

TEST_F(BaseObject, SetErrorStoresCodeLineAndFunction) {
    Object object;
    object._SetError_(kFunction, 17, KovaBaseObject::KOVA_ERR_OVERRUN);
    EXPECT_TRUE(Holds(object, 30019, 17, kFunction));
    object._SetError_(kOther, 18, ENOTSOCK);
    EXPECT_TRUE(Holds(object, ENOTSOCK, 18, kOther));
}

TEST_F(BaseObject, TracingSetterStoresTheSameAndWritesNoRecord) {
    TraceRecorder recorder;
    Object object;
    object._SetError_Trace_(kFunction, 17, KovaBaseObject::KOVA_ERR_NO_BUFFER);
    EXPECT_TRUE(Holds(object, 30015, 17, kFunction));
    object._SetError_Trace_(kOther, 18, ETIMEDOUT);
    EXPECT_TRUE(Holds(object, ETIMEDOUT, 18, kOther));
    EXPECT_EQ(0u, recorder.All().size());
}

TEST_F(BaseObject, AnySigned32BitCodeFits) {
    static_assert(std::is_same_v<std::underlying_type_t<KovaBaseObject::ErrorT>, int32_t>);
    Object object;
    for (const int code : {-1, 1, 4095, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        object._SetError_(kFunction, 1, code);
        EXPECT_EQ(code, object.GetError());
    }
}

TEST_F(BaseObject, ClearedErrorKeepsItsPlace) {
    Object object;
    object._SetError_(kFunction, 17, EIO);
    object.ClearError();
    EXPECT_TRUE(Holds(object, 0, 17, kFunction));
}

TEST_F(BaseObject, CopiesCarryTheRecord) {
    Object object;
    object._SetError_(kFunction, 17, EIO);
    EXPECT_TRUE(Holds(Object(object), EIO, 17, kFunction));
    Object assigned;
    assigned._SetError_(kOther, 3, EPERM);
    assigned = object;
    EXPECT_TRUE(Holds(assigned, EIO, 17, kFunction));
    const Object& same = assigned;
    assigned = same;
    EXPECT_TRUE(Holds(assigned, EIO, 17, kFunction));
    object.ClearError();
    EXPECT_TRUE(Holds(assigned, EIO, 17, kFunction)) << "a copy is its own record";
}

TEST_F(BaseObject, SystemErrnoIsTheThreadsNotTheRecords) {
    Object object;
    object._SetError_(kFunction, 17, EIO);
    errno = ENOENT;
    EXPECT_EQ(ENOENT, object.GetSystemErrNo());
    EXPECT_EQ(ENOENT, KovaGetSystemErrNo());
    int elsewhere = -1;
    DeadlineThread([&] {
        errno = 0;
        elsewhere = KovaGetSystemErrNo();
    }).Join();
    EXPECT_EQ(0, elsewhere);
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(BaseObject, ErrorCodesHaveTheirNumbers) {
    static_assert(KovaBaseObject::KOVA_ERR_NONE == 0);
    static_assert(KovaBaseObject::KOVA_ERR_ALREADY_OPEN == 30001);
    static_assert(KovaBaseObject::KOVA_ERR_BAD_HANDSHAKE == 30002);
    static_assert(KovaBaseObject::KOVA_ERR_SIZE_MISMATCH == 30004);
    static_assert(KovaBaseObject::KOVA_ERR_BAD_HEADER == 30007);
    static_assert(KovaBaseObject::KOVA_ERR_WRONG_PROTOCOL == 30008);
    static_assert(KovaBaseObject::KOVA_ERR_BAD_VERSION == 30009);
    static_assert(KovaBaseObject::KOVA_ERR_INVALID_PARAMETER == 30010);
    static_assert(KovaBaseObject::KOVA_ERR_FOREIGN_REPLY == 30011);
    static_assert(KovaBaseObject::KOVA_ERR_RECV_TIMEOUT == 30014);
    static_assert(KovaBaseObject::KOVA_ERR_NO_BUFFER == 30015);
    static_assert(KovaBaseObject::KOVA_ERR_INVALID_INTERFACE == 30018);
    static_assert(KovaBaseObject::KOVA_ERR_OVERRUN == 30019);
}

// --- Who derives from it, and how ---

/// A virtual base cannot be cast down statically.
template <typename Base, typename Derived>
concept PlainBase = requires(Base* base) {
    static_cast<Derived*>(base);
};

TEST_F(BaseObject, IsAVirtualBaseOfSockets) {
    static_assert(std::is_base_of_v<KovaBaseObject, KovaSocketWrapper>);
    static_assert(!PlainBase<KovaBaseObject, KovaSocketWrapper>);
    static_assert(std::is_base_of_v<KovaSocketWrapper, KovaTCPSocket>);
    static_assert(PlainBase<KovaSocketWrapper, KovaTCPSocket>);
    static_assert(std::is_base_of_v<KovaSocketWrapper, KovaUDPSocket>);
    static_assert(PlainBase<KovaSocketWrapper, KovaUDPSocket>);
}

TEST_F(BaseObject, IsAPlainBaseOfMessagesAndNoneOfValues) {
    static_assert(PlainBase<KovaBaseObject, KovaFlatMsg>);
    static_assert(!std::is_base_of_v<KovaBaseObject, KovaInetAddr>);
    static_assert(std::has_virtual_destructor_v<KovaBaseObject>);
}

struct Left : virtual KovaBaseObject {};
struct Right : virtual KovaBaseObject {};
struct Both : Left, Right {
    using KovaBaseObject::_SetError_;
};

TEST_F(BaseObject, IsOneRecordWhateverThePathToIt) {
    Both both;
    both._SetError_(kFunction, 17, EIO);
    EXPECT_TRUE(Holds(static_cast<Left&>(both), EIO, 17, kFunction));
    EXPECT_TRUE(Holds(static_cast<Right&>(both), EIO, 17, kFunction));
}

TEST_F(BaseObject, SocketReachedThroughAnyBaseReportsTheSameRecord) {
    KovaUDPSocket socket;
    EXPECT_FALSE(socket.Bind());
    const KovaBaseObject& object = socket;
    const KovaSocketWrapper& wrapper = socket;
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_INVALID_PARAMETER, object.GetError());
    EXPECT_TRUE(Holds(wrapper, object.GetError(), object.GetErrorLine(), object.GetErrorFunction()));
    EXPECT_TRUE(Holds(socket, object.GetError(), object.GetErrorLine(), object.GetErrorFunction()));
    EXPECT_STREQ("virtual bool KovaUDPSocket::Bind()", object.GetErrorFunction());
}

}  // namespace

#include "msg/wire.h"
#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/flat_msg.h>
#include <kova/request.h>
#include <kova/tcp_socket.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

constexpr char kKeepAlive[] = "bool KovaTCPSocket::KeepAlive()";
const std::string kAliveText("alive", 6);

/// What a request may hold, noting its end.
class NotedSocket : public Fallible<KovaTCPSocket> {
  public:
    explicit NotedSocket(Texts& ends) : m_Ends(ends) {}
    NotedSocket(Texts& ends, Fd fd) : NotedSocket(ends) { SetSocket(fd.Release()); }
    ~NotedSocket() override { m_Ends.push_back("socket"); }

  private:
    Texts& m_Ends;
};

class NotedMsg : public KovaFlatMsg {
  public:
    explicit NotedMsg(Texts& ends, std::function<void()> at_end = {})
        : m_Ends(ends), m_AtEnd(std::move(at_end)) {}
    ~NotedMsg() override {
        m_Ends.push_back("message");
        if (m_AtEnd) m_AtEnd();
    }

  private:
    Texts& m_Ends;
    const std::function<void()> m_AtEnd;
};

class Request : public KovaTest {
  protected:
    NotedSocket* NewSocket() { return new NotedSocket(ends); }
    NotedSocket* NewSocket(Fd fd) { return new NotedSocket(ends, std::move(fd)); }
    NotedMsg* NewMsg() { return new NotedMsg(ends); }

    /// What a request holds, and what goes with it.
    void ExpectHolds(std::unique_ptr<KovaRequest> request, const KovaTCPSocket* socket,
                     const KovaFlatMsg* msg, const Texts& ends_wanted) {
        EXPECT_EQ(socket, request->GetSocket());
        EXPECT_EQ(socket != nullptr, request->IsSocket());
        EXPECT_EQ(msg, request->GetMsg());
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, request->GetError());
        EXPECT_EQ(nullptr, request->GetErrorFunction());
        EXPECT_EQ(Texts{}, ends);
        request.reset();
        EXPECT_EQ(ends_wanted, ends);
        ends.clear();
    }

    Texts ends;
};

// Construction and destruction

TEST_F(Request, StartsEmpty) { ExpectHolds(std::make_unique<KovaRequest>(), nullptr, nullptr, {}); }

TEST_F(Request, OwnsBothAndDeletesTheMessageFirst) {
    const Texts both{"message", "socket"};
    NotedSocket* socket = NewSocket();
    NotedMsg* msg = NewMsg();
    ExpectHolds(std::make_unique<KovaRequest>(socket, msg), socket, msg, both);
    socket = NewSocket();
    msg = NewMsg();
    ExpectHolds(std::make_unique<KovaRequest>(*socket, *msg), socket, msg, both);
}

TEST_F(Request, OwnsASocketAlone) {
    NotedSocket* socket = NewSocket();
    ExpectHolds(std::make_unique<KovaRequest>(socket), socket, nullptr, {"socket"});
    socket = NewSocket();
    ExpectHolds(std::make_unique<KovaRequest>(*socket), socket, nullptr, {"socket"});
    socket = NewSocket();
    ExpectHolds(std::make_unique<KovaRequest>(socket, nullptr), socket, nullptr, {"socket"});
}

TEST_F(Request, OwnsAMessageAlone) {
    NotedMsg* msg = NewMsg();
    ExpectHolds(std::make_unique<KovaRequest>(msg), nullptr, msg, {"message"});
    msg = NewMsg();
    ExpectHolds(std::make_unique<KovaRequest>(*msg), nullptr, msg, {"message"});
    msg = NewMsg();
    ExpectHolds(std::make_unique<KovaRequest>(nullptr, msg), nullptr, msg, {"message"});
}

TEST_F(Request, NullPointersAreAllowed) {
    KovaTCPSocket* const no_socket = nullptr;
    KovaFlatMsg* const no_msg = nullptr;
    ExpectHolds(std::make_unique<KovaRequest>(no_socket, no_msg), nullptr, nullptr, {});
    ExpectHolds(std::make_unique<KovaRequest>(no_socket), nullptr, nullptr, {});
    ExpectHolds(std::make_unique<KovaRequest>(no_msg), nullptr, nullptr, {});
}

TEST_F(Request, TakesOwnershipOnlyWhenAskedTo) {
    static_assert(!std::is_convertible_v<KovaTCPSocket&, KovaRequest>);
    static_assert(!std::is_convertible_v<KovaTCPSocket*, KovaRequest>);
    static_assert(!std::is_convertible_v<KovaFlatMsg&, KovaRequest>);
    static_assert(!std::is_convertible_v<KovaFlatMsg*, KovaRequest>);
    static_assert(!std::is_constructible_v<KovaRequest, const KovaTCPSocket&>);
    static_assert(!std::is_constructible_v<KovaRequest, const KovaFlatMsg&>);
    static_assert(!std::is_copy_constructible_v<KovaRequest> && !std::is_copy_assignable_v<KovaRequest>);
    static_assert(!std::is_move_constructible_v<KovaRequest> && !std::is_move_assignable_v<KovaRequest>);
}

TEST_F(Request, IsDeletedWholeThroughItsBase) {
    std::unique_ptr<KovaBaseObject>(new KovaRequest(NewSocket(), NewMsg())).reset();
    EXPECT_EQ((Texts{"message", "socket"}), ends);
}

TEST_F(Request, ClosesTheConnectionWithItsEnd) {
    auto [near, far] = TcpPair();
    const int fd = near;
    LimitReceives(far);
    auto request = std::make_unique<KovaRequest>(NewSocket(std::move(near)));
    EXPECT_TRUE(IsOpenFd(fd));
    request.reset();
    EXPECT_EQ(Texts{"socket"}, ends);
    EXPECT_FALSE(IsOpenFd(fd));
    char byte;
    EXPECT_EQ(0, ::recv(far, &byte, sizeof byte, 0)) << "an end, no reset";
}

TEST_F(Request, ConnectionIsOpenWhileTheMessageEnds) {
    auto [near, far] = TcpPair();
    const int fd = near;
    bool was_open = false;
    auto* const msg = new NotedMsg(ends, [&] { was_open = IsOpenFd(fd); });
    { const KovaRequest request(NewSocket(std::move(near)), msg); }
    EXPECT_TRUE(was_open);
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST_F(Request, AnswerLeavesBeforeTheConnectionCloses) {
    auto [near, far] = TcpPair();
    LimitReceives(far);
    auto request = std::make_unique<KovaRequest>(NewSocket(std::move(near)), NewMsg());
    DeadlineThread worker([&] {
        KovaFlatMsg answer;
        Set(answer, 8, Body(3000));
        answer >> *request->GetSocket();
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, answer.GetError());
        request.reset();
    });
    KovaTCPSocket peer(far.Release());
    KovaFlatMsg answer;
    answer << peer;
    EXPECT_EQ(8, answer.GetType());
    EXPECT_EQ(Body(3000), BodyBytes(answer));
    answer << peer;
    EXPECT_EQ(ECONNRESET, answer.GetError());
    worker.Join();
}

// KeepAlive

TEST_F(Request, KeepAliveWithoutSocketDoesNothing) {
    KovaRequest empty;
    KovaRequest message_only(NewMsg());
    TraceRecorder trace;
    const fake::Journal calls;
    errno = EXDEV;
    for (KovaRequest* const request : {&empty, &message_only}) {
        EXPECT_FALSE(request->KeepAlive());
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, request->GetError());
        EXPECT_EQ(nullptr, request->GetErrorFunction());
    }
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, message_only.GetMsg()->GetError());
    EXPECT_EQ(EXDEV, errno);
    EXPECT_EQ(Texts{}, calls.Texts());
    EXPECT_TRUE(trace.All().empty());
}

TEST_F(Request, KeepAliveSendsFillerToThePeer) {
    auto [near, far] = TcpPair();
    LimitReceives(far);
    KovaRequest request(NewSocket(std::move(near)), NewMsg());
    TraceRecorder trace;
    EXPECT_TRUE(request.KeepAlive());
    EXPECT_TRUE(request.KeepAlive());
    EXPECT_TRUE(trace.All().empty());
    std::string got(13, '?');
    EXPECT_EQ(12, ::recv(far, got.data(), 12, MSG_WAITALL));
    EXPECT_EQ(kAliveText + kAliveText + "?", got);
    EXPECT_EQ(-1, ::recv(far, got.data(), 1, MSG_DONTWAIT)) << "nothing else";
}

TEST_F(Request, PeerThatWaitsForTheAnswerDoesNotSeeTheFiller) {
    auto [near, far] = TcpPair();
    KovaRequest request(NewSocket(std::move(near)));
    EXPECT_TRUE(request.KeepAlive());
    KovaFlatMsg answer(8);
    answer >> *request.GetSocket();
    KovaTCPSocket peer(far.Release());
    answer.SetType(0);
    answer << peer;
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, answer.GetError());
    EXPECT_EQ(8, answer.GetType());
}

TEST_F(Request, KeepAliveThatFailsIsRecordedInTheSocketOnly) {
    auto [near, far] = TcpPair();
    KovaRequest request(NewSocket(std::move(near)), NewMsg());
    const int fd = request.GetSocket()->GetSocket();
    const auto expect_failure = [&](int code, const char* text, std::initializer_list<int64_t> values) {
        TraceRecorder trace;
        EXPECT_FALSE(request.KeepAlive());
        EXPECT_TRUE(Recorded(*request.GetSocket(), code, kKeepAlive));
        EXPECT_EQ(1u, trace.All().size());
        EXPECT_TRUE(trace.Has(text, values));
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, request.GetError());
        EXPECT_EQ(nullptr, request.GetErrorFunction());
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, request.GetMsg()->GetError());
    };
    {
        const fake::Script sends(fake::send, {fake::Fail(ENOBUFS)});
        expect_failure(ENOBUFS, "keep-alive fd=%d errno=%d", {fd, ENOBUFS});
    }
    request.GetSocket()->SetType(KOVA_SOCKET_PLAIN);
    expect_failure(ENOTSOCK, "keep-alive fd=%d type=%u", {fd, KOVA_SOCKET_PLAIN});
    request.GetSocket()->SetType(KOVA_SOCKET_HANDSHAKE);
    request.GetSocket()->Close(true);
    EXPECT_TRUE(request.IsSocket()) << "a closed one is held, too";
    expect_failure(ENOTSOCK, "keep-alive fd=%d type=%u", {-1, KOVA_SOCKET_HANDSHAKE});
}

// Error record

TEST_F(Request, RecordIsItsOwn) {
    auto* const socket = NewSocket();
    KovaRequest request(socket, NewMsg());
    socket->Plant(EIO);
    EXPECT_EQ(EIO, request.GetSocket()->GetError());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, request.GetError());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, request.GetMsg()->GetError());
}

}  // namespace

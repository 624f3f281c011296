/// The other end for the TCP tests: plain sockets of the test's own that do exactly what a test wants, and
/// views of what the kernel knows of a connection. Blocking calls here are not those that a test fakes.
#ifndef KOVA_TESTS_SOCKET_TCP_PEERS_H
#define KOVA_TESTS_SOCKET_TCP_PEERS_H

#include "support/leak_check.h"

#include <kova/inet_addr.h>
#include <kova/tcp_socket.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

/// The texts on the wire, with their terminating zero.
inline const std::string kConnectText("Connect", 8);
inline const std::string kOverrunText("Overrun", 8);
inline const std::string kAliveText("alive", 6);

/// Code, function text and a line that `object` has recorded.
testing::AssertionResult HasRecorded(const KovaBaseObject& object, int code, const char* function);

/// The same text repeated with a running number: `size` bytes in which no part equals another of the same
/// length nearby.
std::string Pattern(size_t size);

/// Writes everything, waiting as long as it takes; false when the peer is gone.
bool WriteAll(int fd, const std::string& bytes);
/// Reads until `size` bytes are there, the peer closes or the limit has passed; returns what came.
std::string ReadUpTo(int fd, size_t size);
/// Waits until a read of `fd` would not block.
bool WaitReadable(int fd);
bool WaitWritable(int fd);
/// Whether the peer has ended the connection, in either way: waits for it.
bool IsEnded(int fd);
/// Bytes that can be read at once.
int Waiting(int fd);

/// Whether the peer has ended its direction of the connection, and whether it has reset both; without
/// waiting.
bool HasPeerEnded(int fd);
bool HasPeerReset(int fd);
/// Closes with a reset instead of an end.
void Reset(Fd& fd);

bool IsNonBlocking(int fd);
/// Moves an open descriptor to a number that no descriptor set can hold.
Fd MovedBeyondSets(Fd fd);
/// The limit of open files lets a process have such descriptors.
bool AllowDescriptorsBeyondSets();

/// Address of an end, as the kernel tells it.
KovaInetAddr LocalOf(int fd);
KovaInetAddr PeerOf(int fd);
uint16_t HostPort(const KovaInetAddr& address);

/// A listening socket on the IPv6 or IPv4 loopback address.
class Listener {
  public:
    explicit Listener(int family = AF_INET6, int backlog = 8);

    int Get() const { return m_Fd; }
    KovaInetAddr Address() const { return LocalOf(m_Fd); }
    /// In host order.
    uint16_t Port() const { return HostPort(Address()); }
    /// Waits for a connection and takes it; -1 when the listener is shut down.
    Fd Accept() const;
    void Shutdown();

  private:
    Fd m_Fd;
};

/// A connection to a port of the IPv6 loopback address, as a plain client makes it.
Fd ConnectTo(uint16_t port);

/// A server that takes one connection on a thread of its own and sends it `greeting`.
class Greeter {
  public:
    enum After { kStays, kCloses };

    explicit Greeter(std::string greeting = kConnectText, After after = kStays);
    ~Greeter();

    KovaInetAddr Address() const { return m_Listener.Address(); }
    uint16_t Port() const { return m_Listener.Port(); }
    /// The connection that was taken, once it is greeted.
    Fd& Connection();

  private:
    Listener m_Listener;
    Fd m_Connection;
    DeadlineThread m_Thread;
};

#endif

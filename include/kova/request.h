/// Request: a message together with the connection on which it arrived.
///
/// A server pairs the two in its `CallBack` and hands the request to a worker, which answers on the same
/// connection and deletes the request; this closes the connection.
///
/// The request owns what it is given, by reference, too: the objects must come from `new` (as those that
/// `KovaTCPSocket::Accept` makes do), and nobody else may delete them.
///
/// Errors: the request records none of its own; those of the connection and of the message stay in these.
/// Threads: an object belongs to one thread at a time and may be handed on, with message and connection.
#ifndef KOVA_REQUEST_H
#define KOVA_REQUEST_H

#include <kova/base_object.h>
#include <kova/export.h>

class KovaFlatMsg;
class KovaTCPSocket;

class KOVA_API KovaRequest : public virtual KovaBaseObject {
  public:
    /// Holds nothing.
    KovaRequest();
    /// Take over what they are given; null pointers are allowed.
    KovaRequest(KovaTCPSocket* socket, KovaFlatMsg* msg);
    KovaRequest(KovaTCPSocket& socket, KovaFlatMsg& msg);
    explicit KovaRequest(KovaTCPSocket* socket);
    explicit KovaRequest(KovaTCPSocket& socket);
    explicit KovaRequest(KovaFlatMsg* msg);
    explicit KovaRequest(KovaFlatMsg& msg);
    KovaRequest(const KovaRequest&) = delete;
    KovaRequest& operator=(const KovaRequest&) = delete;
    /// Deletes the message, then the socket, which closes the connection: unsent data are given up to one
    /// second to leave.
    virtual ~KovaRequest();

    /// Null when there is none. They stay the request's.
    KovaFlatMsg* GetMsg();
    KovaTCPSocket* GetSocket();
    bool IsSocket();
    /// Sends filler as `KovaTCPSocket::KeepAlive` does, so that a peer that waits knows that its request is
    /// being worked on. False when that fails, with the error in the socket; false, and nothing is done,
    /// without a socket.
    bool KeepAlive();

  private:
    KovaFlatMsg* m_Msg;
    KovaTCPSocket* m_Socket;
};

#endif

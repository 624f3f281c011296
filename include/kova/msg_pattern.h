/// Message pattern: the base of a service's own message classes.
///
/// It carries the header of a flat message (kova/flat_msg.h) and an address; the derived class adds the
/// fields of the body and says how they are encoded. `Pack` and `Unpack` are the bridge to the message that
/// travels:
///
///     KovaFlatMsg msg;
///     if (reading.Pack(msg)) msg >> socket;                // the sender
///     msg << socket;
///     if (msg.GetError() == 0 && reading.Unpack(msg)) ...  // the receiver
///
/// Sending stamps magic, version, thread id and time into the flat message, not into the pattern: a pattern's
/// header is what its class or `SetHeader` put there.
///
/// Errors: no operation of this class fails; the record is there for the derived class. Threads: an object
/// belongs to one thread.
#ifndef KOVA_MSG_PATTERN_H
#define KOVA_MSG_PATTERN_H

#include <kova/base_object.h>
#include <kova/export.h>
#include <kova/flat_msg.h>
#include <kova/inet_addr.h>

class KOVA_API KovaMsgPattern : public virtual KovaBaseObject {
  public:
    /// Header all zero, address 0.0.0.0 with port 0, nothing owned.
    KovaMsgPattern();
    /// The same with a type.
    KovaMsgPattern(int type);
    KovaMsgPattern(const KovaMsgPattern&) = delete;
    KovaMsgPattern& operator=(const KovaMsgPattern&) = delete;
    /// Deletes the owned object.
    virtual ~KovaMsgPattern();

    /// Encodes type and body into `msg`. False when that is not possible, with the error in this object or in
    /// `msg`.
    virtual bool Pack(KovaFlatMsg& msg) = 0;
    /// Takes type and body from `msg`, and header and address where the class wants them. False for a message
    /// that is not of this class, whose fields it then leaves alone. The body comes from a peer: its size is
    /// to be checked before it is read.
    virtual bool Unpack(KovaFlatMsg& msg) = 0;

    /// The header, in network byte order. Never null; it belongs to this object.
    sKovaMsgHeader* GetHeader() const;
    /// Copies a header as it is, in network byte order.
    void SetHeader(const sKovaMsgHeader& header);
    /// Header fields in host order.
    int GetType() const;
    unsigned int GetSendTid() const;
    unsigned int GetSendTime() const;
    /// `type` in host order.
    void SetType(int type);
    /// A place for the peer; the library neither reads nor sets it.
    KovaInetAddr& GetAddr();

  protected:
    /// Deleted with this object; null at first. The derived class sets it, and deletes what it replaces.
    KovaBaseObject* m_Owned;

  private:
    mutable sKovaMsgHeader m_Header;
    KovaInetAddr m_Addr;
};

#endif

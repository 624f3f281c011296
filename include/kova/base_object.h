/// The error record that every stateful class of the library carries.
///
/// Operations never throw. One that fails returns `false`, a null pointer or -1 and leaves in its object the
/// code, the full signature of the function that failed and the source line. Codes from 30000 on are the
/// library's own (`KovaBaseObject::ErrorT`), smaller ones are errno values.
#ifndef KOVA_BASE_OBJECT_H
#define KOVA_BASE_OBJECT_H

#include <kova/export.h>

#include <atomic>
#include <cstdint>

extern "C" {
/// The calling thread's `errno`.
KOVA_API int KovaGetSystemErrNo();
}

namespace kova {
class ErrorKeeper;
}

/// Base of the stateful classes: virtual base of sockets, locks, threads and the like (one record per object,
/// whatever the path to it), plain base of `KovaFlatMsg` and `KovaFilename`.
///
/// Threads: nothing is locked. The three fields are single words, so a record that two threads write at once
/// is never torn inside a field, and the last thread that fails wins.
class KOVA_API KovaBaseObject {
  public:
    /// Error codes. Any errno value fits as well.
    enum ErrorT : int32_t {
        KOVA_ERR_NONE = 0,
        KOVA_ERR_ALREADY_OPEN = 30001,       ///< a socket is there already, or the object is serving
        KOVA_ERR_BAD_HANDSHAKE = 30002,      ///< a TCP server answered neither "Connect" nor "Overrun"
        KOVA_ERR_SIZE_MISMATCH = 30004,      ///< a datagram has another size than the one asked for
        KOVA_ERR_BAD_HEADER = 30007,         ///< no magic "KOVA", or an IP header that runs past its packet
        KOVA_ERR_WRONG_PROTOCOL = 30008,     ///< a raw packet of another protocol than the expected one
        KOVA_ERR_BAD_VERSION = 30009,        ///< a message of another major version than 2, or no echo reply
        KOVA_ERR_INVALID_PARAMETER = 30010,  ///< a message shorter than its header, a bind to port 0
        KOVA_ERR_FOREIGN_REPLY = 30011,      ///< a ping reply that belongs to another pinger
        KOVA_ERR_RECV_TIMEOUT = 30014,       ///< a TCP receive took longer than the alive time-out
        KOVA_ERR_NO_BUFFER = 30015,          ///< no memory for a message body
        KOVA_ERR_INVALID_INTERFACE = 30018,  ///< no such network interface
        KOVA_ERR_OVERRUN = 30019,  ///< a message header announces more than is there; server table full
    };

    /// No error: code and line 0, function null.
    KovaBaseObject();
    /// Copies the record.
    KovaBaseObject(const KovaBaseObject& other);
    KovaBaseObject& operator=(const KovaBaseObject& other);
    virtual ~KovaBaseObject();

    /// The last error's code, `KOVA_ERR_NONE` if there is none.
    ErrorT GetError() const { return static_cast<ErrorT>(m_ErrorCode.load(std::memory_order_relaxed)); }
    /// Full signature of the function that failed last; null if none ever did. Static text, never freed.
    const char* GetErrorFunction() const { return m_ErrorFunction.load(std::memory_order_relaxed); }
    /// Source line of the last failure, 0 if there was none.
    int GetErrorLine() const { return m_ErrorLine.load(std::memory_order_relaxed); }
    /// Sets the code to 0. Function and line keep naming the last failure.
    void ClearError() { m_ErrorCode.store(KOVA_ERR_NONE, std::memory_order_relaxed); }
    /// The calling thread's `errno`, not the recorded code.
    int GetSystemErrNo() const;

  protected:
    /// Stores a failure. `function` must be a static text.
    void _SetError_(const char* function, int line, ErrorT code);
    void _SetError_(const char* function, int line, int code);
    /// Stores a failure whose caller writes a trace record beside this call.
    void _SetError_Trace_(const char* function, int line, ErrorT code);
    void _SetError_Trace_(const char* function, int line, int code);

  private:
    friend class kova::ErrorKeeper;

    std::atomic<int32_t> m_ErrorCode;
    std::atomic<int32_t> m_ErrorLine;
    std::atomic<const char*> m_ErrorFunction;
};

#endif

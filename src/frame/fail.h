/// Failures: one line that records, traces and yields `false`.
///
///     if (::listen(fd, backlog) < 0) return KOVA_FAIL(errno, "listen fd=%d errno=%d", fd, errno);
///
/// For members of classes with an error record. The record gets the signature of the function in which the
/// macro stands, so none of these may stand in a lambda or in a helper that fails in the name of its caller:
/// these use KOVA_FAIL_IN with the signature handed in.
#ifndef KOVA_FRAME_FAIL_H
#define KOVA_FRAME_FAIL_H

#include "frame/trace.h"

#include <kova/base_object.h>

namespace kova {

constexpr bool Failed() { return false; }

/// Lets an error that is recorded already survive what a scope records, as closing after a failure must.
class ErrorKeeper {
  public:
    explicit ErrorKeeper(KovaBaseObject& object)
        : m_Object(object),
          m_Code(object.GetError()),
          m_Line(object.GetErrorLine()),
          m_Function(object.GetErrorFunction()) {}
    ErrorKeeper(const ErrorKeeper&) = delete;
    ErrorKeeper& operator=(const ErrorKeeper&) = delete;
    ~ErrorKeeper() {
        if (m_Code != KovaBaseObject::KOVA_ERR_NONE) m_Object._SetError_(m_Function, m_Line, m_Code);
    }

  private:
    KovaBaseObject& m_Object;
    const KovaBaseObject::ErrorT m_Code;
    const int m_Line;
    const char* const m_Function;
};

}  // namespace kova

/// Records `code` and writes the trace point.
#define KOVA_FAIL(code, text, ...) KOVA_FAIL_IN(__PRETTY_FUNCTION__, code, text __VA_OPT__(, ) __VA_ARGS__)

/// As KOVA_FAIL, in the name of `function`, the signature of another function.
#define KOVA_FAIL_IN(function, code, text, ...)           \
    __extension__({                                       \
        this->_SetError_Trace_(function, __LINE__, code); \
        KOVA_TRACE(text __VA_OPT__(, ) __VA_ARGS__);      \
        ::kova::Failed();                                 \
    })

/// Records `code` without a trace point.
#define KOVA_RECORD(code) (this->_SetError_(__PRETTY_FUNCTION__, __LINE__, code), ::kova::Failed())

/// Clears the record of an operation that succeeded, records `errno` of one that failed; yields which.
#define KOVA_RESULT(succeeded) ((succeeded) ? (this->ClearError(), true) : KOVA_RECORD(errno))

#endif

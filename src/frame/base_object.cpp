#include <kova/base_object.h>

#include <cerrno>

int KovaGetSystemErrNo() { return errno; }

KovaBaseObject::KovaBaseObject() : m_ErrorCode(KOVA_ERR_NONE), m_ErrorLine(0), m_ErrorFunction(nullptr) {}

KovaBaseObject::KovaBaseObject(const KovaBaseObject& other)
    : m_ErrorCode(other.GetError()),
      m_ErrorLine(other.GetErrorLine()),
      m_ErrorFunction(other.GetErrorFunction()) {}

KovaBaseObject& KovaBaseObject::operator=(const KovaBaseObject& other) {
    _SetError_(other.GetErrorFunction(), other.GetErrorLine(), other.GetError());
    return *this;
}

KovaBaseObject::~KovaBaseObject() = default;

int KovaBaseObject::GetSystemErrNo() const { return errno; }

void KovaBaseObject::_SetError_(const char* function, int line, ErrorT code) {
    m_ErrorLine.store(line, std::memory_order_relaxed);
    m_ErrorCode.store(code, std::memory_order_relaxed);
    m_ErrorFunction.store(function, std::memory_order_relaxed);
}

void KovaBaseObject::_SetError_(const char* function, int line, int code) {
    _SetError_(function, line, static_cast<ErrorT>(code));
}

// Deliberate: no trace record here; the caller writes the one that knows the values.
void KovaBaseObject::_SetError_Trace_(const char* function, int line, ErrorT code) {
    _SetError_(function, line, code);
}

void KovaBaseObject::_SetError_Trace_(const char* function, int line, int code) {
    _SetError_Trace_(function, line, static_cast<ErrorT>(code));
}

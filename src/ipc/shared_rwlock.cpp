#include "frame/fail.h"
#include "frame/trace.h"

#include <kova/shared_rwlock.h>

#include <iterator>

namespace {

constexpr unsigned kReaders = 0;
constexpr unsigned kGate = 1;

}  // namespace

const int KovaSharedReadWriteLock::m_InitVals[] = {0, 1};

// Deliberate: every operation ends by recording the semaphore's code of this moment, whatever came of it.

KovaSharedReadWriteLock::KovaSharedReadWriteLock(const char* name)
    : m_Semaphore(name, m_InitVals, static_cast<int>(std::size(m_InitVals))), m_Trace(true) {
    m_Semaphore.SetTrace(false);
    KOVA_RECORD(m_Semaphore.GetError());
}

KovaSharedReadWriteLock::~KovaSharedReadWriteLock() = default;

bool KovaSharedReadWriteLock::BeginRead() {
    if (Traces()) KOVA_TRACE("begin read set=%d", m_Semaphore.GetHandle());
    // Deliberate: each step is done whatever came of the one before. The gate is opened by setting it, so
    // that it never counts above 1.
    const bool gate_taken = m_Semaphore.Wait(-1, kGate);
    const bool counted = m_Semaphore.Post(kReaders);
    const bool gate_opened = m_Semaphore.SetVal(1, kGate);
    KOVA_RECORD(m_Semaphore.GetError());
    if (Traces()) KOVA_TRACE("began read set=%d", m_Semaphore.GetHandle());
    return gate_taken && counted && gate_opened;
}

bool KovaSharedReadWriteLock::EndRead() {
    if (Traces()) KOVA_TRACE("end read set=%d", m_Semaphore.GetHandle());
    const bool ended = m_Semaphore.Wait(-1, kReaders);
    KOVA_RECORD(m_Semaphore.GetError());
    if (Traces()) KOVA_TRACE("ended read set=%d", m_Semaphore.GetHandle());
    return ended;
}

bool KovaSharedReadWriteLock::BeginWrite() {
    if (Traces()) KOVA_TRACE("begin write set=%d", m_Semaphore.GetHandle());
    const bool began = m_Semaphore.Wait(-1, kGate) && m_Semaphore.Wait(0, kReaders);
    KOVA_RECORD(m_Semaphore.GetError());
    if (Traces()) KOVA_TRACE("began write set=%d", m_Semaphore.GetHandle());
    return began;
}

bool KovaSharedReadWriteLock::TryWrite() {
    if (Traces()) KOVA_TRACE("try write set=%d", m_Semaphore.GetHandle());
    // Deliberate: only the gate is tried; the readers' end is awaited.
    const bool began = m_Semaphore.TryWait(-1, kGate) && m_Semaphore.Wait(0, kReaders);
    KOVA_RECORD(m_Semaphore.GetError());
    if (Traces()) KOVA_TRACE("tried write set=%d", m_Semaphore.GetHandle());
    return began;
}

bool KovaSharedReadWriteLock::EndWrite() {
    if (Traces()) KOVA_TRACE("end write set=%d", m_Semaphore.GetHandle());
    const bool ended = m_Semaphore.SetVal(1, kGate);
    KOVA_RECORD(m_Semaphore.GetError());
    if (Traces()) KOVA_TRACE("ended write set=%d", m_Semaphore.GetHandle());
    return ended;
}

bool KovaSharedReadWriteLock::SetPersistent() { return m_Semaphore.SetPersistent(); }

int KovaSharedReadWriteLock::GetRefCounter() { return m_Semaphore.GetRefCounter(); }

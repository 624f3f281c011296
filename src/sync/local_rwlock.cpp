#include "frame/fail.h"
#include "frame/trace.h"

#include <kova/local_rwlock.h>

namespace {

int CountOf(KovaLocalSemaphore& semaphore) {
    int count = 0;
    semaphore.Query(count);
    return count;
}

}  // namespace

KovaLocalReadWriteLock::KovaLocalReadWriteLock() : m_Trace(true) {
    m_Readers.SetTrace(false);
    m_Drained.SetTrace(false);
    m_Writer.SetTrace(false);
}

KovaLocalReadWriteLock::~KovaLocalReadWriteLock() = default;

// Each operation ends by recording the code of the part it worked on and its own place, also when it
// succeeded. The code of a success is 0: the part's record is shared, and may hold another thread's refusal
// by now.

bool KovaLocalReadWriteLock::BeginRead() {
    const bool began = m_Writer.Lock() && m_Readers.Post() && m_Writer.Unlock();
    if (!began) return KOVA_FAIL(m_Readers.GetError(), "begin read lock=%p", kova::AddressOf(this));
    KOVA_RECORD(KOVA_ERR_NONE);
    return true;
}

bool KovaLocalReadWriteLock::EndRead() {
    const bool ended = m_Readers.Wait();
    if (CountOf(m_Drained) == 0) m_Drained.Post();
    if (!ended) return KOVA_FAIL(m_Readers.GetError(), "end read lock=%p", kova::AddressOf(this));
    KOVA_RECORD(KOVA_ERR_NONE);
    return true;
}

bool KovaLocalReadWriteLock::BeginWrite() {
    const bool locked = m_Writer.Lock();
    // Posts may have gathered while nobody waited: only the count of readers tells.
    while (CountOf(m_Readers) > 0 && locked) m_Drained.Wait();
    if (!locked) return KOVA_FAIL(m_Writer.GetError(), "begin write lock=%p", kova::AddressOf(this));
    KOVA_RECORD(KOVA_ERR_NONE);
    return true;
}

bool KovaLocalReadWriteLock::TryWrite() {
    const bool locked = m_Writer.Trylock();
    // Deliberate: one unit of the readers is taken; their end is not awaited.
    if (locked) m_Readers.Wait();
    if (!locked) return KOVA_FAIL(m_Writer.GetError(), "try write lock=%p", kova::AddressOf(this));
    KOVA_RECORD(KOVA_ERR_NONE);
    return true;
}

bool KovaLocalReadWriteLock::EndWrite() {
    const bool ended = m_Writer.Unlock();
    if (!ended) return KOVA_FAIL(m_Writer.GetError(), "end write lock=%p", kova::AddressOf(this));
    KOVA_RECORD(KOVA_ERR_NONE);
    return true;
}

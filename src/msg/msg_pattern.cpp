#include <kova/msg_pattern.h>

#include <arpa/inet.h>

namespace {

uint32_t ToHost(int32_t net) { return ntohl(static_cast<uint32_t>(net)); }

}  // namespace

KovaMsgPattern::KovaMsgPattern() : m_Owned(nullptr), m_Header{}, m_Addr(0U, 0) {}

KovaMsgPattern::KovaMsgPattern(int type) : KovaMsgPattern() { SetType(type); }

KovaMsgPattern::~KovaMsgPattern() { delete m_Owned; }

// Deliberate: a const pattern hands out its header for writing.
sKovaMsgHeader* KovaMsgPattern::GetHeader() const { return &m_Header; }

void KovaMsgPattern::SetHeader(const sKovaMsgHeader& header) { m_Header = header; }

int KovaMsgPattern::GetType() const { return static_cast<int>(ToHost(m_Header.type)); }

unsigned int KovaMsgPattern::GetSendTid() const { return ToHost(m_Header.sendTid); }

unsigned int KovaMsgPattern::GetSendTime() const { return ToHost(m_Header.sendTime); }

void KovaMsgPattern::SetType(int type) {
    m_Header.type = static_cast<int32_t>(htonl(static_cast<uint32_t>(type)));
}

KovaInetAddr& KovaMsgPattern::GetAddr() { return m_Addr; }

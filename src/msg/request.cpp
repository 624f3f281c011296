#include <kova/flat_msg.h>
#include <kova/request.h>
#include <kova/tcp_socket.h>

KovaRequest::KovaRequest() : KovaRequest(nullptr, nullptr) {}

KovaRequest::KovaRequest(KovaTCPSocket* socket, KovaFlatMsg* msg) : m_Msg(msg), m_Socket(socket) {}

KovaRequest::KovaRequest(KovaTCPSocket& socket, KovaFlatMsg& msg) : KovaRequest(&socket, &msg) {}

KovaRequest::KovaRequest(KovaTCPSocket* socket) : KovaRequest(socket, nullptr) {}

KovaRequest::KovaRequest(KovaTCPSocket& socket) : KovaRequest(&socket, nullptr) {}

KovaRequest::KovaRequest(KovaFlatMsg* msg) : KovaRequest(nullptr, msg) {}

KovaRequest::KovaRequest(KovaFlatMsg& msg) : KovaRequest(nullptr, &msg) {}

KovaRequest::~KovaRequest() {
    delete m_Msg;
    delete m_Socket;
}

KovaFlatMsg* KovaRequest::GetMsg() { return m_Msg; }

KovaTCPSocket* KovaRequest::GetSocket() { return m_Socket; }

bool KovaRequest::IsSocket() { return m_Socket != nullptr; }

bool KovaRequest::KeepAlive() { return IsSocket() && m_Socket->KeepAlive(); }

#include "report.h"

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>
#include <time.h>

#include <atomic>
#include <cstdio>
#include <system_error>

namespace {

const char* LibraryCodeName(int code) {
    switch (code) {
        case KovaBaseObject::KOVA_ERR_NONE:
            return "KOVA_ERR_NONE";
        case KovaBaseObject::KOVA_ERR_ALREADY_OPEN:
            return "KOVA_ERR_ALREADY_OPEN";
        case KovaBaseObject::KOVA_ERR_BAD_HANDSHAKE:
            return "KOVA_ERR_BAD_HANDSHAKE";
        case KovaBaseObject::KOVA_ERR_SIZE_MISMATCH:
            return "KOVA_ERR_SIZE_MISMATCH";
        case KovaBaseObject::KOVA_ERR_BAD_HEADER:
            return "KOVA_ERR_BAD_HEADER";
        case KovaBaseObject::KOVA_ERR_WRONG_PROTOCOL:
            return "KOVA_ERR_WRONG_PROTOCOL";
        case KovaBaseObject::KOVA_ERR_BAD_VERSION:
            return "KOVA_ERR_BAD_VERSION";
        case KovaBaseObject::KOVA_ERR_INVALID_PARAMETER:
            return "KOVA_ERR_INVALID_PARAMETER";
        case KovaBaseObject::KOVA_ERR_FOREIGN_REPLY:
            return "KOVA_ERR_FOREIGN_REPLY";
        case KovaBaseObject::KOVA_ERR_RECV_TIMEOUT:
            return "KOVA_ERR_RECV_TIMEOUT";
        case KovaBaseObject::KOVA_ERR_NO_BUFFER:
            return "KOVA_ERR_NO_BUFFER";
        case KovaBaseObject::KOVA_ERR_INVALID_INTERFACE:
            return "KOVA_ERR_INVALID_INTERFACE";
        case KovaBaseObject::KOVA_ERR_OVERRUN:
            return "KOVA_ERR_OVERRUN";
        default:
            return nullptr;
    }
}

/// Of the first write to standard output that failed; 0: none did. Servers print on several threads.
std::atomic<int> g_OutputError{0};

void KeepOutputError() {
    int none = 0;
    g_OutputError.compare_exchange_strong(none, errno);
}

}  // namespace

void Complain(const std::string& message) {
    const std::string line = "kova: " + message + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

void Print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0)
        KeepOutputError();
}

int CheckOutput(int code) {
    if (std::fflush(stdout) != 0) KeepOutputError();
    if (code != kExitOk || std::ferror(stdout) == 0) return code;
    const int error = g_OutputError;
    Complain("cannot write to standard output" + (error == 0 ? "" : ": " + SystemText(error)));
    return kExitFailure;
}

std::string SystemText(int error) { return std::generic_category().message(error); }

std::string CodeText(int code) {
    std::string number = std::to_string(code);
    if (const char* name = LibraryCodeName(code)) return number + " " + name;
    if (const char* name = strerrorname_np(code)) return number + " " + name + " (" + SystemText(code) + ")";
    return number;
}

std::string FailureText(int code) {
    return code == 0 ? "it had no effect, though the system told no error" : "error " + CodeText(code);
}

std::string RecordText(const KovaBaseObject& object) {
    std::string text = "error " + CodeText(object.GetError());
    if (const char* function = object.GetErrorFunction()) text += std::string(" in \"") + function + "\"";
    return text + " line " + std::to_string(object.GetErrorLine());
}

std::string IpText(const KovaInetAddr& address) { return address.GetAsciiIp(); }

std::string AddressText(const KovaInetAddr& address) {
    const std::string ip = IpText(address);
    const std::string port = std::to_string(ntohs(address.GetPort()));
    return (ip.find(':') == ip.npos ? ip : "[" + ip + "]") + ":" + port;
}

std::string TimeText(int seconds) {
    const time_t time = seconds;
    tm utc{};
    char text[64];
    gmtime_r(&time, &utc);
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::string HeaderText(const KovaFlatMsg& message) {
    return "type " + std::to_string(message.GetType()) + ", " + std::to_string(message.GetSize()) +
           (message.GetSize() == 1 ? " byte" : " bytes") + ", thread " +
           std::to_string(message.GetSendTid()) + ", sent " + TimeText(message.GetSendTime());
}

std::string_view BodyOf(KovaFlatMsg& message) {
    const void* const body = message.GetBuffer();
    return body == nullptr ? std::string_view("")
                           : std::string_view(static_cast<const char*>(body), message.GetSize());
}

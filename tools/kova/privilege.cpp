#include "privilege.h"

#include <errno.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <system_error>

namespace {

/// The thread's effective capabilities below 32, which those of the network are among.
class Capabilities {
  public:
    Capabilities() {
        if (::syscall(SYS_capget, &m_Header, m_Data) < 0) Fail("capget");
    }

    uint32_t Effective() const { return m_Data[0].effective; }

    bool Set(uint32_t effective) {
        m_Data[0].effective = effective;
        return ::syscall(SYS_capset, &m_Header, m_Data) == 0;
    }

    [[noreturn]] static void Fail(const char* what) {
        throw std::system_error(errno, std::generic_category(), what);
    }

  private:
    __user_cap_header_struct m_Header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct m_Data[_LINUX_CAPABILITY_U32S_3] = {};
};

bool HasCapability(const std::string& name) {
    const unsigned number = name == "cap_net_admin" ? CAP_NET_ADMIN : CAP_NET_RAW;
    return (Capabilities().Effective() & (1U << number)) != 0;
}

}  // namespace

std::string PrivilegeHint(int error, const std::string& capability) {
    if (error != EPERM || HasCapability(capability)) return {};
    std::string name = capability;
    for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    std::error_code ignored;
    const std::string file = std::filesystem::read_symlink("/proc/self/exe", ignored).string();
    // All that the commands need: what setcap is told replaces what the file had.
    return "; the privilege " + name +
           " is missing: run it as root, or once: setcap cap_net_raw,cap_net_admin+ep " +
           (file.empty() ? "kova" : file);
}

NetAdminOff::NetAdminOff() {
    Capabilities capabilities;
    m_Effective = capabilities.Effective();
    if (!capabilities.Set(m_Effective & ~(1U << CAP_NET_ADMIN))) Capabilities::Fail("capset");
}

NetAdminOff::~NetAdminOff() {
    // Where it fails, what comes next fails for want of the privilege, and is told so.
    Capabilities().Set(m_Effective);
}

/// Privileges that the network commands need or had better not have.
#ifndef KOVA_TOOLS_PRIVILEGE_H
#define KOVA_TOOLS_PRIVILEGE_H

#include <cstdint>
#include <string>

/// What to do about EPERM, to be appended to an error message: that `capability` ("cap_net_raw" or
/// "cap_net_admin") is missing and how to get it. Empty for other codes, and where the thread has it.
std::string PrivilegeHint(int error, const std::string& capability);

/// Keeps the thread from changing network interfaces as long as it lives.
class NetAdminOff {
  public:
    /// Throws std::system_error.
    NetAdminOff();
    NetAdminOff(const NetAdminOff&) = delete;
    NetAdminOff& operator=(const NetAdminOff&) = delete;
    ~NetAdminOff();

  private:
    uint32_t m_Effective;
};

#endif

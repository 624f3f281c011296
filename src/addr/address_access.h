/// Ways into the address types that cost no call, for what runs once for each frame.
#ifndef KOVA_ADDR_ADDRESS_ACCESS_H
#define KOVA_ADDR_ADDRESS_ACCESS_H

#include <kova/inet_addr.h>
#include <kova/mac_addr.h>

#include <cstdint>
#include <cstring>

namespace kova {

struct AddressAccess {
    /// As `SetIp` and `SetPort`.
    static void StoreIp(KovaInetAddr& address, unsigned int ip) {
        constexpr unsigned char kMapped[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
        std::memcpy(address.m_Ip.s6_addr, kMapped, sizeof kMapped);
        std::memcpy(address.m_Ip.s6_addr + sizeof kMapped, &ip, sizeof ip);
        address.m_Text[0] = '\0';
    }
    static void StorePort(KovaInetAddr& address, unsigned short port) {
        address.m_Port = port;
        address.m_PortText[0] = '\0';
    }

    /// As the assignment of six bytes, which may be the object's own.
    static void StoreBytes(KovaMacAddr& address, const unsigned char* bytes) {
        // In two registers, since they may overlap.
        uint32_t first;
        uint16_t last;
        static_assert(sizeof first + sizeof last == KovaMacAddr::kSize);
        std::memcpy(&first, bytes, sizeof first);
        std::memcpy(&last, bytes + sizeof first, sizeof last);
        std::memcpy(address.m_Bytes, &first, sizeof first);
        std::memcpy(address.m_Bytes + sizeof first, &last, sizeof last);
        address.m_Valid = 1;
        address.m_Text[0] = '\0';
    }
};

}  // namespace kova

#endif

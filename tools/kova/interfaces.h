/// `kova interfaces`: lists the IPv4 interfaces as the library knows them, and changes them.
#ifndef KOVA_TOOLS_INTERFACES_H
#define KOVA_TOOLS_INTERFACES_H

#include <string>

/// Throws UsageError if there is no such interface.
unsigned InterfaceIndex(const std::string& name);

struct InterfaceListOptions {
    bool json = false;
};

struct InterfaceSetOptions {
    std::string name;
    std::string address;  ///< empty: as it is, as with the others
    std::string netmask;
    std::string mac;
};

/// All return the exit code, and throw UsageError for interfaces and addresses that there are not.
int InterfaceList(const InterfaceListOptions& options);
int InterfaceUp(const std::string& name);
int InterfaceDown(const std::string& name);
int InterfaceSet(const InterfaceSetOptions& options);

#endif

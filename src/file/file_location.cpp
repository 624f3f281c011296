#include <kova/file_location.h>

#include <fnmatch.h>

#include <array>
#include <cstdlib>
#include <string_view>

namespace {

struct Location {
    char pattern[32];
    char directory[4096];
};
static_assert(sizeof(Location) == 4128);

/// The order is the priority.
constexpr std::array<Location, 8> kLocations{{
    {"*.kovamtx", "/tmp/kova/"},
    {"*.kovasem", "/tmp/kova/"},
    {"*.kovashm", "/tmp/kova/"},
    {"*.cache", "/tmp/kova/cache/"},
    {"Marbelo.jar", "/tmp/"},
    {"*.vqf", "/tmp/"},
    {"*.*", "/tmp/voxa/hubl/"},
    {"", "/tmp/"},
}};

void CopyDirectory(const Location& location, char* directory) {
    if (directory == nullptr) return;
    const std::string_view text(location.directory);
    directory += text.copy(directory, text.size());
    if (!text.ends_with('/')) *directory++ = '/';
    *directory = '\0';
}

int Tell(bool found_by_default, int* is_default) {
    if (is_default != nullptr) *is_default = found_by_default ? 1 : 0;
    return found_by_default ? 1 : 0;
}

}  // namespace

int zent_query_file_location(const char* name, char* directory, int* is_default) {
    for (const Location& location : kLocations) {
        if (::fnmatch(location.pattern, name != nullptr ? name : "", 0) != 0) continue;
        CopyDirectory(location, directory);
        return Tell(false, is_default);
    }
    CopyDirectory(kLocations.back(), directory);
    return Tell(true, is_default);
}

// Deliberate: the size is not used.
bool KovaQueryFileLocation(const char* name, char* directory, unsigned int) {
    int is_default = 0;
    zent_query_file_location(name, directory, &is_default);
    return true;
}

bool KovaIsEnabled(const std::string& name, bool default_value) {
    const char* const value = std::getenv(name.c_str());
    const std::string_view text = value != nullptr ? value : "";
    if (text == "true" || text == "1") return true;
    if (text == "false" || text == "0") return false;
    return default_value;
}

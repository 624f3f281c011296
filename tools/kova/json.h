/// Output for programs.
#ifndef KOVA_TOOLS_JSON_H
#define KOVA_TOOLS_JSON_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// A string with its quotes. A byte that is no part of printable UTF-8 becomes the character of that number.
std::string JsonString(std::string_view text);

/// Puts an object together, member by member.
class JsonObject {
  public:
    JsonObject& AddText(std::string_view key, std::string_view value) {
        return AddRaw(key, JsonString(value));
    }
    JsonObject& AddNumber(std::string_view key, uint64_t value) { return AddRaw(key, std::to_string(value)); }
    JsonObject& AddNumbers(std::string_view key, const std::vector<int>& values);
    JsonObject& AddFlag(std::string_view key, bool value) { return AddRaw(key, value ? "true" : "false"); }
    JsonObject& AddNull(std::string_view key) { return AddRaw(key, "null"); }
    /// A value that is JSON already.
    JsonObject& AddRaw(std::string_view key, std::string_view value);

    std::string Text() const { return "{" + m_Members + "}"; }

  private:
    std::string m_Members;
};

#endif

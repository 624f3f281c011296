#include "json.h"

#include "hex_dump.h"

#include <cstdio>

std::string JsonString(std::string_view text) {
    std::string json = "\"";
    for (size_t position = 0; position < text.size();) {
        const auto byte = static_cast<unsigned char>(text[position]);
        const size_t length = byte < 0x20 ? 0 : CharacterLength(text, position);
        if (length == 0) {
            char number[8];
            std::snprintf(number, sizeof number, "\\u%04x", byte);
            json += number;
        }
        if (byte == '"' || byte == '\\') json += '\\';
        json += text.substr(position, length);
        position += length == 0 ? 1 : length;
    }
    return json + "\"";
}

JsonObject& JsonObject::AddNumbers(std::string_view key, const std::vector<int>& values) {
    std::string list;
    for (const int value : values) {
        if (!list.empty()) list += ',';
        list += std::to_string(value);
    }
    return AddRaw(key, "[" + list + "]");
}

JsonObject& JsonObject::AddRaw(std::string_view key, std::string_view value) {
    if (!m_Members.empty()) m_Members += ',';
    m_Members.append(JsonString(key)).append(":").append(value);
    return *this;
}

#include "hex_dump.h"

#include <cctype>
#include <cstdint>
#include <cstdio>

namespace {

constexpr size_t kBytesPerLine = 16;
constexpr const char* kIndent = "  ";

uint8_t ByteAt(std::string_view bytes, size_t index) { return static_cast<uint8_t>(bytes[index]); }

bool IsContinuation(uint8_t byte) { return (byte & 0xC0) == 0x80; }

/// Bytes of the UTF-8 character that begins with `lead`, 0 if none does.
size_t SequenceLength(uint8_t lead) {
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) return 2;
    if (lead >= 0xE0 && lead <= 0xEF) return 3;
    if (lead >= 0xF0 && lead <= 0xF4) return 4;
    return 0;
}

/// Overlong forms, surrogates and numbers above U+10FFFF are no characters; the C1 controls steer terminals.
bool IsPrintable(uint32_t character, size_t length) {
    constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (character < 0x20) return character == '\t' || character == '\n' || character == '\r';
    if (character >= 0x7F && character < 0xA0) return false;
    if (character >= 0xD800 && character <= 0xDFFF) return false;
    return character >= kSmallest[length] && character <= 0x10FFFF;
}

std::string HexLine(std::string_view bytes, size_t offset) {
    char number[24];
    std::snprintf(number, sizeof number, "%08zx ", offset);
    std::string line = number;
    std::string characters;
    for (size_t i = 0; i < kBytesPerLine; ++i) {
        if (i == kBytesPerLine / 2) line += ' ';
        if (offset + i >= bytes.size()) {
            line += "   ";
            continue;
        }
        const uint8_t byte = ByteAt(bytes, offset + i);
        std::snprintf(number, sizeof number, " %02x", byte);
        line += number;
        characters += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
    }
    return line + "  |" + characters + "|\n";
}

std::string Indented(std::string_view text) {
    std::string indented;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        indented.append(kIndent).append(line).append("\n");
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
    }
    return indented;
}

/// The longest beginning of at most `limit` bytes that cuts no character.
std::string_view CutText(std::string_view text, size_t limit) {
    if (text.size() <= limit) return text;
    while (limit > 0 && IsContinuation(ByteAt(text, limit))) --limit;
    return text.substr(0, limit);
}

}  // namespace

size_t CharacterLength(std::string_view bytes, size_t position) {
    const uint8_t lead = ByteAt(bytes, position);
    const size_t length = SequenceLength(lead);
    if (length == 0 || length > bytes.size() - position) return 0;

    uint32_t character = length == 1 ? lead : lead & (0xFFu >> (length + 1));
    for (size_t i = 1; i < length; ++i) {
        const uint8_t byte = ByteAt(bytes, position + i);
        if (!IsContinuation(byte)) return 0;
        character = character << 6 | (byte & 0x3Fu);
    }
    return IsPrintable(character, length) ? length : 0;
}

bool IsText(std::string_view bytes) {
    for (size_t position = 0; position < bytes.size();) {
        const size_t length = CharacterLength(bytes, position);
        if (length == 0) return false;
        position += length;
    }
    return true;
}

std::string HexDump(std::string_view bytes) {
    std::string dump;
    for (size_t offset = 0; offset < bytes.size(); offset += kBytesPerLine) dump += HexLine(bytes, offset);
    return dump;
}

std::string BodyText(std::string_view body, size_t limit, bool always_hex) {
    if (limit == 0) limit = body.size();
    const bool is_text = !always_hex && IsText(body);
    const std::string_view shown = is_text ? CutText(body, limit) : body.substr(0, limit);
    std::string text = Indented(is_text ? std::string(shown) : HexDump(shown));
    if (shown.size() < body.size()) {
        text.append(kIndent)
            .append("... ")
            .append(std::to_string(body.size() - shown.size()))
            .append(" more bytes\n");
    }
    return text;
}

std::string NameText(std::string_view name) {
    std::string text;
    for (size_t position = 0; position < name.size();) {
        const size_t length = ByteAt(name, position) < 0x20 ? 0 : CharacterLength(name, position);
        if (length == 0) {
            char number[8];
            std::snprintf(number, sizeof number, "\\x%02x", ByteAt(name, position));
            text += number;
        }
        text += name.substr(position, length);
        position += length == 0 ? 1 : length;
    }
    return text;
}

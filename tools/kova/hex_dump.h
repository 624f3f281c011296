/// Message bodies for people: as text where they are text, else as a hex dump.
#ifndef KOVA_TOOLS_HEX_DUMP_H
#define KOVA_TOOLS_HEX_DUMP_H

#include <cstddef>
#include <string>
#include <string_view>

/// Whether all of `bytes` is printable UTF-8, tabs and line ends included. Nothing that could steer a
/// terminal is.
bool IsText(std::string_view bytes);

/// Bytes of the printable character at `position`, 0 if there is none.
size_t CharacterLength(std::string_view bytes, size_t position);

/// Lines of sixteen bytes: offset, hex, and the printable ones as characters.
std::string HexDump(std::string_view bytes);

/// The first `limit` bytes (all if 0) as indented text or hex dump, and a line that tells how many are left
/// out. Ends with a line end unless it is empty.
std::string BodyText(std::string_view body, size_t limit, bool always_hex = false);

/// A name within a line: line ends, tabs and what is not printable as \xNN.
std::string NameText(std::string_view name);

#endif

/// Message bodies for people: as text where they are text, else as a hex dump.
#ifndef KOVA_TOOLS_HEX_DUMP_H
#define KOVA_TOOLS_HEX_DUMP_H

#include <cstddef>
#include <string>
#include <string_view>

/// Whether all of `bytes` is printable UTF-8, tabs and line ends included. Nothing that could steer a
/// terminal is.
bool IsText(std::string_view bytes);

/// Lines of sixteen bytes: offset, hex, and the printable ones as characters.
std::string HexDump(std::string_view bytes);

/// The first `limit` bytes (all if 0) as indented text or hex dump, and a line that tells how many are left
/// out. Ends with a line end unless it is empty.
std::string BodyText(std::string_view body, size_t limit);

#endif

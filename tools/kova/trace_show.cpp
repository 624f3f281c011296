#include "trace_show.h"

#include "reader.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

namespace {

using trace_ovra::Record;
using trace_ovra::TraceBuffer;

struct Place {
    std::string file;
    uint32_t line;
};

struct TracePoint {
    uint32_t count;
    std::vector<Place> places;
    std::string text;
};

using Catalogue = std::map<uint32_t, TracePoint>;

// --- Catalogue ---

std::optional<uint32_t> ParseNumber(std::string_view text, int base) {
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return number;
}

/// What stands before the first `mark`; `text` keeps what comes after it.
std::string_view Cut(std::string_view& text, char mark) {
    const size_t length = std::min(text.find(mark), text.size());
    const std::string_view head = text.substr(0, length);
    text.remove_prefix(std::min(length + 1, text.size()));
    return head;
}

std::vector<Place> ParsePlaces(std::string_view text) {
    std::vector<Place> places;
    while (!text.empty()) {
        const std::string_view place = Cut(text, ',');
        const size_t colon = place.rfind(':');
        if (colon == place.npos) continue;
        const auto line = ParseNumber(place.substr(colon + 1), 10);
        if (line) places.push_back({std::string(place.substr(0, colon)), *line});
    }
    return places;
}

/// Adds one line `hash TAB count TAB file:line,… TAB text`; false if it is none.
bool AddLine(std::string_view line, Catalogue& catalogue) {
    if (line.empty() || line.front() == '#') return true;
    const auto hash = ParseNumber(Cut(line, '\t'), 16);
    const auto count = ParseNumber(Cut(line, '\t'), 10);
    const std::string_view places = Cut(line, '\t');
    if (!hash || !count || places.empty()) return false;
    catalogue[*hash] = {*count, ParsePlaces(places), std::string(line)};
    return true;
}

std::string DefaultCatalogue() {
    if (const char* path = getenv("KOVA_TRACE_CATALOGUE"); path != nullptr && *path != '\0') return path;
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    return (self.parent_path().parent_path() / "share/kova/trace-catalogue.tsv").string();
}

/// False after a message if the catalogue was asked for by name and cannot be read.
bool LoadCatalogue(const TraceShowOptions& options, Catalogue& catalogue) {
    if (options.raw) return true;
    const bool optional = options.catalogue.empty() && getenv("KOVA_TRACE_CATALOGUE") == nullptr;
    const std::string path = options.catalogue.empty() ? DefaultCatalogue() : options.catalogue;
    std::ifstream file(path);
    if (!file) {
        fprintf(stderr, "kova trace show: catalogue %s: %s%s\n", path.c_str(), strerror(errno),
                optional ? "; records are shown as numbers" : "");
        return optional;
    }
    size_t number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        if (AddLine(line, catalogue)) continue;
        fprintf(stderr, "kova trace show: catalogue %s: line %zu is malformed\n", path.c_str(), number);
        return false;
    }
    return true;
}

// --- Text of a record ---

/// One printf conversion of a text. Length modifiers are read over: every value has 32 bits.
struct Conversion {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    uint32_t width = 0;
    std::optional<uint32_t> precision;
    char letter = '\0';
};

uint32_t TakeNumber(std::string_view& text) {
    constexpr uint32_t limit = 200;
    uint32_t number = 0;
    for (; !text.empty() && text.front() >= '0' && text.front() <= '9'; text.remove_prefix(1)) {
        number = std::min(limit, number * 10 + static_cast<uint32_t>(text.front() - '0'));
    }
    return number;
}

bool TakeFlag(std::string_view& text, Conversion& conversion) {
    if (text.empty()) return false;
    switch (text.front()) {
        case '-':
            conversion.left = true;
            break;
        case '+':
            conversion.plus = true;
            break;
        case ' ':
            conversion.space = true;
            break;
        case '#':
            conversion.alternate = true;
            break;
        case '0':
            conversion.zero = true;
            break;
        default:
            return false;
    }
    text.remove_prefix(1);
    return true;
}

/// Reads what follows the percent sign; none for a conversion that is not supported.
std::optional<Conversion> TakeConversion(std::string_view& text) {
    Conversion conversion;
    while (TakeFlag(text, conversion)) {
    }
    conversion.width = TakeNumber(text);
    if (!text.empty() && text.front() == '.') {
        text.remove_prefix(1);
        conversion.precision = TakeNumber(text);
    }
    text.remove_prefix(std::min(text.find_first_not_of("hlzjt"), text.size()));
    if (text.empty() || std::string_view("diuxXocps").find(text.front()) == std::string_view::npos) {
        return std::nullopt;
    }
    conversion.letter = text.front();
    text.remove_prefix(1);
    return conversion;
}

std::string Digits(uint32_t value, int base) {
    char digits[16];
    const auto [end, error] = std::to_chars(std::begin(digits), std::end(digits), value, base);
    return {digits, end};
}

std::string Pad(const Conversion& c, const std::string& prefix, const std::string& body) {
    const size_t length = prefix.size() + body.size();
    const std::string fill(c.width > length ? c.width - length : 0, ' ');
    if (c.left) return prefix + body + fill;
    const bool zeros = c.zero && !c.precision && c.letter != 'c';
    return zeros ? prefix + std::string(fill.size(), '0') + body : fill + prefix + body;
}

std::string SignOf(const Conversion& c, bool negative) {
    if (negative) return "-";
    if (c.plus) return "+";
    return c.space ? " " : "";
}

std::string FormatNumber(const Conversion& c, uint32_t value) {
    const bool is_signed = c.letter == 'd' || c.letter == 'i';
    const bool negative = is_signed && static_cast<int32_t>(value) < 0;
    const bool hex = c.letter == 'x' || c.letter == 'X';
    const int base = hex ? 16 : c.letter == 'o' ? 8 : 10;
    std::string body = c.precision == 0u && value == 0 ? "" : Digits(negative ? 0u - value : value, base);
    if (c.precision && *c.precision > body.size()) body.insert(0, *c.precision - body.size(), '0');
    if (c.alternate && base == 8 && !body.starts_with('0')) body.insert(0, 1, '0');
    std::string prefix = is_signed ? SignOf(c, negative) : "";
    if (c.alternate && hex && value != 0) prefix = "0x";
    if (c.letter == 'X') {
        for (std::string* part : {&body, &prefix}) {
            std::transform(part->begin(), part->end(), part->begin(),
                           [](char x) { return x >= 'a' && x <= 'z' ? static_cast<char>(x - 32) : x; });
        }
    }
    return Pad(c, prefix, body);
}

std::string FormatCharacter(const Conversion& c, uint32_t value) {
    const char character = static_cast<char>(value);
    if (character >= ' ' && character <= '~') return Pad(c, "", std::string(1, character));
    const std::string digits = Digits(value & 0xFF, 16);
    return Pad(c, "", "\\x" + std::string(2 - digits.size(), '0') + digits);
}

/// The text behind a %s stayed in the process: its address is all there is.
std::string FormatValue(const Conversion& c, uint32_t value) {
    if (c.letter == 'c') return FormatCharacter(c, value);
    if (c.letter == 's' || c.letter == 'p') {
        Conversion padding = c;
        padding.precision.reset();
        padding.zero = false;
        return Pad(padding, "", "0x" + Digits(value, 16));
    }
    return FormatNumber(c, value);
}

/// The text with the record's values; none if it asks for another number of values or for something unknown.
std::optional<std::string> FillIn(std::string_view text, const Record& record) {
    std::string filled;
    uint32_t used = 0;
    while (!text.empty()) {
        const size_t percent = std::min(text.find('%'), text.size());
        filled += text.substr(0, percent);
        text.remove_prefix(percent);
        if (text.empty()) break;
        text.remove_prefix(1);
        if (text.starts_with('%')) {
            filled += '%';
            text.remove_prefix(1);
            continue;
        }
        const auto conversion = TakeConversion(text);
        if (!conversion || used >= record.Count() || used >= record.values.size()) return std::nullopt;
        filled += FormatValue(*conversion, record.values[used++]);
    }
    return used == record.Count() ? std::optional(filled) : std::nullopt;
}

/// Files where the point stands at the record's line; all its files if the catalogue is of another build.
std::string FilesOf(const TracePoint& point, uint32_t line) {
    const auto join = [&](bool any) {
        std::string files;
        for (const Place& place : point.places) {
            if (!any && (place.line & 0xFFFF) != line) continue;
            if (("|" + files + "|").find("|" + place.file + "|") != std::string::npos) continue;
            files += (files.empty() ? "" : "|") + place.file;
        }
        return files;
    };
    const std::string files = join(false);
    return files.empty() ? join(true) : files;
}

// --- Output ---

std::string TimeOf(const TraceBuffer& buffer, const Record& record) {
    const auto ns = buffer.clock.RealtimeNs(record.ticks);
    char text[64];
    if (!ns || *ns < 0) {
        const auto ticks = static_cast<int64_t>(record.ticks - buffer.records.front().ticks);
        snprintf(text, sizeof text, "%+" PRId64, ticks);
        return text;
    }
    const time_t seconds = static_cast<time_t>(*ns / 1'000'000'000);
    tm utc{};
    gmtime_r(&seconds, &utc);
    const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    snprintf(text + length, sizeof text - length, ".%06dZ", static_cast<int>(*ns % 1'000'000'000 / 1000));
    return text;
}

/// "hash=… line=… values=…": as many values as the control word says, all of them if it says nonsense.
std::string RawText(const Record& record) {
    char text[64];
    snprintf(text, sizeof text, "hash=%08" PRIx32 " line=%" PRIu32 " values=%" PRIu32, record.hash,
             record.Line(), record.Count());
    std::string line = text;
    const size_t count = std::min<size_t>(record.Count(), record.values.size());
    for (size_t i = 0; i < count; ++i) line += " 0x" + Digits(record.values[i], 16);
    return line;
}

std::string RecordText(const Record& record, const Catalogue& catalogue) {
    const auto entry = catalogue.find(record.hash);
    if (entry == catalogue.end() || entry->second.count != record.Count()) return RawText(record);
    const auto text = FillIn(entry->second.text, record);
    if (!text) return RawText(record);
    return FilesOf(entry->second, record.Line()) + ":" + std::to_string(record.Line()) + "  " + *text;
}

void PrintBuffer(const TraceBuffer& buffer, const Catalogue& catalogue) {
    printf("# buffer %s, process %" PRIu32 "%s: %zu records shown, %" PRIu32 " lost, %" PRIu32 " torn%s\n",
           buffer.name.c_str(), buffer.pid, buffer.foreign_order ? " (other byte order)" : "",
           buffer.records.size(), buffer.lost, buffer.torn, buffer.cut ? ", image is cut" : "");
    for (const Record& record : buffer.records) {
        printf("%s  %" PRIu32 "  %s\n", TimeOf(buffer, record).c_str(), record.thread,
               RecordText(record, catalogue).c_str());
    }
}

std::optional<pid_t> AsProcess(const std::string& source) {
    if (source.empty() || source.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    if (access(source.c_str(), F_OK) == 0) return std::nullopt;
    const auto number = ParseNumber(source, 10);
    return number && *number <= INT32_MAX ? std::optional(static_cast<pid_t>(*number)) : std::nullopt;
}

}  // namespace

int TraceShow(const TraceShowOptions& options) {
    const auto pid = AsProcess(options.source);
    const auto result = pid ? trace_ovra::ReadProcess(*pid, options.buffer)
                            : trace_ovra::ReadFile(options.source, options.buffer);
    if (!result.error.empty()) {
        fprintf(stderr, "kova trace show: %s\n", result.error.c_str());
        return 1;
    }
    Catalogue catalogue;
    if (!LoadCatalogue(options, catalogue)) return 1;
    for (const TraceBuffer& buffer : result.buffers) PrintBuffer(buffer, catalogue);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return 0;
    fprintf(stderr, "kova trace show: cannot write: %s\n", strerror(errno));
    return 1;
}

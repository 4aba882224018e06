// Text forms of decoded records for the daemon side's output lines.

#ifndef LOGFERRY_TOOLS_COLLECTOR_RENDER_HPP
#define LOGFERRY_TOOLS_COLLECTOR_RENDER_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "decoder.hpp"

namespace logferry_monitor {

/// "off", "fatal", "error", "warn", "info", "debug", "verbose"; "level<n>" above 6.
std::string level_name(std::uint8_t level);

/// A level given by name (as above) or number (0-6); false when it is neither.
bool parse_level(const std::string& text, std::uint8_t& level);

/// A start record's timestamp (0.1 ms units) as seconds with four decimals: "12.3456".
std::string render_timestamp(std::uint32_t units);

/// A text that came from another process, fit for one output line: bytes below 0x20, 0x7f
/// and the backslash itself become "\xNN" (two lowercase hexadecimal digits); the rest
/// stays as it is.
std::string escape(const std::string& text);

/// A text in double quotes; quote, backslash and control characters escaped.
std::string quote(const std::string& text);

/// Bytes as two-digit lowercase hexadecimal numbers separated by spaces.
std::string hex_bytes(const std::vector<std::uint8_t>& bytes);

/// One argument record (kinds 9 to 22) as it appears in a log line:
///   bool         true / false
///   int8..int64  decimal
///   uint*        by format: 0 and 1 decimal, 2 hex ("0x1f"), 3 octal ("017"), 4 binary
///                ("0b101"), 5 upper-case hex ("0x1F"), 6 the value's bytes ("[1f 00]");
///                any other format decimal
///   float        shortest text that reads back as the same value
///   text         quoted; "(text omitted)" when the record carried none
///   raw          "[de ad]": bytes by format (1 decimal, 3 octal, 4 binary, 5 upper-case
///                hex, otherwise hex); "[1400 bytes not carried]" when omitted
///   encoded      "encoded[01 02]"
std::string render_argument(const logferry_decoder::Record& record);

/// Columns of a log line: timestamp right-aligned to 11, application and context ID
/// left-aligned to 4, level left-aligned to 7, then the arguments separated by spaces.
std::string render_log_line(const std::string& timestamp, const std::string& app_id, const std::string& context_id,
                            const std::string& level, const std::vector<std::string>& arguments);

}  // namespace logferry_monitor

#endif  // LOGFERRY_TOOLS_COLLECTOR_RENDER_HPP

// Small text helpers shared by the kelvara-local server: escaping for XML and
// HTML output, UTF-8 clean-up, Base64 decoding for Basic authentication.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelvara {

// Escapes &, <, >, " and ' so the text can go into XML/HTML element content
// and into attribute values.
std::string escapeMarkup(std::string_view text);

// Replaces every byte that is not part of a well-formed UTF-8 sequence with
// '_' (overlong forms, surrogates and code points past U+10FFFF count as
// malformed), so the result is always valid UTF-8.
std::string sanitizeUtf8(std::string_view text);

// Standard Base64 (RFC 4648, with padding). Returns nothing for any input
// that is not exactly a well-formed encoding.
std::optional<std::string> decodeBase64(std::string_view text);

std::string_view trim(std::string_view text);
bool equalsIgnoreCase(std::string_view a, std::string_view b);
bool startsWithIgnoreCase(std::string_view text, std::string_view prefix);

// "1.5 MiB" style sizes for the web page.
std::string humanSize(std::int64_t bytes);

// Parses a byte count: a plain decimal number, optionally followed by one of
// the binary suffixes KiB, MiB, GiB, TiB (case-insensitive, optional space).
// Returns nothing on junk, negative values or overflow of int64.
std::optional<std::int64_t> parseByteCount(std::string_view text);

} // namespace kelvara

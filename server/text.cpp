#include "text.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <limits>

namespace kelvara {

std::string escapeMarkup(std::string_view text)
{
    std::string out;
    out.reserve(text.size() + text.size() / 8);
    for (char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

namespace {

// Length of the well-formed UTF-8 sequence starting at text[i], or 0.
std::size_t utf8SequenceLength(std::string_view text, std::size_t i)
{
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char b0 = byte(i);
    if (b0 < 0x80) {
        return 1;
    }
    std::size_t len = 0;
    unsigned char lo = 0x80, hi = 0xBF; // allowed range of the second byte
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        len = 2;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        len = 3;
        if (b0 == 0xE0) {
            lo = 0xA0; // no overlong forms
        } else if (b0 == 0xED) {
            hi = 0x9F; // no UTF-16 surrogates
        }
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        len = 4;
        if (b0 == 0xF0) {
            lo = 0x90;
        } else if (b0 == 0xF4) {
            hi = 0x8F; // nothing past U+10FFFF
        }
    } else {
        return 0;
    }
    if (i + len > text.size()) {
        return 0;
    }
    if (byte(i + 1) < lo || byte(i + 1) > hi) {
        return 0;
    }
    for (std::size_t k = 2; k < len; ++k) {
        if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) {
            return 0;
        }
    }
    return len;
}

} // namespace

std::string sanitizeUtf8(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const std::size_t len = utf8SequenceLength(text, i);
        if (len == 0) {
            out += '_';
            ++i;
        } else {
            out.append(text.substr(i, len));
            i += len;
        }
    }
    return out;
}

std::optional<std::string> decodeBase64(std::string_view text)
{
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    const auto value = [](char c) -> int {
        if (c >= 'A' && c <= 'Z') {
            return c - 'A';
        }
        if (c >= 'a' && c <= 'z') {
            return c - 'a' + 26;
        }
        if (c >= '0' && c <= '9') {
            return c - '0' + 52;
        }
        if (c == '+') {
            return 62;
        }
        if (c == '/') {
            return 63;
        }
        return -1;
    };
    std::string out;
    out.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        int padding = 0;
        if (last && text[i + 3] == '=') {
            padding = text[i + 2] == '=' ? 2 : 1;
        }
        std::uint32_t group = 0;
        for (int k = 0; k < 4; ++k) {
            int v = 0;
            if (k < 4 - padding) {
                v = value(text[i + static_cast<std::size_t>(k)]);
                if (v < 0) {
                    return std::nullopt;
                }
            }
            group = (group << 6) | static_cast<std::uint32_t>(v);
        }
        // Unused bits of a padded group must be zero for a canonical encoding.
        if ((padding == 1 && (group & 0xFF) != 0) || (padding == 2 && (group & 0xFFFF) != 0)) {
            return std::nullopt;
        }
        out += static_cast<char>((group >> 16) & 0xFF);
        if (padding < 2) {
            out += static_cast<char>((group >> 8) & 0xFF);
        }
        if (padding < 1) {
            out += static_cast<char>(group & 0xFF);
        }
    }
    return out;
}

std::string_view trim(std::string_view text)
{
    const auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && isSpace(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isSpace(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

static char lowerAscii(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalsIgnoreCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (lowerAscii(a[i]) != lowerAscii(b[i])) {
            return false;
        }
    }
    return true;
}

bool startsWithIgnoreCase(std::string_view text, std::string_view prefix)
{
    return text.size() >= prefix.size() && equalsIgnoreCase(text.substr(0, prefix.size()), prefix);
}

std::string humanSize(std::int64_t bytes)
{
    static constexpr std::array<const char *, 5> units = {"bytes", "KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    }
    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < units.size()) {
        value /= 1024.0;
        ++unit;
    }
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f %s", value, units[unit]);
    return buf;
}

std::optional<std::int64_t> parseByteCount(std::string_view text)
{
    text = trim(text);
    std::size_t digits = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
        ++digits;
    }
    if (digits == 0) {
        return std::nullopt;
    }
    constexpr std::int64_t max = std::numeric_limits<std::int64_t>::max();
    std::int64_t value = 0;
    for (std::size_t i = 0; i < digits; ++i) {
        const int d = text[i] - '0';
        if (value > (max - d) / 10) {
            return std::nullopt;
        }
        value = value * 10 + d;
    }
    const std::string_view suffix = trim(text.substr(digits));
    int shift = 0;
    if (suffix.empty()) {
        shift = 0;
    } else if (equalsIgnoreCase(suffix, "KiB")) {
        shift = 10;
    } else if (equalsIgnoreCase(suffix, "MiB")) {
        shift = 20;
    } else if (equalsIgnoreCase(suffix, "GiB")) {
        shift = 30;
    } else if (equalsIgnoreCase(suffix, "TiB")) {
        shift = 40;
    } else {
        return std::nullopt;
    }
    if (value > (max >> shift)) {
        return std::nullopt;
    }
    return value << shift;
}

} // namespace kelvara

#include "accounts.h"

#include "text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <set>

namespace kelvara {

Account demoAccount()
{
    Account demo;
    demo.user = "demo";
    demo.password = "demo";
    demo.quota = std::int64_t{2} << 30;
    demo.firstName = "Dana";
    demo.lastName = "Demo";
    demo.branding = Branding{"Demo", "#FFFFFF", "#3A6EA5", "#1F3F66", {}, {}};
    return demo;
}

bool isValidUserName(std::string_view user)
{
    if (user.empty() || user.size() > 64 || user.front() == '.') {
        return false;
    }
    return std::all_of(user.begin(), user.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '.' || c == '_' || c == '-';
    });
}

bool isValidColor(std::string_view color)
{
    return color.size() == 7 && color[0] == '#' &&
           std::all_of(color.begin() + 1, color.end(),
                       [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; });
}

namespace {

std::string upper(std::string_view text)
{
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](char c) {
        return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    });
    return out;
}

bool hasControlCharacters(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto u = static_cast<unsigned char>(c);
        return u < 0x20 || u == 0x7F;
    });
}

struct Section
{
    std::string user;
    std::size_t line = 0;
    std::map<std::string, std::pair<std::string, std::size_t>> values; // key -> (value, line)
};

constexpr std::array<std::string_view, 11> knownKeys = {
    "password",   "quota",     "first_name",   "last_name", "branding",  "title",
    "font_color", "top_color", "bottom_color", "logo",      "background"};

std::string lineError(std::size_t line, const std::string &message)
{
    return "line " + std::to_string(line) + ": " + message;
}

std::string resolvePath(const std::string &baseDir, const std::string &path)
{
    if (path.empty() || path.front() == '/' || baseDir.empty()) {
        return path;
    }
    return baseDir + "/" + path;
}

std::optional<Account> buildAccount(const Section &section, const std::string &baseDir,
                                    std::string &error)
{
    Account account;
    account.user = section.user;
    const auto get = [&](const char *key) -> const std::pair<std::string, std::size_t> * {
        auto it = section.values.find(key);
        return it == section.values.end() ? nullptr : &it->second;
    };
    const auto *password = get("password");
    if (!password || password->first.empty()) {
        error = lineError(section.line, "account '" + section.user + "' has no password");
        return std::nullopt;
    }
    account.password = password->first;

    if (const auto *quota = get("quota")) {
        if (equalsIgnoreCase(quota->first, "unlimited")) {
            account.quota = -1;
        } else if (auto bytes = parseByteCount(quota->first)) {
            account.quota = *bytes;
        } else {
            error = lineError(quota->second,
                              "quota must be a byte count (optionally with KiB, MiB, GiB or TiB) "
                              "or 'unlimited'");
            return std::nullopt;
        }
    }
    account.firstName = get("first_name") ? get("first_name")->first : section.user;
    account.lastName = get("last_name") ? get("last_name")->first : "";

    bool branded = false;
    if (const auto *flag = get("branding")) {
        const std::string &v = flag->first;
        if (equalsIgnoreCase(v, "yes") || equalsIgnoreCase(v, "true") ||
            equalsIgnoreCase(v, "on")) {
            branded = true;
        } else if (!(equalsIgnoreCase(v, "no") || equalsIgnoreCase(v, "false") ||
                     equalsIgnoreCase(v, "off"))) {
            error = lineError(flag->second, "branding must be yes or no");
            return std::nullopt;
        }
    }
    static constexpr std::array<const char *, 6> brandingKeys = {
        "title", "font_color", "top_color", "bottom_color", "logo", "background"};
    for (const char *key : brandingKeys) {
        if (const auto *v = get(key); v && !branded) {
            error = lineError(v->second, std::string(key) + " needs 'branding = yes' in account '" +
                                             section.user + "'");
            return std::nullopt;
        }
    }
    if (branded) {
        Branding b{section.user, "#FFFFFF", "#3A6EA5", "#1F3F66", {}, {}};
        if (const auto *v = get("title")) {
            b.title = v->first;
        }
        const std::array<std::pair<const char *, std::string *>, 3> colors = {
            {{"font_color", &b.fontColor},
             {"top_color", &b.topColor},
             {"bottom_color", &b.bottomColor}}};
        for (const auto &[key, target] : colors) {
            if (const auto *v = get(key)) {
                if (!isValidColor(v->first)) {
                    error = lineError(v->second, std::string(key) + " must look like #3A6EA5");
                    return std::nullopt;
                }
                *target = upper(v->first);
            }
        }
        if (const auto *v = get("logo")) {
            b.logoFile = resolvePath(baseDir, v->first);
        }
        if (const auto *v = get("background")) {
            b.backgroundFile = resolvePath(baseDir, v->first);
        }
        account.branding = std::move(b);
    }
    return account;
}

} // namespace

std::optional<std::vector<Account>> parseAccounts(std::string_view text, const std::string &baseDir,
                                                  std::string &error)
{
    std::vector<Section> sections;
    std::set<std::string> seen;
    std::size_t lineNo = 0;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        ++lineNo;
        std::string_view raw = text.substr(start, end - start);
        start = end + 1;
        if (!raw.empty() && raw.back() == '\r') {
            raw.remove_suffix(1);
        }
        if (sanitizeUtf8(raw) != raw) {
            error = lineError(lineNo, "not valid UTF-8");
            return std::nullopt;
        }
        const std::string_view line = trim(raw);
        if (line.empty() || line.front() == '#' || line.front() == ';') {
            continue;
        }
        if (hasControlCharacters(line)) {
            error = lineError(lineNo, "control characters are not allowed");
            return std::nullopt;
        }
        if (line.front() == '[') {
            if (line.back() != ']') {
                error = lineError(lineNo, "expected [user name]");
                return std::nullopt;
            }
            const std::string user(trim(line.substr(1, line.size() - 2)));
            if (!isValidUserName(user)) {
                error = lineError(lineNo, "invalid user name '" + user +
                                              "' (letters, digits, '.', '_' and '-' only)");
                return std::nullopt;
            }
            if (!seen.insert(user).second) {
                error = lineError(lineNo, "account '" + user + "' appears twice");
                return std::nullopt;
            }
            sections.push_back(Section{user, lineNo, {}});
            continue;
        }
        const std::size_t eq = line.find('=');
        if (eq == std::string_view::npos) {
            error = lineError(lineNo, "expected key = value");
            return std::nullopt;
        }
        if (sections.empty()) {
            error = lineError(lineNo, "key outside of an [account] section");
            return std::nullopt;
        }
        const std::string key(trim(line.substr(0, eq)));
        std::string_view value = trim(line.substr(eq + 1));
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
            value = value.substr(1, value.size() - 2);
        }
        if (std::find(knownKeys.begin(), knownKeys.end(), key) == knownKeys.end()) {
            error = lineError(lineNo, "unknown key '" + key + "'");
            return std::nullopt;
        }
        if (!sections.back()
                 .values.emplace(key, std::make_pair(std::string(value), lineNo))
                 .second) {
            error = lineError(lineNo, "'" + key + "' given twice");
            return std::nullopt;
        }
    }
    if (sections.empty()) {
        error = "no accounts defined";
        return std::nullopt;
    }
    std::vector<Account> accounts;
    for (const Section &section : sections) {
        auto account = buildAccount(section, baseDir, error);
        if (!account) {
            return std::nullopt;
        }
        accounts.push_back(std::move(*account));
    }
    return accounts;
}

} // namespace kelvara

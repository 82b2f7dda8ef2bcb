// kelvara accounts: who may log in, how much they may store and how the
// service brands the client for them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvara {

struct Branding
{
    std::string title;
    std::string fontColor;   // "#RRGGBB"
    std::string topColor;    // "#RRGGBB"
    std::string bottomColor; // "#RRGGBB"
    // Optional PNG files to serve instead of the generated artwork.
    std::string logoFile;
    std::string backgroundFile;
};

struct Account
{
    std::string user;
    std::string password;
    std::int64_t quota = -1; // bytes; -1 means unlimited
    std::string firstName;
    std::string lastName;
    std::optional<Branding> branding;
};

// The account used when no accounts file is given: demo/demo, 2 GiB, branded.
Account demoAccount();

// User names double as folder names: ASCII letters, digits, '.', '_', '-',
// not starting with '.', at most 64 characters.
bool isValidUserName(std::string_view user);

// "#" followed by six hex digits.
bool isValidColor(std::string_view color);

// Parses an accounts file (see README.md for the format). On failure returns
// nothing and sets error to a message naming the offending line. Relative
// logo/background paths are resolved against baseDir.
std::optional<std::vector<Account>> parseAccounts(std::string_view text, const std::string &baseDir,
                                                  std::string &error);

} // namespace kelvara

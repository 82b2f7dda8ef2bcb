// Branding artwork kelvara-local serves: a logo and a background image drawn
// from the account's colours, encoded as PNG.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelvara {

struct Rgb
{
    std::uint8_t r = 0, g = 0, b = 0;
};

// "#RRGGBB" -> colour; the string must already be valid.
Rgb parseColor(const std::string &hex);

// Encodes 8-bit RGBA pixels (row-major, width * height * 4 bytes) as PNG.
std::string encodePng(int width, int height, const std::vector<std::uint8_t> &rgba);

// A square logo: rounded tile in the account's gradient with an upward
// arrow over a tray in the font colour. Transparent corners.
std::string makeLogoPng(Rgb top, Rgb bottom, Rgb mark, int size = 128);

// A wide background: vertical gradient with soft diagonal bands.
std::string makeBackgroundPng(Rgb top, Rgb bottom, int width = 800, int height = 500);

} // namespace kelvara

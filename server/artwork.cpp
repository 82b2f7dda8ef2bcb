#include "artwork.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <zlib.h>

namespace kelvara {

Rgb parseColor(const std::string &hex)
{
    const auto component = [&](std::size_t at) {
        return static_cast<std::uint8_t>(std::stoi(hex.substr(at, 2), nullptr, 16));
    };
    return {component(1), component(3), component(5)};
}

namespace {

void putUint32(std::string &out, std::uint32_t v)
{
    out += static_cast<char>((v >> 24) & 0xFF);
    out += static_cast<char>((v >> 16) & 0xFF);
    out += static_cast<char>((v >> 8) & 0xFF);
    out += static_cast<char>(v & 0xFF);
}

void putChunk(std::string &out, const char *type, const std::string &data)
{
    putUint32(out, static_cast<std::uint32_t>(data.size()));
    const std::string typed = std::string(type, 4) + data;
    out += typed;
    const auto crc =
        ::crc32(0L, reinterpret_cast<const Bytef *>(typed.data()), static_cast<uInt>(typed.size()));
    putUint32(out, static_cast<std::uint32_t>(crc));
}

double clamp01(double v)
{
    return std::clamp(v, 0.0, 1.0);
}

double mix(double a, double b, double t)
{
    return a + (b - a) * t;
}

// Signed distance helpers for the logo shapes (negative inside).
double roundedSquare(double x, double y, double half, double radius)
{
    const double qx = std::abs(x) - (half - radius);
    const double qy = std::abs(y) - (half - radius);
    const double ox = std::max(qx, 0.0), oy = std::max(qy, 0.0);
    return std::sqrt(ox * ox + oy * oy) + std::min(std::max(qx, qy), 0.0) - radius;
}

bool insideBox(double x, double y, double x0, double y0, double x1, double y1)
{
    return x >= x0 && x <= x1 && y >= y0 && y <= y1;
}

bool insideArrow(double x, double y)
{
    // Coordinates in [-1, 1], y growing downwards.
    if (insideBox(x, y, -0.13, -0.22, 0.13, 0.30)) {
        return true; // shaft
    }
    // Head: triangle with apex (0, -0.62) and base y = -0.18 from x = -0.40 to 0.40.
    if (y >= -0.62 && y <= -0.18) {
        const double halfWidth = (y + 0.62) / 0.44 * 0.40;
        return std::abs(x) <= halfWidth;
    }
    return false;
}

bool insideTray(double x, double y)
{
    return insideBox(x, y, -0.55, 0.44, 0.55, 0.58) || insideBox(x, y, -0.55, 0.22, -0.41, 0.58) ||
           insideBox(x, y, 0.41, 0.22, 0.55, 0.58);
}

} // namespace

std::string encodePng(int width, int height, const std::vector<std::uint8_t> &rgba)
{
    if (width <= 0 || height <= 0 ||
        rgba.size() != static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4) {
        throw std::invalid_argument("pixel buffer does not match the image size");
    }
    const std::size_t stride = static_cast<std::size_t>(width) * 4;
    std::string raw;
    raw.reserve((stride + 1) * static_cast<std::size_t>(height));
    for (int y = 0; y < height; ++y) {
        raw += '\0'; // filter type: none
        raw.append(reinterpret_cast<const char *>(rgba.data()) +
                       stride * static_cast<std::size_t>(y),
                   stride);
    }
    uLongf packedSize = ::compressBound(static_cast<uLong>(raw.size()));
    std::string packed(packedSize, '\0');
    if (::compress2(reinterpret_cast<Bytef *>(packed.data()), &packedSize,
                    reinterpret_cast<const Bytef *>(raw.data()), static_cast<uLong>(raw.size()),
                    Z_BEST_COMPRESSION) != Z_OK) {
        throw std::runtime_error("zlib could not compress the image");
    }
    packed.resize(packedSize);

    std::string png("\x89PNG\r\n\x1a\n", 8);
    std::string header;
    putUint32(header, static_cast<std::uint32_t>(width));
    putUint32(header, static_cast<std::uint32_t>(height));
    header += '\x08'; // bit depth
    header += '\x06'; // colour type: RGBA
    header += '\0';   // compression
    header += '\0';   // filter
    header += '\0';   // no interlace
    putChunk(png, "IHDR", header);
    putChunk(png, "IDAT", packed);
    putChunk(png, "IEND", "");
    return png;
}

std::string makeLogoPng(Rgb top, Rgb bottom, Rgb mark, int size)
{
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(size) *
                                     static_cast<std::size_t>(size) * 4);
    constexpr int samples = 4; // 4x4 supersampling for smooth edges
    for (int py = 0; py < size; ++py) {
        for (int px = 0; px < size; ++px) {
            double cover = 0, markCover = 0;
            for (int sy = 0; sy < samples; ++sy) {
                for (int sx = 0; sx < samples; ++sx) {
                    const double x = ((px + (sx + 0.5) / samples) / size) * 2.0 - 1.0;
                    const double y = ((py + (sy + 0.5) / samples) / size) * 2.0 - 1.0;
                    if (roundedSquare(x, y, 0.96, 0.28) <= 0) {
                        cover += 1;
                        if (insideArrow(x, y) || insideTray(x, y)) {
                            markCover += 1;
                        }
                    }
                }
            }
            cover /= samples * samples;
            markCover /= samples * samples;
            const double t = clamp01(static_cast<double>(py) / (size - 1));
            const double m = cover > 0 ? markCover / cover : 0;
            const auto channel = [&](std::uint8_t a, std::uint8_t b, std::uint8_t c) {
                return static_cast<std::uint8_t>(std::lround(mix(mix(a, b, t), c, m)));
            };
            std::uint8_t *p = &pixels[(static_cast<std::size_t>(py) * size + px) * 4];
            p[0] = channel(top.r, bottom.r, mark.r);
            p[1] = channel(top.g, bottom.g, mark.g);
            p[2] = channel(top.b, bottom.b, mark.b);
            p[3] = static_cast<std::uint8_t>(std::lround(cover * 255));
        }
    }
    return encodePng(size, size, pixels);
}

std::string makeBackgroundPng(Rgb top, Rgb bottom, int width, int height)
{
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) *
                                     static_cast<std::size_t>(height) * 4);
    for (int y = 0; y < height; ++y) {
        const double t = static_cast<double>(y) / (height - 1);
        for (int x = 0; x < width; ++x) {
            // Soft light bands running diagonally, brightening by up to 8%.
            const double band = 0.5 + 0.5 * std::sin((x * 0.6 + y) / height * 3.14159 * 2.5);
            const double light = 0.08 * band * band;
            const auto channel = [&](std::uint8_t a, std::uint8_t b) {
                const double base = mix(a, b, t);
                return static_cast<std::uint8_t>(std::lround(base + (255.0 - base) * light));
            };
            std::uint8_t *p = &pixels[(static_cast<std::size_t>(y) * width + x) * 4];
            p[0] = channel(top.r, bottom.r);
            p[1] = channel(top.g, bottom.g);
            p[2] = channel(top.b, bottom.b);
            p[3] = 255;
        }
    }
    return encodePng(width, height, pixels);
}

} // namespace kelvara

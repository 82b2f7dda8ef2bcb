#include "net/Base64.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr char bintoasc[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// 0..63 for the alphabet, 0x80 for everything else ('=' included).
struct AscToBin
{
    signed char v[128];
    constexpr AscToBin() : v()
    {
        for (signed char &x : v)
            x = static_cast<signed char>(0x80);
        for (int i = 0; i < 64; ++i)
            v[static_cast<unsigned char>(bintoasc[i])] = static_cast<signed char>(i);
    }
};
constexpr AscToBin asctobin;

// The 6-bit value of c, or -1 when c is not an alphabet character.
int valueOf(unsigned char c)
{
    if (c >= 128)
        return -1;
    const signed char v = asctobin.v[c];
    return v < 0 ? -1 : v;
}

} // namespace

void encChunk(const unsigned char *in, char *out, int n)
{
    out[0] = bintoasc[in[0] >> 2];
    out[1] = bintoasc[((in[0] << 4) & 0x30) | (in[1] >> 4)];
    if (n == 1) {
        out[2] = '=';
        out[3] = '=';
        return;
    }
    out[2] = bintoasc[((in[1] << 2) & 0x3C) | (in[2] >> 6)];
    out[3] = n == 2 ? '=' : bintoasc[in[2] & 0x3F];
}

char *cuEnc64WithLines(const unsigned char *in, size_t len, size_t lineLen, size_t *outLen)
{
    const size_t chars = ((len + 2) / 3) * 4;
    if (lineLen != 0)
        lineLen = (lineLen + 3) / 4 * 4;
    size_t lines = lineLen != 0 ? (lineLen + chars - 1) / lineLen : 1;
    // Empty input with line breaks counts no line at all, yet still gets its
    // final line feed and NUL.
    if (lines == 0)
        lines = 1;
    char *out = static_cast<char *>(std::malloc(2 * lines + chars + 1));
    if (!out)
        return nullptr;

    char *p = out;
    size_t column = 0;
    size_t breaks = 0;
    for (size_t i = 0; i < len; i += 3) {
        const size_t n = len - i < 3 ? len - i : 3;
        if (n == 3) {
            encChunk(in + i, p, 3);
        } else {
            unsigned char group[3] = {0, 0, 0};
            std::memcpy(group, in + i, n);
            encChunk(group, p, static_cast<int>(n));
        }
        p += 4;
        column += 4;
        if (lineLen != 0 && column >= lineLen && i + 3 < len) {
            *p++ = '\n';
            ++breaks;
            column = 0;
        }
    }
    *p++ = '\n';
    *p = '\0';
    if (outLen)
        *outLen = chars + breaks + 2;
    return out;
}

char *cuEnc64(const unsigned char *in, size_t len, size_t *outLen)
{
    return cuEnc64WithLines(in, len, 0, outLen);
}

char *cuEnc64direct(const unsigned char *in, size_t len, size_t *outLen)
{
    size_t n = 0;
    char *out = cuEnc64WithLines(in, len, 0, &n);
    if (out && n >= 2)
        out[n - 2] = '\0';
    if (outLen)
        *outLen = n;
    return out;
}

int isWhite(unsigned char c)
{
    return c == 0 || c == 9 || c == 10 || c == 13 || c == 32;
}

unsigned char *stringCleanse(const unsigned char *buf, size_t len, size_t *newLen)
{
    unsigned char *out = static_cast<unsigned char *>(std::malloc(len ? len : 1));
    if (!out)
        return nullptr;
    size_t n = 0;
    for (size_t i = 0; i < len; ++i) {
        if (!isWhite(buf[i]))
            out[n++] = buf[i];
    }
    if (newLen)
        *newLen = n;
    return out;
}

unsigned char *cuDec64(const unsigned char *text, size_t len, size_t *outLen)
{
    size_t count = 0;
    unsigned char *clean = stringCleanse(text, len, &count);
    if (!clean)
        return nullptr;
    if (count % 4 != 0) {
        std::free(clean);
        return nullptr;
    }
    const size_t capacity = count / 4 * 3;
    unsigned char *out = static_cast<unsigned char *>(std::malloc(capacity ? capacity : 1));
    if (!out) {
        std::free(clean);
        return nullptr;
    }

    size_t total = 0;
    bool ok = true;
    for (size_t g = 0; g < count && ok; g += 4) {
        const unsigned char *c = clean + g;
        const int a = valueOf(c[0]);
        const int b = valueOf(c[1]);
        if (a < 0 || b < 0) {
            ok = false;
            break;
        }
        int v2 = 0;
        int v3 = 0;
        int bytes = 3;
        if (c[2] == '=') {
            // "xx==" closes the text: nothing may follow it.
            if ((b & 0x0F) != 0 || c[3] != '=' || g + 4 != count) {
                ok = false;
                break;
            }
            bytes = 1;
        } else {
            v2 = valueOf(c[2]);
            if (v2 < 0) {
                ok = false;
                break;
            }
            if (c[3] == '=') {
                if ((v2 & 0x03) != 0) {
                    ok = false;
                    break;
                }
                bytes = 2;
            } else {
                v3 = valueOf(c[3]);
                if (v3 < 0) {
                    ok = false;
                    break;
                }
            }
        }
        out[total] = static_cast<unsigned char>(a << 2 | b >> 4);
        if (bytes > 1)
            out[total + 1] = static_cast<unsigned char>(b << 4 | v2 >> 2);
        if (bytes > 2)
            out[total + 2] = static_cast<unsigned char>(v2 << 6 | v3);
        total += static_cast<size_t>(bytes);
    }

    std::free(clean);
    if (!ok) {
        std::free(out);
        return nullptr;
    }
    if (outLen)
        *outLen = total;
    return out;
}

int cuIsValidEnc64(const unsigned char *text, size_t len)
{
    size_t significant = 0;
    int pads = 0;
    for (size_t i = 0; i < len; ++i) {
        const unsigned char c = text[i];
        if (isWhite(c))
            continue;
        ++significant;
        if (c == '=') {
            if (++pads > 2)
                return 0;
            continue;
        }
        if (pads > 0 || valueOf(c) < 0)
            return 0;
    }
    return significant % 4 == 0 ? 1 : 0;
}

#pragma once

#include <cstddef>

// Base64 with the standard alphabet. Every function that returns a buffer
// allocates it with malloc(); the caller frees it with free().

/** @brief Encodes n (1 to 3) bytes of in as four characters at out, padding with '='. */
void encChunk(const unsigned char *in, char *out, int n);

/**
 * @brief Encodes len bytes, breaking lines every lineLen characters (rounded up to a
 * multiple of 4; 0 = no breaks). The text always ends with '\n' and a NUL, and
 * *outLen counts both.
 */
char *cuEnc64WithLines(const unsigned char *in, size_t len, size_t lineLen, size_t *outLen);

/** @brief cuEnc64WithLines() without line breaks. */
char *cuEnc64(const unsigned char *in, size_t len, size_t *outLen);

/** @brief cuEnc64() without the final line feed; *outLen is still two more than the text. */
char *cuEnc64direct(const unsigned char *in, size_t len, size_t *outLen);

/** @brief 1 for NUL, TAB, LF, CR and space, else 0. */
int isWhite(unsigned char c);

/** @brief A copy of buf without white space; *newLen is its length. */
unsigned char *stringCleanse(const unsigned char *buf, size_t len, size_t *newLen);

/**
 * @brief Decodes base64 text, skipping white space. Returns nullptr (and leaves
 * *outLen alone) for malformed text, including non-zero pad bits.
 */
unsigned char *cuDec64(const unsigned char *text, size_t len, size_t *outLen);

/** @brief 1 if text is well-formed base64 with nothing after its padding, else 0. */
int cuIsValidEnc64(const unsigned char *text, size_t len);

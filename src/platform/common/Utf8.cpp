// UTF-8 of wide text, written out here rather than taken from the C library,
// whose multibyte functions follow the process locale.
#include "platform/Utf8.h"

namespace {

const char32_t kReplacement = 0xFFFD;

bool IsHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

}  // namespace

char32_t KvnNextCodePoint(const wchar_t* text, int* taken) {
    char32_t c = static_cast<char32_t>(text[0]);
    *taken = 1;
    if (IsHighSurrogate(c) && IsLowSurrogate(static_cast<char32_t>(text[1]))) {
        *taken = 2;
        return 0x10000 + ((c - 0xD800) << 10) + (static_cast<char32_t>(text[1]) - 0xDC00);
    }
    if (IsHighSurrogate(c) || IsLowSurrogate(c) || c > 0x10FFFF) return kReplacement;
    return c;
}

int KvnEncodeUtf8(char32_t c, char out[4]) {
    if (IsHighSurrogate(c) || IsLowSurrogate(c) || c > 0x10FFFF) c = kReplacement;
    if (c < 0x80) {
        out[0] = static_cast<char>(c);
        return 1;
    }
    if (c < 0x800) {
        out[0] = static_cast<char>(0xC0 | (c >> 6));
        out[1] = static_cast<char>(0x80 | (c & 0x3F));
        return 2;
    }
    if (c < 0x10000) {
        out[0] = static_cast<char>(0xE0 | (c >> 12));
        out[1] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out[2] = static_cast<char>(0x80 | (c & 0x3F));
        return 3;
    }
    out[0] = static_cast<char>(0xF0 | (c >> 18));
    out[1] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (c & 0x3F));
    return 4;
}

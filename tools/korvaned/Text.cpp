// UTF-8 to and from wide strings (UTF-32 where wchar_t is 32 bits, UTF-16
// where it is 16).
#include "Text.h"

#include <cstdint>

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t c) {
    if (c >= 0xD800 && c <= 0xDFFF) c = kReplacement;
    if (c > 0x10FFFF) c = kReplacement;
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

void AppendWide(std::wstring& out, char32_t c) {
    if (sizeof(wchar_t) == 2 && c >= 0x10000) {
        c -= 0x10000;
        out += static_cast<wchar_t>(0xD800 + (c >> 10));
        out += static_cast<wchar_t>(0xDC00 + (c & 0x3FF));
    } else {
        out += static_cast<wchar_t>(c);
    }
}

}  // namespace

std::string ToUtf8(const wchar_t* text) {
    std::string out;
    if (!text) return out;
    // Every statement comes through here: ASCII, the usual case, a byte a
    // character without the general encoder.
    std::size_t n = 0;
    while (text[n] != 0 && static_cast<std::uint32_t>(text[n]) < 0x80) ++n;
    if (text[n] == 0) {
        out.resize(n);
        for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<char>(text[i]);
        return out;
    }
    for (const wchar_t* p = text; *p; ++p) {
        char32_t c = static_cast<char32_t>(static_cast<std::uint32_t>(*p));
        if (sizeof(wchar_t) == 2 && c >= 0xD800 && c <= 0xDBFF && p[1] >= 0xDC00 && p[1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (static_cast<char32_t>(p[1]) - 0xDC00);
            ++p;
        }
        AppendUtf8(out, c);
    }
    return out;
}

std::wstring FromUtf8(const std::string& text) {
    std::wstring out;
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        const unsigned char b = s[i];
        int extra = 0;
        char32_t c = 0;
        char32_t minimum = 0;
        if (b < 0x80) {
            c = b;
        } else if ((b & 0xE0) == 0xC0) {
            c = b & 0x1F, extra = 1, minimum = 0x80;
        } else if ((b & 0xF0) == 0xE0) {
            c = b & 0x0F, extra = 2, minimum = 0x800;
        } else if ((b & 0xF8) == 0xF0) {
            c = b & 0x07, extra = 3, minimum = 0x10000;
        } else {
            AppendWide(out, kReplacement);
            ++i;
            continue;
        }
        // A sequence cut short, overlong, a surrogate or beyond U+10FFFF is
        // one U+FFFD, in place of the bytes it took up to its fault.
        int taken = 1;
        bool valid = true;
        for (int k = 1; k <= extra; ++k) {
            if (i + static_cast<std::size_t>(k) >= n || (s[i + k] & 0xC0) != 0x80) {
                valid = false;
                break;
            }
            c = (c << 6) | (s[i + k] & 0x3F);
            ++taken;
        }
        if (!valid || c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
            AppendWide(out, kReplacement);
            i += static_cast<std::size_t>(taken);
            continue;
        }
        AppendWide(out, c);
        i += static_cast<std::size_t>(extra) + 1;
    }
    return out;
}

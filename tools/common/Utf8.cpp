// UTF-8 codec of the tools.
#include "Utf8.h"

#include <cstdint>
#include <cwchar>

namespace {

const char32_t kReplacement = 0xFFFD;

bool IsSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }

void AppendWide(std::wstring& out, char32_t c) {
    if (sizeof(wchar_t) == 2 && c > 0xFFFF) {
        c -= 0x10000;
        out += static_cast<wchar_t>(0xD800 + (c >> 10));
        out += static_cast<wchar_t>(0xDC00 + (c & 0x3FF));
    } else {
        out += static_cast<wchar_t>(c);
    }
}

void AppendUtf8(std::string& out, char32_t c) {
    if (IsSurrogate(c) || c > 0x10FFFF) c = kReplacement;
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

// The bytes that may follow a lead byte, the second one's range depending on
// the lead so that overlong forms, surrogates and values beyond U+10FFFF are
// refused at the byte that makes them so.
struct Lead {
    int continuations;   // 0: not a lead byte
    unsigned char low;   // the second byte's range
    unsigned char high;
};

Lead LeadOf(unsigned char b) {
    if (b >= 0xC2 && b <= 0xDF) return {1, 0x80, 0xBF};
    if (b == 0xE0) return {2, 0xA0, 0xBF};
    if (b == 0xED) return {2, 0x80, 0x9F};
    if (b >= 0xE1 && b <= 0xEF) return {2, 0x80, 0xBF};
    if (b == 0xF0) return {3, 0x90, 0xBF};
    if (b == 0xF4) return {3, 0x80, 0x8F};
    if (b >= 0xF1 && b <= 0xF3) return {3, 0x80, 0xBF};
    return {0, 0, 0};
}

std::string Encode(const wchar_t* wide, std::size_t n) {
    std::string out;
    out.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        char32_t c = static_cast<char32_t>(static_cast<std::uint32_t>(wide[i]));
        if (sizeof(wchar_t) == 2) c &= 0xFFFF;
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < n) {
            char32_t low = static_cast<char32_t>(static_cast<std::uint32_t>(wide[i + 1]));
            if (sizeof(wchar_t) == 2) low &= 0xFFFF;
            if (low >= 0xDC00 && low <= 0xDFFF) {
                c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        AppendUtf8(out, c);
    }
    return out;
}

}  // namespace

std::wstring FromUtf8(const char* utf8, std::size_t bytes) {
    const auto* s = reinterpret_cast<const unsigned char*>(utf8);
    std::wstring out;
    out.reserve(bytes);
    std::size_t i = 0;
    while (i < bytes) {
        const unsigned char b = s[i];
        if (b < 0x80) {
            out += static_cast<wchar_t>(b);
            ++i;
            continue;
        }
        const Lead lead = LeadOf(b);
        char32_t c = b & (0x3F >> lead.continuations);
        std::size_t j = i + 1;
        int taken = 0;
        for (; taken < lead.continuations && j < bytes; ++taken, ++j) {
            const unsigned char low = taken == 0 ? lead.low : 0x80;
            const unsigned char high = taken == 0 ? lead.high : 0xBF;
            if (s[j] < low || s[j] > high) break;
            c = (c << 6) | (s[j] & 0x3F);
        }
        if (lead.continuations == 0 || taken < lead.continuations) {
            // The lead and the bytes that fitted it are one replacement; the
            // byte that did not fit starts the next character.
            out += static_cast<wchar_t>(kReplacement);
            i = j;
            continue;
        }
        AppendWide(out, c);
        i = j;
    }
    return out;
}

std::wstring FromUtf8(const std::string& utf8) { return FromUtf8(utf8.data(), utf8.size()); }

std::string ToUtf8(const wchar_t* wide) {
    if (wide == nullptr) return std::string();
    // Statements come through here: ASCII, the usual case, a byte a
    // character without the general encoder.
    std::size_t n = 0;
    while (wide[n] != 0 && static_cast<std::uint32_t>(wide[n]) < 0x80) ++n;
    if (wide[n] != 0) return Encode(wide, n + std::wcslen(wide + n));
    std::string out(n, '\0');
    for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<char>(wide[i]);
    return out;
}

std::string ToUtf8(const std::wstring& wide) { return Encode(wide.data(), wide.size()); }

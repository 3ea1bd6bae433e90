// UTF-8 codec. Where wchar_t has 16 bits, code points above the BMP travel as
// surrogate pairs; where it has 32 bits, as themselves.
#include "Utf8.h"

namespace {

const char32_t kReplacement = 0xFFFD;

void AppendCodePoint(std::wstring& out, char32_t cp) {
    if (sizeof(wchar_t) == 2 && cp > 0xFFFF) {
        cp -= 0x10000;
        out += static_cast<wchar_t>(0xD800 + (cp >> 10));
        out += static_cast<wchar_t>(0xDC00 + (cp & 0x3FF));
    } else {
        out += static_cast<wchar_t>(cp);
    }
}

void AppendUtf8(std::string& out, char32_t cp) {
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = kReplacement;
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

}  // namespace

std::wstring Utf8ToWide(const std::string& utf8) {
    std::wstring out;
    out.reserve(utf8.size());
    const std::size_t n = utf8.size();
    std::size_t i = 0;
    while (i < n) {
        const unsigned char b = static_cast<unsigned char>(utf8[i]);
        int extra = 0;
        char32_t cp = 0;
        char32_t minimum = 0;
        if (b < 0x80) {
            out += static_cast<wchar_t>(b);
            ++i;
            continue;
        } else if ((b & 0xE0) == 0xC0) {
            extra = 1, cp = b & 0x1F, minimum = 0x80;
        } else if ((b & 0xF0) == 0xE0) {
            extra = 2, cp = b & 0x0F, minimum = 0x800;
        } else if ((b & 0xF8) == 0xF0) {
            extra = 3, cp = b & 0x07, minimum = 0x10000;
        } else {
            out += static_cast<wchar_t>(kReplacement);
            ++i;
            continue;
        }
        std::size_t j = i + 1;
        for (; j < n && j <= i + extra; ++j) {
            const unsigned char c = static_cast<unsigned char>(utf8[j]);
            if ((c & 0xC0) != 0x80) break;
            cp = (cp << 6) | (c & 0x3F);
        }
        // Truncated, overlong, surrogate or out-of-range sequences are one bad
        // byte each: the bytes after the lead byte are read again on their own.
        if (j != i + 1 + extra || cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            out += static_cast<wchar_t>(kReplacement);
            ++i;
            continue;
        }
        AppendCodePoint(out, cp);
        i = j;
    }
    return out;
}

std::string WideToUtf8(const std::wstring& wide) {
    std::string out;
    out.reserve(wide.size());
    for (std::size_t i = 0; i < wide.size(); ++i) {
        char32_t cp = static_cast<char32_t>(wide[i]);
        if (sizeof(wchar_t) == 2) cp &= 0xFFFF;
        if (sizeof(wchar_t) == 2 && cp >= 0xD800 && cp <= 0xDBFF && i + 1 < wide.size()) {
            const char32_t low = static_cast<char32_t>(wide[i + 1]) & 0xFFFF;
            if (low >= 0xDC00 && low <= 0xDFFF) {
                cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        AppendUtf8(out, cp);
    }
    return out;
}

std::string WideToUtf8(const wchar_t* wide) {
    return wide ? WideToUtf8(std::wstring(wide)) : std::string();
}

// Text on the wire: wide strings to and from UTF-16LE and one-byte text.
#include "protocol/WireText.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr bool kWchar16 = sizeof(wchar_t) == 2;

// The UTF-16 code units of one wide character: 1 or 2 of them in units[].
int CodeUnits(wchar_t c, std::uint16_t units[2]) {
    if (kWchar16) {
        units[0] = static_cast<std::uint16_t>(c);
        return 1;
    }
    std::uint32_t cp = static_cast<std::uint32_t>(c);
    if (cp <= 0xFFFF) {
        units[0] = static_cast<std::uint16_t>(cp);  // lone surrogates included
        return 1;
    }
    if (cp > 0x10FFFF) {
        units[0] = 0xFFFD;
        return 1;
    }
    cp -= 0x10000;
    units[0] = static_cast<std::uint16_t>(0xD800 + (cp >> 10));
    units[1] = static_cast<std::uint16_t>(0xDC00 + (cp & 0x3FF));
    return 2;
}

bool IsHigh(wchar_t c) {
    std::uint32_t u = static_cast<std::uint32_t>(c);
    return u >= 0xD800 && u <= 0xDBFF;
}

bool IsLow(wchar_t c) {
    std::uint32_t u = static_cast<std::uint32_t>(c);
    return u >= 0xDC00 && u <= 0xDFFF;
}

int UnitCount(wchar_t c) {
    if (kWchar16) return 1;
    std::uint32_t cp = static_cast<std::uint32_t>(c);
    return (cp > 0xFFFF && cp <= 0x10FFFF) ? 2 : 1;
}

// Calls put(unit) for the code units of text, up to its terminator and at
// most maxUnits of them, never splitting a pair; returns the units given.
template <typename Put>
std::size_t ForEachUnit(const wchar_t* text, std::size_t maxUnits, Put put) {
    std::size_t done = 0;
    if (!text) return 0;
    for (const wchar_t* p = text; *p != L'\0'; ++p) {
        std::uint16_t units[2];
        int n = CodeUnits(*p, units);
        if (static_cast<std::size_t>(n) > maxUnits - done) break;
        for (int k = 0; k < n; ++k) {
            if (!put(units[k])) return done + k;
        }
        done += n;
    }
    return done;
}

}  // namespace

std::size_t WireTextLength(const wchar_t* text, std::size_t maxChars) {
    std::size_t n = 0;
    if (!text) return 0;
    while (n < maxChars && text[n] != L'\0') ++n;
    return n;
}

std::size_t WireUtf16Units(const wchar_t* text, std::size_t chars) {
    std::size_t units = 0;
    if (!text) return 0;
    for (std::size_t i = 0; i < chars; ++i) units += UnitCount(text[i]);
    return units;
}

std::size_t WireDeclaredUnits(const wchar_t* text, std::size_t declared) {
    std::size_t chars = WireTextLength(text, declared);
    return WireUtf16Units(text, chars) + (declared - chars);
}

std::size_t WireFitUnits(const wchar_t* text, std::size_t chars, std::size_t maxUnits,
                         std::size_t* pUnits) {
    std::size_t units = 0;
    std::size_t i = 0;
    if (text) {
        for (; i < chars; ++i) {
            std::size_t n = static_cast<std::size_t>(UnitCount(text[i]));
            if (n > maxUnits - units) break;
            units += n;
        }
        // With 16-bit wchar_t a pair is two characters: do not keep its first half alone.
        if (kWchar16 && i > 0 && i < chars && IsHigh(text[i - 1]) && IsLow(text[i])) {
            --i;
            --units;
        }
    }
    if (pUnits) *pUnits = units;
    return i;
}

void WireWriteUtf16(const wchar_t* text, std::size_t units, BYTE* out) {
    BYTE* p = out;
    std::size_t written = ForEachUnit(text, units, [&p](std::uint16_t u) {
        p[0] = static_cast<BYTE>(u & 0xFF);
        p[1] = static_cast<BYTE>(u >> 8);
        p += 2;
        return true;
    });
    std::memset(out + 2 * written, 0, 2 * (units - written));
}

void WireWriteNarrow(const wchar_t* text, std::size_t units, BYTE* out) {
    BYTE* p = out;
    std::size_t written = ForEachUnit(text, units, [&p](std::uint16_t u) {
        BYTE b = static_cast<BYTE>(u & 0xFF);
        if (b == 0) return false;  // the text ends at its first zero byte
        *p++ = b;
        return true;
    });
    std::memset(out + written, 0, units - written);
}

std::size_t WireReadUtf16(const BYTE* in, std::size_t units, wchar_t* out) {
    std::size_t k = 0;
    for (std::size_t i = 0; i < units; ++i) {
        std::uint32_t u = static_cast<std::uint32_t>(in[2 * i]) |
                          (static_cast<std::uint32_t>(in[2 * i + 1]) << 8);
        if (!kWchar16 && u >= 0xD800 && u <= 0xDBFF && i + 1 < units) {
            std::uint32_t low = static_cast<std::uint32_t>(in[2 * i + 2]) |
                                (static_cast<std::uint32_t>(in[2 * i + 3]) << 8);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                u = 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        out[k++] = static_cast<wchar_t>(u);
    }
    out[k] = L'\0';
    return k;
}

std::size_t WireReadNarrow(const BYTE* in, std::size_t count, wchar_t* out) {
    std::size_t k = 0;
    while (k < count && in[k] != 0) {
        out[k] = static_cast<wchar_t>(in[k]);
        ++k;
    }
    out[k] = L'\0';
    return k;
}

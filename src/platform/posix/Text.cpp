// Conversions between wide text and UTF-8 for the POSIX backend: file names,
// the host name and the debugger output. Written out here rather than taken
// from the C library, whose multibyte functions follow the process locale
// (plain ASCII unless the application calls setlocale).
//
// wchar_t holds code points where it is 32 bits wide; a UTF-16 surrogate pair
// is accepted as well, so text decoded from the wire converts either way.
// Lone surrogates, values beyond U+10FFFF and malformed UTF-8 become U+FFFD.
#include "platform/posix/PosixInternal.h"

#include "platform/Utf8.h"

namespace kvn_posix {
namespace {

const char32_t kReplacement = 0xFFFD;

void AppendWide(std::wstring& out, char32_t c) {
    if (sizeof(wchar_t) == 2 && c >= 0x10000) {
        c -= 0x10000;
        out += static_cast<wchar_t>(0xD800 + (c >> 10));
        out += static_cast<wchar_t>(0xDC00 + (c & 0x3FF));
    } else {
        out += static_cast<wchar_t>(c);
    }
}

bool IsHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

}  // namespace

bool WideToUtf8(const wchar_t* text, std::string& out) {
    try {
        out.clear();
        if (!text) return true;
        for (const wchar_t* p = text; *p;) {
            int taken = 0;
            char bytes[4];
            const int n = KvnEncodeUtf8(KvnNextCodePoint(p, &taken), bytes);
            out.append(bytes, static_cast<std::size_t>(n));
            p += taken;
        }
        return true;
    } catch (...) {
        return false;
    }
}

bool Utf8ToWide(const char* text, std::wstring& out) {
    try {
        out.clear();
        if (!text) return true;
        const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
        while (*p) {
            unsigned char lead = *p;
            int extra;
            char32_t c;
            char32_t minimum;
            if (lead < 0x80) {
                extra = 0; c = lead; minimum = 0;
            } else if ((lead & 0xE0) == 0xC0) {
                extra = 1; c = lead & 0x1F; minimum = 0x80;
            } else if ((lead & 0xF0) == 0xE0) {
                extra = 2; c = lead & 0x0F; minimum = 0x800;
            } else if ((lead & 0xF8) == 0xF0) {
                extra = 3; c = lead & 0x07; minimum = 0x10000;
            } else {
                AppendWide(out, kReplacement);
                ++p;
                continue;
            }
            int used = 1;
            bool valid = true;
            for (; used <= extra; ++used) {
                if ((p[used] & 0xC0) != 0x80) {  // also stops at the terminator
                    valid = false;
                    break;
                }
                c = (c << 6) | (p[used] & 0x3F);
            }
            // Overlong forms, surrogates and values beyond U+10FFFF are not text.
            if (!valid || c < minimum || c > 0x10FFFF || IsHighSurrogate(c) || IsLowSurrogate(c)) {
                c = kReplacement;
            }
            AppendWide(out, c);
            p += used;
        }
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace kvn_posix

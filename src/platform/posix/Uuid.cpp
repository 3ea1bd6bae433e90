// Text form of GUIDs on POSIX: the 36-character form
// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx", written in lower case and read in
// either case, with Data1, Data2 and Data3 as numbers and Data4 as bytes in
// order, as the RPC run-time writes and reads it.
//
// Where this differs from Windows: a null text is refused (UuidFromStringW
// gives the nil GUID for it).
#include "platform/Uuid.h"

#include <cstring>

namespace {

const int kTextLength = 36;

// Positions of the dashes in the text.
bool IsDashPosition(int i) { return i == 8 || i == 13 || i == 18 || i == 23; }

int HexValue(wchar_t c) {
    if (c >= L'0' && c <= L'9') return c - L'0';
    if (c >= L'a' && c <= L'f') return c - L'a' + 10;
    if (c >= L'A' && c <= L'F') return c - L'A' + 10;
    return -1;
}

// Reads `digits` hexadecimal digits at text[*pos], moving past them.
unsigned long ReadHex(const wchar_t* text, int& pos, int digits) {
    unsigned long value = 0;
    for (int i = 0; i < digits; ++i) value = (value << 4) | static_cast<unsigned long>(HexValue(text[pos++]));
    return value;
}

void WriteHex(wchar_t*& out, unsigned long value, int digits) {
    static const wchar_t kDigits[] = L"0123456789abcdef";
    for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4) *out++ = kDigits[(value >> shift) & 0xF];
}

}  // namespace

BOOL KvnUuidToString(const GUID* guid, wchar_t* text) {
    if (!guid || !text) return FALSE;
    wchar_t* out = text;
    WriteHex(out, guid->Data1, 8);
    *out++ = L'-';
    WriteHex(out, guid->Data2, 4);
    *out++ = L'-';
    WriteHex(out, guid->Data3, 4);
    *out++ = L'-';
    WriteHex(out, guid->Data4[0], 2);
    WriteHex(out, guid->Data4[1], 2);
    *out++ = L'-';
    for (int i = 2; i < 8; ++i) WriteHex(out, guid->Data4[i], 2);
    *out = L'\0';
    return TRUE;
}

BOOL KvnUuidFromString(const wchar_t* text, GUID* guid) {
    if (!text || !guid) return FALSE;
    // Check the whole text before touching *guid.
    for (int i = 0; i < kTextLength; ++i) {
        if (text[i] == L'\0') return FALSE;
        if (IsDashPosition(i) ? text[i] != L'-' : HexValue(text[i]) < 0) return FALSE;
    }
    if (text[kTextLength] != L'\0') return FALSE;

    GUID parsed;
    int pos = 0;
    parsed.Data1 = static_cast<std::uint32_t>(ReadHex(text, pos, 8));
    ++pos;
    parsed.Data2 = static_cast<unsigned short>(ReadHex(text, pos, 4));
    ++pos;
    parsed.Data3 = static_cast<unsigned short>(ReadHex(text, pos, 4));
    ++pos;
    for (int i = 0; i < 8; ++i) {
        if (i == 2) ++pos;
        parsed.Data4[i] = static_cast<unsigned char>(ReadHex(text, pos, 2));
    }
    *guid = parsed;
    return TRUE;
}

void KvnUuidCreateNil(GUID* guid) {
    if (guid) std::memset(guid, 0, sizeof *guid);
}

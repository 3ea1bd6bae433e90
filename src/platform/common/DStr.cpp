// DStr: a growable wide string owning a zero-terminated buffer.
#include <korvane/platform/DStr.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>

namespace {

// The text an empty DStr hands out: never null, so that callers can always
// pass GetString() on.
const wchar_t kEmpty[1] = {L'\0'};

// Printf gives up beyond this many characters rather than grow without end.
const int kMaxPrintfLength = 16 * 1024 * 1024;

int TextLength(const wchar_t* text) {
    return text ? static_cast<int>(std::wcslen(text)) : 0;
}

}  // namespace

DStr::DStr() : m_pszBuffer(nullptr), m_nLength(0), m_nCapacity(0) {}

DStr::DStr(const wchar_t* text) : DStr() { Assign(text, TextLength(text)); }

DStr::DStr(const DStr& other) : DStr() { Assign(other.m_pszBuffer, other.m_nLength); }

DStr::DStr(DStr&& other) noexcept
    : m_pszBuffer(other.m_pszBuffer), m_nLength(other.m_nLength), m_nCapacity(other.m_nCapacity) {
    other.m_pszBuffer = nullptr;
    other.m_nLength = 0;
    other.m_nCapacity = 0;
}

DStr::~DStr() { std::free(m_pszBuffer); }

DStr& DStr::operator=(const DStr& other) {
    if (this != &other) Assign(other.m_pszBuffer, other.m_nLength);
    return *this;
}

DStr& DStr::operator=(DStr&& other) noexcept {
    if (this != &other) {
        std::free(m_pszBuffer);
        m_pszBuffer = other.m_pszBuffer;
        m_nLength = other.m_nLength;
        m_nCapacity = other.m_nCapacity;
        other.m_pszBuffer = nullptr;
        other.m_nLength = 0;
        other.m_nCapacity = 0;
    }
    return *this;
}

DStr& DStr::operator=(const wchar_t* text) {
    // The text may point into this string's own buffer.
    if (text && m_pszBuffer && text >= m_pszBuffer && text <= m_pszBuffer + m_nLength) {
        DStr copy(text);
        *this = static_cast<DStr&&>(copy);
        return *this;
    }
    Assign(text, TextLength(text));
    return *this;
}

DStr& DStr::operator+=(const wchar_t* text) {
    if (text && m_pszBuffer && text >= m_pszBuffer && text <= m_pszBuffer + m_nLength) {
        DStr copy(text);
        Append(copy.m_pszBuffer, copy.m_nLength);
        return *this;
    }
    Append(text, TextLength(text));
    return *this;
}

DStr& DStr::operator+=(const DStr& other) {
    if (&other == this) {
        DStr copy(other);
        Append(copy.m_pszBuffer, copy.m_nLength);
    } else {
        Append(other.m_pszBuffer, other.m_nLength);
    }
    return *this;
}

DStr& DStr::operator+=(wchar_t c) {
    Append(&c, 1);
    return *this;
}

int DStr::Printf(const wchar_t* format, ...) {
    if (!format) {
        Empty();
        return 0;
    }
    int capacity = 256;
    for (;;) {
        wchar_t* buffer = static_cast<wchar_t*>(std::malloc(sizeof(wchar_t) * capacity));
        if (!buffer) break;
        va_list args;
        va_start(args, format);
        int n = std::vswprintf(buffer, static_cast<size_t>(capacity), format, args);
        va_end(args);
        if (n >= 0 && n < capacity) {
            std::free(m_pszBuffer);
            m_pszBuffer = buffer;
            m_nLength = n;
            m_nCapacity = capacity;
            return n;
        }
        std::free(buffer);
        // vswprintf reports a buffer too small and a format it cannot render
        // alike (-1); grow until the limit tells the two apart.
        if (capacity >= kMaxPrintfLength) break;
        capacity = (n >= capacity) ? n + 1 : capacity * 4;
        if (capacity > kMaxPrintfLength) capacity = kMaxPrintfLength;
    }
    Empty();
    return 0;
}

void DStr::Empty() {
    m_nLength = 0;
    if (m_pszBuffer) m_pszBuffer[0] = L'\0';
}

const wchar_t* DStr::GetString() const { return m_pszBuffer ? m_pszBuffer : kEmpty; }

bool DStr::operator==(const wchar_t* text) const {
    return std::wcscmp(GetString(), text ? text : kEmpty) == 0;
}

bool DStr::Reserve(int capacity) {
    if (capacity <= m_nCapacity) return true;
    int newCapacity = m_nCapacity > 0 ? m_nCapacity : 16;
    while (newCapacity < capacity) newCapacity *= 2;
    wchar_t* p = static_cast<wchar_t*>(std::realloc(m_pszBuffer, sizeof(wchar_t) * newCapacity));
    if (!p) return false;
    m_pszBuffer = p;
    m_nCapacity = newCapacity;
    return true;
}

void DStr::Assign(const wchar_t* text, int length) {
    if (!Reserve(length + 1)) {
        Empty();  // out of memory: the string is left empty, never half-copied
        return;
    }
    if (length > 0) std::memmove(m_pszBuffer, text, sizeof(wchar_t) * length);
    m_pszBuffer[length] = L'\0';
    m_nLength = length;
}

void DStr::Append(const wchar_t* text, int length) {
    if (length <= 0) return;
    if (!Reserve(m_nLength + length + 1)) return;
    std::memcpy(m_pszBuffer + m_nLength, text, sizeof(wchar_t) * length);
    m_nLength += length;
    m_pszBuffer[m_nLength] = L'\0';
}

DStr operator+(const DStr& left, const wchar_t* right) {
    DStr result(left);
    result += right;
    return result;
}

DStr operator+(const DStr& left, const DStr& right) {
    DStr result(left);
    result += right;
    return result;
}

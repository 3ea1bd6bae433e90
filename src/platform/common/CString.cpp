// CString: the framework's wide string class, as far as the library's
// signatures need it.
#include <korvane/platform/CString.h>

#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace {
const wchar_t kEmpty[1] = {L'\0'};
}

CString::CString() : m_pszData(nullptr), m_nLength(0) {}

CString::CString(const wchar_t* text) : CString() { Assign(text); }

CString::CString(const CString& other) : CString() { Assign(other.GetString()); }

CString::~CString() { std::free(m_pszData); }

CString& CString::operator=(const CString& other) {
    if (this != &other) Assign(other.GetString());
    return *this;
}

CString& CString::operator=(const wchar_t* text) {
    Assign(text);
    return *this;
}

CString& CString::operator+=(const wchar_t* text) {
    if (!text || !*text) return *this;
    int add = static_cast<int>(std::wcslen(text));
    wchar_t* p = static_cast<wchar_t*>(std::malloc(sizeof(wchar_t) * (m_nLength + add + 1)));
    if (!p) return *this;
    if (m_nLength) std::memcpy(p, m_pszData, sizeof(wchar_t) * m_nLength);
    std::memcpy(p + m_nLength, text, sizeof(wchar_t) * (add + 1));
    std::free(m_pszData);
    m_pszData = p;
    m_nLength += add;
    return *this;
}

void CString::Empty() { Assign(nullptr); }

const wchar_t* CString::GetString() const { return m_pszData ? m_pszData : kEmpty; }

bool CString::operator==(const wchar_t* text) const {
    return std::wcscmp(GetString(), text ? text : kEmpty) == 0;
}

void CString::Assign(const wchar_t* text) {
    // Copy first: text may be this string's own buffer.
    wchar_t* p = nullptr;
    int length = 0;
    if (text && *text) {
        length = static_cast<int>(std::wcslen(text));
        p = static_cast<wchar_t*>(std::malloc(sizeof(wchar_t) * (length + 1)));
        if (!p) length = 0;
        else std::memcpy(p, text, sizeof(wchar_t) * (length + 1));
    }
    std::free(m_pszData);
    m_pszData = p;
    m_nLength = length;
}

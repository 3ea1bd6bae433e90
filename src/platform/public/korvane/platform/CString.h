/// \file
/// CString, the application framework's wide string class.
#ifndef KORVANE_PLATFORM_CSTRING_H
#define KORVANE_PLATFORM_CSTRING_H

#include <korvane/KvnExport.h>
#include <korvane/platform/KvnTypes.h>

/// The wide string class of the application framework, as it appears in the
/// library's exported signatures (error texts, column values, select and
/// procedure names). Only what those signatures need is provided. It owns a
/// copy of its text; a null text reads as empty. When memory runs out an
/// assignment leaves it empty and an append leaves it as it was. No lock: one
/// thread at a time.
class KVN_API CString {
public:
    /// The empty string.
    CString();
    /// A copy of text.
    CString(const wchar_t* text);
    /// A copy of other's text.
    CString(const CString& other);
    ~CString();

    /// Replaces the text with a copy of other's.
    CString& operator=(const CString& other);
    /// Replaces the text with a copy of text (which may be this string's own).
    CString& operator=(const wchar_t* text);
    /// Appends a copy of text.
    CString& operator+=(const wchar_t* text);

    /// The length in wide characters.
    int GetLength() const { return m_nLength; }
    /// Whether the text is empty.
    bool IsEmpty() const { return m_nLength == 0; }
    /// Makes the text empty.
    void Empty();
    /// The zero-terminated text, never null, owned by the string and valid
    /// until it changes.
    const wchar_t* GetString() const;
    /// GetString.
    operator const wchar_t*() const { return GetString(); }

    /// Whether the texts are equal (a null text reads as empty).
    bool operator==(const wchar_t* text) const;
    /// Whether the texts differ.
    bool operator!=(const wchar_t* text) const { return !(*this == text); }

private:
    void Assign(const wchar_t* text);

    wchar_t* m_pszData;
    int m_nLength;
};

#endif

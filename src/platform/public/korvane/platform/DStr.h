/// \file
/// DStr, the growable wide string of the library's interface.
#ifndef KORVANE_PLATFORM_DSTR_H
#define KORVANE_PLATFORM_DSTR_H

#include <korvane/KvnExport.h>
#include <korvane/platform/KvnTypes.h>

/// The growable wide string used for texts that cross the library's
/// interface (error texts, column values, log lines). The library returns
/// DStr by value or fills the caller's: either way the text is the caller's.
///
/// It owns a zero-terminated buffer of wchar_t; an empty DStr still yields a
/// valid empty text, and a null text reads as empty. When memory runs out an
/// assignment leaves the string empty and an append leaves it as it was. No
/// lock: one thread at a time.
class KVN_API DStr {
public:
    /// The empty string.
    DStr();
    /// A copy of text.
    DStr(const wchar_t* text);
    /// A copy of other's text.
    DStr(const DStr& other);
    /// Takes other's buffer; other is left empty.
    DStr(DStr&& other) noexcept;
    ~DStr();

    /// Replaces the text with a copy of other's.
    DStr& operator=(const DStr& other);
    /// Takes other's buffer; other is left empty.
    DStr& operator=(DStr&& other) noexcept;
    /// Replaces the text with a copy of text (which may lie in this string).
    DStr& operator=(const wchar_t* text);

    /// Appends a copy of text.
    DStr& operator+=(const wchar_t* text);
    /// Appends a copy of other's text (other may be this string).
    DStr& operator+=(const DStr& other);
    /// Appends one character.
    DStr& operator+=(wchar_t c);

    /// Formats into the string, replacing its content; returns the new
    /// length. The format follows the C library's wide conventions: %ls for a
    /// wide string argument (it means the same on every platform), %lld for a
    /// 64-bit integer. A format that cannot be rendered, or a text of 2^24
    /// characters or more, leaves the string empty and returns 0.
    int Printf(const wchar_t* format, ...);

    /// The length in wide characters.
    int Length() const { return m_nLength; }
    /// Whether the text is empty.
    bool IsEmpty() const { return m_nLength == 0; }
    /// Makes the text empty (the buffer is kept).
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
    void Assign(const wchar_t* text, int length);
    void Append(const wchar_t* text, int length);
    bool Reserve(int capacity);

    wchar_t* m_pszBuffer;
    int m_nLength;
    int m_nCapacity;
};

/// A new string: left's text followed by right's.
KVN_API DStr operator+(const DStr& left, const wchar_t* right);
/// A new string: left's text followed by right's.
KVN_API DStr operator+(const DStr& left, const DStr& right);

#endif

// DStr: the growable wide string used for texts that cross the library's
// interface (error texts, column values, log lines).
//
// It owns a zero-terminated buffer of wchar_t; an empty DStr still yields a
// valid empty text. Printf takes a wide format in the C library's wide
// conventions: use %ls for a wide string argument (it means the same on every
// platform), %lld for a 64-bit integer.
#ifndef KORVANE_PLATFORM_DSTR_H
#define KORVANE_PLATFORM_DSTR_H

#include <korvane/KvnExport.h>
#include <korvane/platform/KvnTypes.h>

class KVN_API DStr {
public:
    DStr();
    DStr(const wchar_t* text);
    DStr(const DStr& other);
    DStr(DStr&& other) noexcept;
    ~DStr();

    DStr& operator=(const DStr& other);
    DStr& operator=(DStr&& other) noexcept;
    DStr& operator=(const wchar_t* text);

    DStr& operator+=(const wchar_t* text);
    DStr& operator+=(const DStr& other);
    DStr& operator+=(wchar_t c);

    // Formats into the string, replacing its content; returns the new length.
    // A format that cannot be rendered leaves the string empty and returns 0.
    int Printf(const wchar_t* format, ...);

    int Length() const { return m_nLength; }
    bool IsEmpty() const { return m_nLength == 0; }
    void Empty();
    const wchar_t* GetString() const;
    operator const wchar_t*() const { return GetString(); }

    bool operator==(const wchar_t* text) const;
    bool operator!=(const wchar_t* text) const { return !(*this == text); }

private:
    void Assign(const wchar_t* text, int length);
    void Append(const wchar_t* text, int length);
    bool Reserve(int capacity);

    wchar_t* m_pszBuffer;
    int m_nLength;
    int m_nCapacity;
};

KVN_API DStr operator+(const DStr& left, const wchar_t* right);
KVN_API DStr operator+(const DStr& left, const DStr& right);

#endif

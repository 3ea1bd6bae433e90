// CString: the wide string class of the application framework, as it appears
// in the library's exported signatures (error texts, column values, select and
// procedure names). Only what those signatures need is provided.
#ifndef KORVANE_PLATFORM_CSTRING_H
#define KORVANE_PLATFORM_CSTRING_H

#include <korvane/KvnExport.h>
#include <korvane/platform/KvnTypes.h>

class KVN_API CString {
public:
    CString();
    CString(const wchar_t* text);
    CString(const CString& other);
    ~CString();

    CString& operator=(const CString& other);
    CString& operator=(const wchar_t* text);
    CString& operator+=(const wchar_t* text);

    int GetLength() const { return m_nLength; }
    bool IsEmpty() const { return m_nLength == 0; }
    void Empty();
    const wchar_t* GetString() const;
    operator const wchar_t*() const { return GetString(); }

    bool operator==(const wchar_t* text) const;
    bool operator!=(const wchar_t* text) const { return !(*this == text); }

private:
    void Assign(const wchar_t* text);

    wchar_t* m_pszData;
    int m_nLength;
};

#endif

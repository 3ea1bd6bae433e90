// UTF-8 to wide text and back, for argv, standard input and output.
//
// The library speaks wchar_t; the terminal speaks UTF-8. This codec does not
// depend on the process's locale, so the same bytes always give the same
// text. Malformed input never fails: each bad byte becomes U+FFFD.
#ifndef KVNSQL_UTF8_H
#define KVNSQL_UTF8_H

#include <string>

std::wstring Utf8ToWide(const std::string& utf8);
std::string WideToUtf8(const std::wstring& wide);
std::string WideToUtf8(const wchar_t* wide);

#endif

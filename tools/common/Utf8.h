// UTF-8 to wide text and back, for the tools: kvnsql's arguments, input and
// output, and the texts korvaned hands to its ODBC drivers.
//
// The library speaks wchar_t (UTF-32 where it is 32 bits wide, UTF-16 where
// it is 16); terminals and drivers speak UTF-8. The codec does not depend on
// the process's locale, so the same bytes always give the same text, and it
// never fails:
//  - decoding, each maximal part of an ill-formed sequence becomes one U+FFFD
//    (the substitution Unicode recommends: "a\xE2\x82" gives 'a' U+FFFD, an
//    overlong "\xC0\xAF" or a surrogate "\xED\xA0\x80" one U+FFFD a byte);
//  - encoding, a surrogate pair gives its character whatever the width of
//    wchar_t, and a lone surrogate or a value beyond U+10FFFF gives U+FFFD.
#ifndef KVN_TOOLS_UTF8_H
#define KVN_TOOLS_UTF8_H

#include <cstddef>
#include <string>

std::wstring FromUtf8(const char* utf8, std::size_t bytes);
std::wstring FromUtf8(const std::string& utf8);
// A null text gives the empty string.
std::string ToUtf8(const wchar_t* wide);
std::string ToUtf8(const std::wstring& wide);

#endif

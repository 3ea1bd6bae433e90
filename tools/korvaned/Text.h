// Text conversions between the wide strings of the message values and the
// UTF-8 that the service hands to its ODBC drivers.
#ifndef KORVANED_TEXT_H
#define KORVANED_TEXT_H

#include <string>

// A null text gives the empty string. Characters that are not Unicode scalar
// values (lone surrogates, values beyond U+10FFFF) become U+FFFD.
std::string ToUtf8(const wchar_t* text);
// Invalid byte sequences become U+FFFD.
std::wstring FromUtf8(const std::string& text);

#endif

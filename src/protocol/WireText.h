// Text on the wire: the conversions between the library's wide strings and
// the bytes of a text record.
//
// A text travels either as UTF-16LE (two bytes a code unit) or, in a message
// whose unicode flag is 0, as one byte a code unit (its low 8 bits). Its size
// on the wire counts UTF-16 code units. Where wchar_t is 16 bits the code
// units are the wide characters themselves; where it is 32 bits a character
// beyond U+FFFF becomes a surrogate pair and a pair read from the wire becomes
// one character again. A lone surrogate is kept as its code unit both ways; a
// 32-bit value beyond U+10FFFF is not a character and goes out as U+FFFD.
//
// These helpers only convert; the record layout is CMsgSocket's business.
// Every writer fills exactly the number of bytes it is asked for (zeros after
// the text) so that no byte of an encoded message is left unset, and every
// reader stays within the count it is given.
#ifndef KORVANE_PROTOCOL_WIRETEXT_H
#define KORVANE_PROTOCOL_WIRETEXT_H

#include <cstddef>

#include <korvane/platform/KvnTypes.h>

// The most code units a text record holds: its size is read as a signed
// 16-bit number (CParam::nTaille).
constexpr std::size_t kWireMaxTextUnits = 32767;

// Length of text in wide characters, stopping at its terminator or at
// maxChars, whichever comes first (0 for a null text).
std::size_t WireTextLength(const wchar_t* text, std::size_t maxChars);

// UTF-16 code units of the first `chars` wide characters of text.
std::size_t WireUtf16Units(const wchar_t* text, std::size_t chars);

// UTF-16 code units of a text that the application declares as `declared`
// wide characters: the characters before its terminator count their code
// units, each declared position past the terminator one. Where wchar_t is 16
// bits this is `declared` itself; where it is 32 bits every character beyond
// U+FFFF adds one, so that the record carries the whole text.
std::size_t WireDeclaredUnits(const wchar_t* text, std::size_t declared);

// The longest start of the first `chars` wide characters of text that takes
// at most maxUnits code units without splitting a surrogate pair: returns its
// length in wide characters and stores its length in code units in *pUnits.
std::size_t WireFitUnits(const wchar_t* text, std::size_t chars, std::size_t maxUnits,
                         std::size_t* pUnits);

// Writes exactly `units` code units (2 * units bytes) of UTF-16LE at out: the
// code units of text up to its terminator, then zeros. A pair that would not
// fit whole is left out. A null text writes zeros.
void WireWriteUtf16(const wchar_t* text, std::size_t units, BYTE* out);

// Writes exactly `units` bytes at out, one a code unit (its low 8 bits), up to
// the first zero byte that this produces, then zeros.
void WireWriteNarrow(const wchar_t* text, std::size_t units, BYTE* out);

// Reads `units` UTF-16LE code units from in into out, which has room for
// units + 1 wide characters, and terminates it; returns the characters
// written (fewer than units when pairs were joined).
std::size_t WireReadUtf16(const BYTE* in, std::size_t units, wchar_t* out);

// Widens at most `count` bytes of in, each zero-extended, up to the first
// zero byte, into out (room for count + 1) and terminates it; returns the
// characters written.
std::size_t WireReadNarrow(const BYTE* in, std::size_t count, wchar_t* out);

#endif

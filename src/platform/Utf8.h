// UTF-8 of wide text, the same on every platform: the encoding of the log
// files, and of the names and texts that the POSIX backend hands to the
// system.
//
// wchar_t holds code points where it is 32 bits wide; a UTF-16 surrogate
// pair is accepted as well, so that text decoded from the wire converts
// either way. Lone surrogates and values beyond U+10FFFF become U+FFFD.
#ifndef KORVANE_PLATFORM_UTF8_H
#define KORVANE_PLATFORM_UTF8_H

// The code point that starts at text, which is not its terminator; *taken
// receives the wide characters it spans (2 for a pair, else 1).
char32_t KvnNextCodePoint(const wchar_t* text, int* taken);

// Writes the UTF-8 of a code point (U+FFFD for one that is not a character)
// to out; returns the bytes written, 1 to 4.
int KvnEncodeUtf8(char32_t c, char out[4]);

#endif

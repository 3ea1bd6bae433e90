// The 16 bytes of a message header on the wire, little-endian whatever the
// host, with nNbParam and nTailleData at their odd offsets 7 and 11.
#ifndef KORVANE_PROTOCOL_WIREHEADER_H
#define KORVANE_PROTOCOL_WIREHEADER_H

#include <korvane/CMsgSocket.h>

void EncodeEntete(const CEnteteMsgSocket& entete, BYTE* bytes);
void DecodeEntete(const BYTE* bytes, CEnteteMsgSocket& entete);

// Little-endian integers at any address.
void PutLE16(BYTE* p, std::uint16_t v);
void PutLE32(BYTE* p, std::uint32_t v);
void PutLE64(BYTE* p, std::uint64_t v);
std::uint16_t GetLE16(const BYTE* p);
std::uint32_t GetLE32(const BYTE* p);
std::uint64_t GetLE64(const BYTE* p);

#endif

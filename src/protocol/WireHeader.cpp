// Header bytes and little-endian integers of the wire format.
#include "protocol/WireHeader.h"

void PutLE16(BYTE* p, std::uint16_t v) {
    p[0] = static_cast<BYTE>(v);
    p[1] = static_cast<BYTE>(v >> 8);
}

void PutLE32(BYTE* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<BYTE>(v >> (8 * i));
}

void PutLE64(BYTE* p, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) p[i] = static_cast<BYTE>(v >> (8 * i));
}

std::uint16_t GetLE16(const BYTE* p) {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}

std::uint32_t GetLE32(const BYTE* p) {
    std::uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

std::uint64_t GetLE64(const BYTE* p) {
    std::uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

void EncodeEntete(const CEnteteMsgSocket& entete, BYTE* bytes) {
    PutLE32(bytes + 0, static_cast<std::uint32_t>(entete.nIdApplication));
    PutLE16(bytes + 4, entete.nIdConnexion);
    bytes[6] = static_cast<BYTE>(entete.nFonction);
    PutLE32(bytes + 7, static_cast<std::uint32_t>(entete.nNbParam));
    PutLE32(bytes + 11, entete.nTailleData);
    bytes[15] = static_cast<BYTE>(entete.bUnicode);
}

void DecodeEntete(const BYTE* bytes, CEnteteMsgSocket& entete) {
    entete.nIdApplication = static_cast<std::int32_t>(GetLE32(bytes + 0));
    entete.nIdConnexion = GetLE16(bytes + 4);
    entete.nFonction = static_cast<signed char>(bytes[6]);
    entete.nNbParam = static_cast<std::int32_t>(GetLE32(bytes + 7));
    entete.nTailleData = GetLE32(bytes + 11);
    entete.bUnicode = static_cast<signed char>(bytes[15]);
}

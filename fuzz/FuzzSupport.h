// What the fuzz targets share: a check that stops the run on a broken
// promise, the rendering of every decoded value, and the header rules written
// out independently of the library's own check.
#ifndef KORVANE_FUZZ_FUZZSUPPORT_H
#define KORVANE_FUZZ_FUZZSUPPORT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include <korvane/CMsgSocketClient.h>

#include "protocol/ValueText.h"

// A finding: the condition is printed and the run stops, so that libFuzzer
// keeps the input.
#define FUZZ_CHECK(cond)                                                            \
    do {                                                                            \
        if (!(cond)) {                                                              \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            __builtin_trap();                                                       \
        }                                                                           \
    } while (0)

namespace fuzzsupport {

// Every value of a decoded message as text, in both of its renderings, and a
// trace dump of the message: whatever the values hold, nothing is read or
// written outside them.
class TracedMessage : public CMsgSocketClient {
public:
    void Dump() { AfficheMessage(L"fuzz"); }
    int HeaderOk(CEnteteMsgSocket* e) { return m_IsEnteteMessageOk(e); }
};

inline void Render(CMsgSocket& m) {
    wchar_t buffer[64];
    for (int i = 0; i < m.GetNbParametre(); ++i) {
        CParam* p = nullptr;
        FUZZ_CHECK(m.GetParametre(i, &p) == 1 && p != nullptr);
        DStr texte;
        ParamValeurToDStr(p, texte, i & 1);
        int capacite = 63;
        ParamValeurToBuffer(p, buffer, &capacite, 0);
        wchar_t nom[32];
        GetNomType(m.GetTypeParametre(i), nom, i & 1);
    }
}

// The next message of the input at pos, which it moves past: a header and
// the body it announces, cut to what the input holds, in a block of exactly
// its size with its body length set to what it has (the receive loop holds a
// message so, and a read past it is caught). Null once fewer than 16 bytes
// are left.
inline std::unique_ptr<BYTE[]> NextMessage(const std::uint8_t* data, std::size_t size,
                                           std::size_t& pos) {
    const std::size_t kEntete = KVN_TAILLE_ENTETE;
    if (size - pos < kEntete) return nullptr;
    const std::uint8_t* h = data + pos;
    std::size_t body = h[11] | h[12] << 8 | h[13] << 16 | static_cast<std::uint32_t>(h[14]) << 24;
    if (body > size - pos - kEntete) body = size - pos - kEntete;
    std::unique_ptr<BYTE[]> message(new BYTE[kEntete + body]);
    std::memcpy(message.get(), h, kEntete + body);
    for (int i = 0; i < 4; ++i) message[11 + i] = static_cast<BYTE>(body >> (8 * i));
    pos += kEntete + body;
    return message;
}

// The plausibility rules of a received header, from its 16 bytes.
inline bool PlausibleHeader(const std::uint8_t* h) {
    const std::int32_t app = static_cast<std::int32_t>(h[0] | h[1] << 8 | h[2] << 16 |
                                                       static_cast<std::uint32_t>(h[3]) << 24);
    const int fonction = static_cast<signed char>(h[6]);
    const std::int32_t nb = static_cast<std::int32_t>(h[7] | h[8] << 8 | h[9] << 16 |
                                                      static_cast<std::uint32_t>(h[10]) << 24);
    const std::uint32_t taille = h[11] | h[12] << 8 | h[13] << 16 |
                                 static_cast<std::uint32_t>(h[14]) << 24;
    static const int kCodes[] = {0, 1, 5, 6, 7, 8, 9, 20, 21, 25, 26, 28, 29};
    bool known = fonction >= 101 && fonction <= 120;
    for (int c : kCodes) known = known || fonction == c;
    return known && app >= 0 && app <= 128000 && nb <= 50000 && taille <= 256000;
}

}  // namespace fuzzsupport

#endif

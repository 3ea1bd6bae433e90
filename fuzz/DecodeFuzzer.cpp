// Fuzz target of the message decoders.
//
// Input: one byte that picks the path, then a 16-byte header, then the body.
// The decoders trust the header's body length (the receive loop reads exactly
// that many bytes before decoding), so the target keeps that promise: the
// length is cut to the bytes the input really has, and the message sits in a
// heap block of exactly its size, where a read past it is caught by the
// address sanitizer. Whatever was decoded is then rendered, encoded again
// and decoded once more, which must give back as many parameters.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include <korvane/CMsgSocket.h>

#include "FuzzSupport.h"
#include "protocol/WireHeader.h"

namespace {

constexpr std::size_t kEntete = KVN_TAILLE_ENTETE;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::uint8_t mode = data[0];
    std::size_t pos = 1;
    std::unique_ptr<BYTE[]> message = fuzzsupport::NextMessage(data, size, pos);
    if (!message) return 0;
    const std::size_t body = pos - 1 - kEntete;

    CMsgSocket m;
    if (mode & 1) {
        if (m.AnalyseMessageComplet(message.get()) != 1) return 0;
    } else {
        CEnteteMsgSocket e;
        DecodeEntete(message.get(), e);
        std::unique_ptr<BYTE[]> corps(new BYTE[body ? body : 1]);
        if (body) std::memcpy(corps.get(), message.get() + kEntete, body);
        if (m.AnalyseMessage(e, corps.get()) != 1) return 0;
    }
    fuzzsupport::Render(m);

    const int kept = m.GetNbParametre();
    if (!m.CreateMessage((mode & 2) ? 0 : -1)) return 0;  // a message without header
    int len = 0;
    BYTE* encoded = m.GetMessage(&len);
    FUZZ_CHECK(encoded && len >= static_cast<int>(kEntete));
    std::unique_ptr<BYTE[]> copy(new BYTE[len]);
    std::memcpy(copy.get(), encoded, static_cast<std::size_t>(len));
    FUZZ_CHECK(GetLE32(copy.get() + 11) + kEntete == static_cast<std::uint32_t>(len));

    CMsgSocket again;
    FUZZ_CHECK(again.AnalyseMessageComplet(copy.get()) == 1);
    FUZZ_CHECK(again.GetNbParametre() == kept);
    return 0;
}

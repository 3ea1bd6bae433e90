// The message format as the test peer writes and reads it: the 16-byte header,
// the typed parameter records, and builders for answer values. Written apart
// from the library's codec on purpose and sharing no code with it, so that a
// mistake in the library's codec cannot hide behind the same mistake here.
#ifndef KVN_TESTS_PEER_WIRECODEC_H
#define KVN_TESTS_PEER_WIRECODEC_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace peer {

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

const std::size_t kHeaderSize = 16;

// Type bytes of the parameter records, as they travel.
const std::uint8_t kTypeChar = 0x01;
const std::uint8_t kTypeWChar = 0xF8;
const std::uint8_t kTypeLong = 0x04;
const std::uint8_t kTypeDouble = 0x08;
const std::uint8_t kTypeTimestamp = 0x0B;
const std::uint8_t kTypeBigInt = 0xE7;
const std::uint8_t kTypeGuid = 0xF5;
// The size field of a NULL value.
const std::uint16_t kNullSize = 0xFFFF;

// Header fields, little-endian at offsets 0, 4, 6, 7, 11 and 15.
struct Header {
    std::int32_t idApplication = 0;
    std::uint16_t idConnexion = 0;
    std::int8_t fonction = 0;
    std::int32_t nbParam = 0;
    std::uint32_t tailleData = 0;
    std::int8_t unicode = 1;
};

Bytes EncodeHeader(const Header& header);
// `bytes` holds at least kHeaderSize bytes.
Header DecodeHeader(const std::uint8_t* bytes);

// One parameter record: type byte, 16-bit size, value bytes.
struct Value {
    std::uint8_t type = 0;
    std::uint16_t size = 0;  // characters of a text, bytes otherwise; kNullSize for NULL
    Bytes data;              // the value bytes as they travel
    // A text is written from `text` in the message's width (two bytes a UTF-16
    // unit when the header's unicode byte is 1, else the low byte of each unit).
    bool isText = false;
    std::u16string text;

    bool IsNull() const { return size == kNullSize; }
    // The value read as its type says; 0 (or empty) when there are too few bytes.
    std::int32_t AsLong() const;
    double AsDouble() const;
    std::wstring AsWide() const;
};

// A LONG of the given size field: the value's 4 bytes, then zero bytes up to
// `size` (the bound-parameter operations send LONGs of size 8).
Value Long(std::int32_t v, std::uint16_t size = 4);
Value Double(double v);
Value BigInt(std::int64_t v);
// A text (size: UTF-16 code units); a wide literal is converted to UTF-16.
Value Text(const std::u16string& text, std::uint8_t type = kTypeWChar);
Value Text(const wchar_t* text, std::uint8_t type = kTypeWChar);
Value NullOf(std::uint8_t type);
// The 18 ASCII digits DDMMYYYYhhmmssffff.
Value Timestamp(const std::string& digits);

struct Message {
    Header header;
    std::vector<Value> params;

    // Filled for a message read from a socket.
    bool complete = false;  // the whole header and the body it announced arrived
    std::string error;      // why the body could not be decoded; empty when it could
    Bytes raw;              // every byte read for it, header included
    Clock::time_point at{}; // when its last byte arrived

    int Fonction() const { return header.fonction; }
    int IdApplication() const { return header.idApplication; }
    int IdConnexion() const { return header.idConnexion; }
    int Count() const { return static_cast<int>(params.size()); }
    // Parameter i; a NULL value of type 0 (and a test failure) when there is none.
    const Value& Param(int i) const;
};

// A message to send: the counts in its header are computed by Encode.
Message Msg(int fonction, int idApplication, int idConnexion, std::vector<Value> params = {},
            int unicode = 1);

// Header and records; nbParam and tailleData are those of `params`.
Bytes Encode(const Message& message);
// The bare header that acknowledges (1) or refuses (0) a message: its ids, no body.
Bytes AckHeader(const Header& acknowledged, int fonction);

// Decodes `length` body bytes into message.params as message.header describes
// them; false (with message.error) unless the records fill the body exactly.
bool DecodeBody(Message& message, const std::uint8_t* body, std::size_t length);
// Decodes a whole message (header then body).
Message Decode(const Bytes& bytes);

// "07 00 00 00 03 00 ..." for readable failure messages.
std::string Hex(const Bytes& bytes);

}  // namespace peer

#endif

// The test peer's own encoder and decoder of the message format.
#include "peer/WireCodec.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include <gtest/gtest.h>

namespace peer {

namespace {

void PutLE(Bytes& out, std::uint64_t v, int width) {
    for (int i = 0; i < width; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

std::uint64_t GetLE(const std::uint8_t* p, int width) {
    std::uint64_t v = 0;
    for (int i = width - 1; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

bool IsTextType(std::uint8_t type) { return type == kTypeChar || type == kTypeWChar; }

Value Record(std::uint8_t type, std::uint16_t size, Bytes data = {}) {
    Value out;
    out.type = type;
    out.size = size;
    out.data = std::move(data);
    return out;
}

Value Number(std::uint8_t type, std::uint64_t bits) {
    Value out = Record(type, 8);
    PutLE(out.data, bits, 8);
    return out;
}

// UTF-16 of a wide text: surrogate pairs where wchar_t is 32-bit.
std::u16string ToUtf16(const std::wstring& text) {
    std::u16string out;
    for (wchar_t c : text) {
        std::uint32_t cp = static_cast<std::uint32_t>(c);
        if (sizeof(wchar_t) > 2 && cp > 0xFFFF) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
    }
    return out;
}

}  // namespace

Bytes EncodeHeader(const Header& header) {
    Bytes out;
    PutLE(out, static_cast<std::uint32_t>(header.idApplication), 4);
    PutLE(out, header.idConnexion, 2);
    out.push_back(static_cast<std::uint8_t>(header.fonction));
    PutLE(out, static_cast<std::uint32_t>(header.nbParam), 4);
    PutLE(out, header.tailleData, 4);
    out.push_back(static_cast<std::uint8_t>(header.unicode));
    return out;
}

Header DecodeHeader(const std::uint8_t* bytes) {
    Header h;
    h.idApplication = static_cast<std::int32_t>(GetLE(bytes, 4));
    h.idConnexion = static_cast<std::uint16_t>(GetLE(bytes + 4, 2));
    h.fonction = static_cast<std::int8_t>(bytes[6]);
    h.nbParam = static_cast<std::int32_t>(GetLE(bytes + 7, 4));
    h.tailleData = static_cast<std::uint32_t>(GetLE(bytes + 11, 4));
    h.unicode = static_cast<std::int8_t>(bytes[15]);
    return h;
}

// ---- Values -------------------------------------------------------------------------

std::int32_t Value::AsLong() const {
    return data.size() >= 4 ? static_cast<std::int32_t>(GetLE(data.data(), 4)) : 0;
}

double Value::AsDouble() const {
    if (data.size() < 8) return 0.0;
    std::uint64_t bits = GetLE(data.data(), 8);
    double d = 0.0;
    std::memcpy(&d, &bits, sizeof d);
    return d;
}

std::wstring Value::AsWide() const {
    std::wstring out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::uint32_t unit = text[i];
        bool pair = sizeof(wchar_t) > 2 && unit >= 0xD800 && unit < 0xDC00 && i + 1 < text.size() &&
                    text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000;
        if (pair) {
            std::uint32_t low = text[++i];
            out.push_back(static_cast<wchar_t>(0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00)));
        } else {
            out.push_back(static_cast<wchar_t>(unit));
        }
    }
    return out;
}

Value Long(std::int32_t v, std::uint16_t size) {
    Value out = Record(kTypeLong, size);
    PutLE(out.data, static_cast<std::uint32_t>(v), 4);
    out.data.resize(size, 0);
    return out;
}

Value Double(double v) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &v, sizeof bits);
    return Number(kTypeDouble, bits);
}

Value BigInt(std::int64_t v) { return Number(kTypeBigInt, static_cast<std::uint64_t>(v)); }

Value Text(const std::u16string& text, std::uint8_t type) {
    Value out = Record(type, static_cast<std::uint16_t>(text.size()));
    out.isText = true;
    out.text = text;
    return out;
}

Value Text(const wchar_t* text, std::uint8_t type) {
    return Text(ToUtf16(text ? std::wstring(text) : std::wstring()), type);
}

Value NullOf(std::uint8_t type) {
    Value out = Record(type, kNullSize);
    out.isText = IsTextType(type);
    return out;
}

Value Timestamp(const std::string& digits) {
    EXPECT_EQ(18u, digits.size()) << "a timestamp travels as 18 digits: " << digits;
    return Record(kTypeTimestamp, static_cast<std::uint16_t>(digits.size()), Bytes(digits.begin(), digits.end()));
}

// ---- Messages ---------------------------------------------------------------------------

const Value& Message::Param(int i) const {
    static const Value kNone = NullOf(0);
    if (i >= 0 && i < Count()) return params[static_cast<std::size_t>(i)];
    ADD_FAILURE() << "the message has no parameter " << i << " (it has " << Count() << ")";
    return kNone;
}

Message Msg(int fonction, int idApplication, int idConnexion, std::vector<Value> params, int unicode) {
    Message m;
    m.header.idApplication = idApplication;
    m.header.idConnexion = static_cast<std::uint16_t>(idConnexion);
    m.header.fonction = static_cast<std::int8_t>(fonction);
    m.header.unicode = static_cast<std::int8_t>(unicode);
    m.params = std::move(params);
    return m;
}

Bytes Encode(const Message& message) {
    Bytes body;
    for (const Value& v : message.params) {
        body.push_back(v.type);
        PutLE(body, v.size, 2);
        if (v.IsNull()) continue;
        if (!v.isText) body.insert(body.end(), v.data.begin(), v.data.end());
        for (char16_t unit : v.isText ? v.text : std::u16string()) {
            if (message.header.unicode != 0) PutLE(body, unit, 2);
            else body.push_back(static_cast<std::uint8_t>(unit));
        }
    }
    Header h = message.header;
    h.nbParam = static_cast<std::int32_t>(message.params.size());
    h.tailleData = static_cast<std::uint32_t>(body.size());
    Bytes out = EncodeHeader(h);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes AckHeader(const Header& acknowledged, int fonction) {
    Header h;
    h.idApplication = acknowledged.idApplication;
    h.idConnexion = acknowledged.idConnexion;
    h.fonction = static_cast<std::int8_t>(fonction);
    h.unicode = 0;  // nobody reads it in an acknowledgement
    return EncodeHeader(h);
}

bool DecodeBody(Message& message, const std::uint8_t* body, std::size_t length) {
    message.params.clear();
    message.error.clear();
    const bool unicode = message.header.unicode != 0;
    std::size_t pos = 0;
    for (std::int32_t i = 0; i < message.header.nbParam; ++i) {
        if (length - pos < 3) {
            message.error = "record " + std::to_string(i) + " starts beyond the body";
            return false;
        }
        Value v = Record(body[pos], static_cast<std::uint16_t>(GetLE(body + pos + 1, 2)));
        v.isText = IsTextType(v.type);
        pos += 3;
        std::size_t width = 0;
        if (!v.IsNull()) width = v.isText && unicode ? 2u * v.size : v.size;
        if (length - pos < width) {
            message.error = "record " + std::to_string(i) + " runs beyond the body";
            return false;
        }
        v.data.assign(body + pos, body + pos + width);
        for (std::size_t k = 0; v.isText && !v.IsNull() && k < v.size; ++k) {
            v.text.push_back(unicode ? static_cast<char16_t>(GetLE(body + pos + 2 * k, 2))
                                     : static_cast<char16_t>(body[pos + k]));
        }
        pos += width;
        message.params.push_back(std::move(v));
    }
    if (pos == length) return true;
    message.error = std::to_string(length - pos) + " bytes follow the last record";
    return false;
}

Message Decode(const Bytes& bytes) {
    Message m;
    m.raw = bytes;
    if (bytes.size() < kHeaderSize) {
        m.error = "shorter than a header";
        return m;
    }
    m.header = DecodeHeader(bytes.data());
    if (bytes.size() - kHeaderSize != m.header.tailleData) {
        m.error = "the body is not the length the header announces";
        return m;
    }
    m.complete = true;
    DecodeBody(m, bytes.data() + kHeaderSize, bytes.size() - kHeaderSize);
    return m;
}

std::string Hex(const Bytes& bytes) {
    std::string out;
    char two[4];
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(two, sizeof two, i ? " %02X" : "%02X", bytes[i]);
        out += two;
    }
    return out;
}

}  // namespace peer

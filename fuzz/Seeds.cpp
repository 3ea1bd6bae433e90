// Writes the starting corpus of a fuzz target: messages built with the
// library's own encoder that hold a value of every type (texts in both widths
// with characters beyond U+FFFF, longs in fields of 4 and 8, doubles,
// timestamps, 64-bit integers, GUIDs, NULLs of each type), laid out as the
// target reads its input.
//   kvn_fuzz_seeds decode|exchange DIRECTORY
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <korvane/CMsgSocket.h>

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

bool WriteSeed(const std::string& dir, const std::string& name, const Bytes& bytes) {
    const std::string path = dir + "/" + name;
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return std::fclose(f) == 0 && ok;
}


Bytes Message(int fonction, int app, int cnx, const std::function<void(CMsgSocket&)>& fill,
              int unicode = -1) {
    CMsgSocket m;
    m.SetEntete(app, fonction, cnx);
    fill(m);
    m.CreateMessage(unicode);
    int len = 0;
    const BYTE* bytes = m.GetMessage(&len);
    return Bytes(bytes, bytes + len);
}

Bytes Header(int fonction, int app, int cnx) { return Message(fonction, app, cnx, [](CMsgSocket&) {}); }

void AddLong(CMsgSocket& m, std::int32_t v, int size) {
    CParam* p = new CParam;
    p->cType = SQL_C_LONG;
    p->nTaille = static_cast<short>(size);
    p->valNum.lVal = v;
    m.AddParametre(p);
}

void AddText(CMsgSocket& m, const wchar_t* text, int type) {
    std::size_t n = 0;
    while (text[n]) ++n;
    m.AddParametre(type, static_cast<unsigned>(n), text);
}

void AddEveryValue(CMsgSocket& m) {
    AddLong(m, -12, 4);
    AddLong(m, 77, 8);  // as bound parameters carry it
    double d = 2.5;
    m.AddParametre(SQL_C_DOUBLE, 0, &d);
    KvnTimestamp ts = {2006, 3, 7, 14, 5, 9, 0};
    m.AddParametre(SQL_C_TIMESTAMP, 0, &ts);
    std::int64_t big = -(1LL << 40);
    m.AddParametre(SQL_C_SBIGINT, 0, &big);
    m.AddParametre(SQL_C_UBIGINT, 0, &big);
    kvn::GUID g = {0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 8}};
    m.AddParametre(SQL_C_GUID, 0, &g);
    AddText(m, L"caf\u00e9 \u20ac \U0001F680", SQL_C_WCHAR);
    AddText(m, L"plain", SQL_C_CHAR);
    AddText(m, L"", SQL_C_CHAR);
    for (int type : {SQL_C_LONG, SQL_C_DOUBLE, SQL_C_TIMESTAMP, SQL_C_SBIGINT, SQL_C_WCHAR, SQL_C_CHAR})
        m.AddParametre(type, 0, nullptr);
}

using Seeds = std::vector<std::pair<std::string, Bytes>>;

// The answer to INIT_APPLICATION that the service gives: ten values, the
// fifth the heartbeat's address.
void AddInitAnswer(CMsgSocket& m) {
    for (int v : {4000, 3, 9999, 1}) AddLong(m, v, 4);
    AddText(m, L"239.1.2.3", SQL_C_WCHAR);
    for (int v : {0, 2, 3000, 1000, 1}) AddLong(m, v, 4);
}

// Exchange target: the mode byte, the flags byte, then what the peer sends.
void ExchangeSeeds(Seeds& seeds) {
    const Bytes ack = Header(KVN_ACK, 7, 3);
    const Bytes refusal = Header(KVN_INIT_OK, 7, 3);
    const Bytes every = Message(KVN_EXECUTE, 7, 3, AddEveryValue);
    const Bytes everyNarrow = Message(KVN_EXECUTESELECT, 7, 3, AddEveryValue, 0);
    const Bytes beat = Header(KVN_HEART_BEAT, 7, 3);
    const Bytes implausible = Header(2, 7, 3);
    const Bytes initAnswer = Message(KVN_INIT_OK, 12, 0, AddInitAnswer);
    const Bytes tooMany = Message(KVN_INIT_OK, 12, 0, [](CMsgSocket& m) { AddLong(m, -54, 4); });
    const Bytes accepted = Header(KVN_INIT_OK, 7, 3);
    for (std::uint8_t flags : {0, 4}) {
        const std::string f = flags ? "-traced" : "";
        seeds.emplace_back("receive" + f, Concat({{0, flags}, every, beat, everyNarrow, ack, implausible, every}));
        seeds.emplace_back("send" + f, Concat({{1, flags}, ack}));
        seeds.emplace_back("send-refused" + f, Concat({{1, flags}, refusal}));
        seeds.emplace_back("init" + f, Concat({{2, flags}, ack, initAnswer}));
        seeds.emplace_back("init-refused" + f, Concat({{2, flags}, ack, tooMany}));
        seeds.emplace_back("reinit" + f, Concat({{3, flags}, ack, initAnswer}));
        seeds.emplace_back("cnx" + f, Concat({{4, flags}, ack, accepted}));
        seeds.emplace_back("recnx" + f, Concat({{5, flags}, ack, accepted}));
        seeds.emplace_back("close" + f, Concat({{6, flags}, ack}));
        seeds.emplace_back("beat" + f, Concat({{7, flags}, ack}));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s decode|exchange DIRECTORY\n", argv[0]);
        return 2;
    }
    const std::string target = argv[1];
    const std::string dir = argv[2];
    Seeds seeds;
    if (target == "decode") {
        // The path byte (bit 0: whole message or header and body apart; bit
        // 1: re-encoded with one byte a character), then the message.
        for (int unicode : {-1, 0}) {
            Bytes every = Message(KVN_EXECUTE, 7, 3, AddEveryValue, unicode);
            for (std::uint8_t mode = 0; mode < 4; ++mode)
                seeds.emplace_back("every-" + std::to_string(unicode + 1) + "-" + std::to_string(mode),
                                   Concat({{mode}, every}));
        }
    } else if (target == "exchange") {
        ExchangeSeeds(seeds);
    } else {
        std::fprintf(stderr, "unknown target %s\n", target.c_str());
        return 2;
    }
    for (const auto& seed : seeds) {
        if (!WriteSeed(dir, seed.first, seed.second)) {
            std::fprintf(stderr, "cannot write %s/%s\n", dir.c_str(), seed.first.c_str());
            return 1;
        }
    }
    return 0;
}

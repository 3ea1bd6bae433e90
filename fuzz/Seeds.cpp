// Writes the starting corpus of a fuzz target: messages built with the
// library's own encoder that hold a value of every type (texts in both widths
// with characters beyond U+FFFF, longs in fields of 4 and 8, doubles,
// timestamps, 64-bit integers, GUIDs, NULLs of each type), laid out as the
// target reads its input.
//   kvn_fuzz_seeds decode|exchange|dispatch|service DIRECTORY
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

// Dispatch target: a flags byte, then answers back to back.
void DispatchSeeds(Seeds& seeds) {
    auto longs = [](std::initializer_list<int> values) {
        return [values](CMsgSocket& m) {
            for (int v : values) AddLong(m, v, 4);
        };
    };
    // The select: status, value, second status, rows, columns, more rows,
    // then two rows of a value of every type.
    CMsgSocket sample;
    AddEveryValue(sample);
    const int columns = sample.GetNbParametre();
    auto select = [columns](int fonction) {
        return [columns, fonction](CMsgSocket& m) {
            if (fonction == KVN_EXECUTESELECT) {
                for (int v : {0, -1, 0}) AddLong(m, v, 4);
            } else {
                AddLong(m, 0, 4);
            }
            for (int v : {2, columns, fonction == KVN_EXECUTESELECT ? 1 : 0}) AddLong(m, v, 4);
            AddEveryValue(m);
            AddEveryValue(m);
        };
    };
    const Bytes rows = Concat({Message(KVN_EXECUTESELECT, 7, 1, select(KVN_EXECUTESELECT)),
                               Message(KVN_GETLINE, 7, 1, select(KVN_GETLINE))});
    const Bytes proc = Message(KVN_EXECUTEPROC, 7, 1, [](CMsgSocket& m) {
        AddLong(m, 0, 4);
        AddLong(m, 8, 8);
        double d = -0.5;
        m.AddParametre(SQL_C_DOUBLE, 0, &d);
        std::int64_t big = 1LL << 40;
        m.AddParametre(SQL_C_SBIGINT, 0, &big);
        KvnTimestamp ts = {2024, 2, 29, 23, 59, 58, 0};
        m.AddParametre(SQL_C_TIMESTAMP, 0, &ts);
        AddText(m, L"sortie \U0001F680", SQL_C_WCHAR);
        AddText(m, L"retour", SQL_C_CHAR);
    });
    Bytes values;
    for (int fonction : {KVN_EXECUTE, KVN_EXECUTEBIND, KVN_GETDATA, KVN_GET_ODBC_ERROR_TEXT}) {
        values = Concat({values, Message(fonction, 7, 1, [](CMsgSocket& m) {
                                     AddLong(m, 0, 4);
                                     AddText(m, L"valeur \u20ac", SQL_C_WCHAR);
                                 })});
    }
    values = Concat({values, Message(KVN_EXISTTABLE, 7, 1, longs({0, 1})),
                     Message(KVN_EXISTCOLUMN, 7, 1, longs({-2, KVN_ERROR_ODBC})),
                     Message(KVN_FETCH, 7, 1, longs({0})),
                     Message(KVN_REQUETE_METABASE, 7, 1, longs({-2, KVN_ERROR_TABLE_NOT_FOUND})),
                     Message(KVN_GETCOLUMNS, 7, 1, [](CMsgSocket& m) {
                         AddLong(m, 0, 4);
                         AddLong(m, 2, 4);
                         AddText(m, L"nom;ville", SQL_C_WCHAR);
                         AddText(m, L"VARCHAR;INTEGER", SQL_C_WCHAR);
                     }),
                     Header(KVN_HEART_BEAT, 7, 1), Header(KVN_LIBERE_CNX_SELECT, 7, 1)});
    for (std::uint8_t flags : {0, 1, 0x1E}) {
        const std::string f = std::to_string(flags);
        seeds.emplace_back("rows-" + f, Concat({{flags}, rows}));
        seeds.emplace_back("proc-" + f, Concat({{flags}, proc}));
        seeds.emplace_back("values-" + f, Concat({{flags}, values}));
    }
}

// Service target: a flags byte, then requests back to back.
void ServiceSeeds(Seeds& seeds) {
    auto text = [](const wchar_t* t) { return [t](CMsgSocket& m) { AddText(m, t, SQL_C_WCHAR); }; };
    auto request = [](int fonction, const std::function<void(CMsgSocket&)>& fill) {
        return Message(fonction, 1, 1, fill);
    };
    const Bytes table = Concat(
        {request(KVN_EXECUTE, text(L"CREATE TABLE t (a INTEGER, b TEXT, c REAL, d TIMESTAMP, e BIGINT)")),
         request(KVN_EXECUTEBIND, [](CMsgSocket& m) {
             AddText(m, L"INSERT INTO t VALUES (?, ?, ?, ?, ?)", SQL_C_WCHAR);
             AddLong(m, 7, 8);
             AddText(m, L"caf\u00e9 \U0001F680", SQL_C_WCHAR);
             double d = 2.5;
             m.AddParametre(SQL_C_DOUBLE, 0, &d);
             KvnTimestamp ts = {2024, 2, 29, 23, 59, 58, 0};
             m.AddParametre(SQL_C_TIMESTAMP, 0, &ts);
             std::int64_t big = -(1LL << 40);
             m.AddParametre(SQL_C_SBIGINT, 0, &big);
         }),
         request(KVN_EXECUTEBIND, [](CMsgSocket& m) {
             AddText(m, L"INSERT INTO t VALUES (?, ?, ?, ?, ?)", SQL_C_WCHAR);
             for (int type : {SQL_C_LONG, SQL_C_WCHAR, SQL_C_DOUBLE, SQL_C_TIMESTAMP, SQL_C_SBIGINT})
                 m.AddParametre(type, 0, nullptr);
         })});
    const Bytes reads = Concat(
        {request(KVN_EXECUTESELECT, text(L"SELECT a, b, c, d, e, '' AS vide FROM t")),
         request(KVN_GETLINE, [](CMsgSocket& m) { AddLong(m, 0, 4); }),
         request(KVN_LIBERE_CNX_SELECT, [](CMsgSocket&) {}),
         request(KVN_EXISTTABLE, text(L"t")),
         request(KVN_EXISTCOLUMN, [](CMsgSocket& m) {
             AddText(m, L"t", SQL_C_WCHAR);
             AddText(m, L"b", SQL_C_WCHAR);
         }),
         request(KVN_GETCOLUMNS, text(L"t")),
         request(KVN_REQUETE_METABASE, text(L"DELETE FROM t WHERE a = 0")),
         request(KVN_GET_ODBC_ERROR_TEXT, [](CMsgSocket&) {})});
    const Bytes proc = request(KVN_EXECUTEPROC, [](CMsgSocket& m) {
        AddText(m, L"kvn_proc", SQL_C_WCHAR);
        AddLong(m, 0, 4);
        for (int sens : {KVN_PARAM_IN, KVN_PARAM_INOUT, KVN_PARAM_OUT}) {
            AddLong(m, sens, 4);
            if (sens == KVN_PARAM_OUT) m.AddParametre(SQL_C_WCHAR, 0, nullptr);
            else AddLong(m, 3, 8);
        }
    });
    const Bytes others = Concat({request(KVN_FETCH, [](CMsgSocket&) {}),
                                 request(KVN_GETDATA, [](CMsgSocket& m) {
                                     AddLong(m, 1, 4);
                                     AddLong(m, 2, 4);
                                 }),
                                 Header(KVN_HEART_BEAT, 1, 1), Header(KVN_PREPARE, 1, 1)});
    const Bytes application = Concat({Header(KVN_HEART_BEAT, 1, 0), Header(KVN_CLOSE_APPLICATION, 1, 0)});
    seeds.emplace_back("table", Concat({{0}, table, reads}));
    seeds.emplace_back("proc", Concat({{0}, proc, others}));
    seeds.emplace_back("application", Concat({{1}, application}));
    seeds.emplace_back("unregistered", Concat({{2}, table}));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s decode|exchange|dispatch|service DIRECTORY\n", argv[0]);
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
    } else if (target == "dispatch") {
        DispatchSeeds(seeds);
    } else if (target == "service") {
        ServiceSeeds(seeds);
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

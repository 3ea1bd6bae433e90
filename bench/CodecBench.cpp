// The codec on memory: encoding a statement, decoding a block of rows.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include <korvane/CMsgSocket.h>

namespace {

void EncodeExecute(benchmark::State& state) {
    const wchar_t* sql = L"UPDATE orders SET state = 2 WHERE id = 1042";
    for (auto _ : state) {
        CMsgSocket m;
        m.SetEntete(7, KVN_EXECUTE, 1);
        m.AddParametre(SQL_C_WCHAR, 44, sql);
        m.CreateMessage(1);
        int len = 0;
        benchmark::DoNotOptimize(m.GetMessageW(&len));
    }
}
BENCHMARK(EncodeExecute);

// A block of rows as a select answer carries them: per row an integer, a
// double, a text and a NULL.
std::vector<BYTE> EncodedRows(int rows) {
    CMsgSocket m;
    m.SetEntete(7, KVN_EXECUTESELECT, 1);
    std::int32_t status = 0;
    m.AddParametre(SQL_C_LONG, 4, &status);
    for (int r = 0; r < rows; ++r) {
        std::int32_t id = r;
        double amount = r * 1.25;
        m.AddParametre(SQL_C_LONG, 4, &id);
        m.AddParametre(SQL_C_DOUBLE, 8, &amount);
        m.AddParametre(SQL_C_WCHAR, 12, L"customer-042");
        m.AddParametre(SQL_C_LONG, 4, nullptr);
    }
    m.CreateMessage(1);
    int len = 0;
    BYTE* bytes = m.GetMessageW(&len);
    return std::vector<BYTE>(bytes, bytes + len);
}

void DecodeRowBlock(benchmark::State& state) {
    std::vector<BYTE> bytes = EncodedRows(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        CMsgSocket m;
        std::vector<BYTE> copy = bytes;
        benchmark::DoNotOptimize(m.AnalyseMessageComplet(copy.data()));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(bytes.size()));
}
BENCHMARK(DecodeRowBlock)->Arg(1)->Arg(100)->Arg(1000);

}  // namespace

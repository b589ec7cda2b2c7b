// foundation.cpp: symbol interning, StringBuffer filling and AString growth, each beside a plain baseline
// measured in the same run.
//
//   ./build/release/bench/tarvik_bench_foundation --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "tarvik/AString.h"
#include "tarvik/StringBuffer.h"
#include "tarvik/Symbol.h"

using namespace tarvik;

namespace {

constexpr unsigned int kMiB = 1u << 20;

// --- symbols --------------------------------------------------------------------------------------------

void BM_SymbolInternExisting(benchmark::State& state) {
    static Symbol const warm("bench.existing.name");
    for (auto _ : state) benchmark::DoNotOptimize(Symbol("bench.existing.name"));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SymbolInternExisting)->Threads(1)->Threads(2)->UseRealTime();

// New names are made before timing starts, so the loop measures interning alone. Each run takes fresh
// names (a process-wide counter), since a name is new only once.
constexpr int kNewNames = 200000;
std::atomic<long> next_name{0};

void BM_SymbolInternNew(benchmark::State& state) {
    std::vector<std::string> names(kNewNames);
    for (std::string& n : names) n = "bench.new." + std::to_string(next_name.fetch_add(1));
    std::size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(Symbol(names[i++].c_str()));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SymbolInternNew)->Threads(1)->Threads(2)->Iterations(kNewNames)->UseRealTime();

// --- StringBuffer ---------------------------------------------------------------------------------------

std::vector<char> const& source_MiB() {
    static std::vector<char> const bytes = [] {
        std::vector<char> b(kMiB);
        for (unsigned int i = 0; i < kMiB; ++i) b[i] = static_cast<char>(i * 31 + 7);
        return b;
    }();
    return bytes;
}

void BM_Memcpy1MiB(benchmark::State& state) {
    std::vector<char> const& src = source_MiB();
    std::vector<char> dst(kMiB);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), kMiB);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kMiB);
}
BENCHMARK(BM_Memcpy1MiB);

// A fresh buffer each time, as a producer would use it; the pages are freed outside the timed part.
void BM_StringBufferByteByByte1MiB(benchmark::State& state) {
    std::vector<char> const& src = source_MiB();
    auto page = static_cast<unsigned int>(state.range(0));
    for (auto _ : state) {
        StringBuffer buffer(page);
        for (unsigned int i = 0; i < kMiB; ++i) buffer.append(src[i]);
        benchmark::DoNotOptimize(buffer.size());
        state.PauseTiming();
        buffer.clear();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * kMiB);
}
BENCHMARK(BM_StringBufferByteByByte1MiB)->Arg(128)->Arg(4096);

void BM_StringBufferPageFill1MiB(benchmark::State& state) {
    std::vector<char> const& src = source_MiB();
    auto page = static_cast<unsigned int>(state.range(0));
    for (auto _ : state) {
        StringBuffer buffer(page);
        for (unsigned int done = 0; done < kMiB;) {
            char* room = buffer.append();
            unsigned int n = kMiB - done < page ? kMiB - done : page;
            std::memcpy(room, src.data() + done, n);
            buffer.add_size(n);
            done += n;
        }
        benchmark::DoNotOptimize(buffer.size());
        state.PauseTiming();
        buffer.clear();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * kMiB);
}
BENCHMARK(BM_StringBufferPageFill1MiB)->Arg(128)->Arg(4096)->Arg(65536);

// --- AString growth ---------------------------------------------------------------------------------------

constexpr int kChars = 10000;

void BM_AStringAppendChar10000(benchmark::State& state) {
    for (auto _ : state) {
        AString s;
        for (int i = 0; i < kChars; ++i) s += static_cast<char>('a' + i % 26);
        benchmark::DoNotOptimize(s.c_str());
    }
    state.SetItemsProcessed(state.iterations() * kChars);
}
BENCHMARK(BM_AStringAppendChar10000);

void BM_AStringAppendCharReserved10000(benchmark::State& state) {
    for (auto _ : state) {
        AString s;
        s.reserve(kChars);
        for (int i = 0; i < kChars; ++i) s += static_cast<char>('a' + i % 26);
        benchmark::DoNotOptimize(s.c_str());
    }
    state.SetItemsProcessed(state.iterations() * kChars);
}
BENCHMARK(BM_AStringAppendCharReserved10000);

void BM_StdStringAppendChar10000(benchmark::State& state) {
    for (auto _ : state) {
        std::string s;
        for (int i = 0; i < kChars; ++i) s += static_cast<char>('a' + i % 26);
        benchmark::DoNotOptimize(s.data());
    }
    state.SetItemsProcessed(state.iterations() * kChars);
}
BENCHMARK(BM_StdStringAppendChar10000);

}  // namespace

BENCHMARK_MAIN();

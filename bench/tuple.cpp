// tuple.cpp: building, reading, copying and comparing a tuple of ten attributes of mixed kinds, beside a
// std::map<std::string, std::variant<...>> doing the same work in the same run; and the clock and date text.
//
//   ./build/release/bench/tarvik_bench_tuple
#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "tarvik/Time.h"
#include "tarvik/Tuple.h"

using namespace tarvik;

namespace {

// The names are interned once, as a program holds its attribute names.
struct Names {
    Symbol id{"id"}, price{"price"}, qty{"qty"}, symbol{"symbol"}, note{"note"}, active{"active"},
        ratio{"ratio"}, when{"when"}, owner{"owner"}, samples{"samples"};
};
Names const& names() {
    static Names const n;
    return n;
}

void build(Tuple& t) {
    Names const& n = names();
    t.set_int(n.id, 123456);
    t.set_double(n.price, 99.95);
    t.set_long(n.qty, 1000000000000LL);
    t.set_astring(n.symbol, "ACME");
    t.set_astring(n.note, "a short note of a few words");
    t.set_bool(n.active, true);
    t.set_float(n.ratio, 0.25f);
    t.set_time_period(n.when, TimePeriod(0, 0, 1, 30, 0, true));
    t.set_symbol(n.owner, n.id);
    ListInt& samples = t.set_list_int(n.samples);
    for (int i = 0; i < 8; ++i) samples.push_back(i);
}

std::int64_t read_back(Tuple const& t) {
    Names const& n = names();
    std::int64_t sum = t.get_int(n.id, 0) + static_cast<std::int64_t>(t.get_double(n.price, 0)) + t.get_long(n.qty, 0) +
                       t.get_astring(n.symbol).length() + t.get_astring(n.note).length() + t.get_bool(n.active, false) +
                       static_cast<std::int64_t>(t.get_float(n.ratio, 0) * 4) + t.get_time_period(n.when).to_seconds() +
                       t.get_symbol(n.owner).get_num();
    for (int v : t.get_list_int(n.samples)) sum += v;
    return sum;
}

using Variant = std::variant<bool, int, std::int64_t, float, double, std::string, std::vector<int>>;
using Map = std::map<std::string, Variant>;

void build(Map& m) {
    m["id"] = 123456;
    m["price"] = 99.95;
    m["qty"] = std::int64_t{1000000000000LL};
    m["symbol"] = std::string("ACME");
    m["note"] = std::string("a short note of a few words");
    m["active"] = true;
    m["ratio"] = 0.25f;
    m["when"] = std::int64_t{90};
    m["owner"] = std::string("id");
    std::vector<int> samples;
    for (int i = 0; i < 8; ++i) samples.push_back(i);
    m["samples"] = std::move(samples);
}

std::int64_t read_back(Map const& m) {
    std::int64_t sum = std::get<int>(m.at("id")) + static_cast<std::int64_t>(std::get<double>(m.at("price"))) +
                       std::get<std::int64_t>(m.at("qty")) + std::get<std::string>(m.at("symbol")).size() +
                       std::get<std::string>(m.at("note")).size() + std::get<bool>(m.at("active")) +
                       static_cast<std::int64_t>(std::get<float>(m.at("ratio")) * 4) +
                       std::get<std::int64_t>(m.at("when")) + std::get<std::string>(m.at("owner")).size();
    for (int v : std::get<std::vector<int>>(m.at("samples"))) sum += v;
    return sum;
}

template <class Record>
void BM_Build(benchmark::State& state) {
    for (auto _ : state) {
        Record r;
        build(r);
        benchmark::DoNotOptimize(&r);
    }
}
BENCHMARK_TEMPLATE(BM_Build, Tuple);
BENCHMARK_TEMPLATE(BM_Build, Map);

template <class Record>
void BM_ReadByName(benchmark::State& state) {
    Record r;
    build(r);
    for (auto _ : state) benchmark::DoNotOptimize(read_back(r));
}
BENCHMARK_TEMPLATE(BM_ReadByName, Tuple);
BENCHMARK_TEMPLATE(BM_ReadByName, Map);

template <class Record>
void BM_Copy(benchmark::State& state) {
    Record r;
    build(r);
    for (auto _ : state) {
        Record copy(r);
        benchmark::DoNotOptimize(&copy);
    }
}
BENCHMARK_TEMPLATE(BM_Copy, Tuple);
BENCHMARK_TEMPLATE(BM_Copy, Map);

template <class Record>
void BM_CompareEqual(benchmark::State& state) {
    Record a;
    Record b;
    build(a);
    build(b);
    for (auto _ : state) benchmark::DoNotOptimize(a == b);
}
BENCHMARK_TEMPLATE(BM_CompareEqual, Tuple);
BENCHMARK_TEMPLATE(BM_CompareEqual, Map);

void BM_TimeDateNow(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(TimeDate::now());
}
BENCHMARK(BM_TimeDateNow);

void BM_TimeDateToString(benchmark::State& state) {
    TimeDate when(2024, 1, 31, 14, 25, 1, 123, true);
    for (auto _ : state) benchmark::DoNotOptimize(when.to_string());
}
BENCHMARK(BM_TimeDateToString);

void BM_TupleToString(benchmark::State& state) {
    Tuple t("bench.record");
    build(t);
    for (auto _ : state) benchmark::DoNotOptimize(t.to_string());
}
BENCHMARK(BM_TupleToString);

void BM_TupleFromString(benchmark::State& state) {
    Tuple t("bench.record");
    build(t);
    AString text = t.to_string();
    for (auto _ : state) {
        Tuple back;
        benchmark::DoNotOptimize(back.from_string(text.c_str()));
    }
}
BENCHMARK(BM_TupleFromString);

}  // namespace

BENCHMARK_MAIN();

// commbuffer.cpp: the reference record through a binary CommBuffer, beside the same record as a msgpack-c
// map packed and unpacked to its object tree, and a memcpy of the encoded bytes as the floor; and a 1 MiB
// blob through a buffer beside a memcpy of 1 MiB.
//
//   ./build/release/bench/tarvik_bench_commbuffer --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
//
// The reference record (used by every serialization figure of the library): class "bench.order"; "id" int
// 123456; "price" double 99.95; "qty" 64-bit 1000000000000; "symbol" "ACME"; "note" 64 characters 'x';
// "tags" 10 narrow strings "tag0".."tag9"; "samples" 100 ints 0..99; "payload" a blob of 1024 bytes of
// value i % 251; "owner" a nested tuple with "name" "alice" and "uid" 42.
#include <benchmark/benchmark.h>
#include <msgpack.h>

#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tarvik/CommBuffer.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Tuple.h"

using namespace tarvik;

namespace {

std::vector<char> payload_bytes() {
    std::vector<char> bytes(1024);
    for (int i = 0; i < 1024; ++i) bytes[i] = static_cast<char>(i % 251);
    return bytes;
}

Tuple reference_record() {
    Tuple t("bench.order");
    t.set_int("id", 123456);
    t.set_double("price", 99.95);
    t.set_long("qty", 1000000000000LL);
    t.set_astring("symbol", "ACME");
    t.set_astring("note", AString(64, 'x'));
    ListAString& tags = t.set_list_astring("tags");
    for (int i = 0; i < 10; ++i) tags.push_back(AString("tag") + static_cast<char>('0' + i));
    ListInt& samples = t.set_list_int("samples");
    for (int i = 0; i < 100; ++i) samples.push_back(i);
    std::vector<char> payload = payload_bytes();
    t.set_blob("payload", Blob(payload.data(), 1024, 0));
    Tuple owner;
    owner.set_astring("name", "alice");
    owner.set_int("uid", 42);
    t.set_tuple("owner", owner);
    return t;
}

void pack_reference(msgpack_packer& pk) {
    static std::vector<char> const payload = payload_bytes();
    static std::string const note(64, 'x');
    auto key = [&pk](char const* k) {
        msgpack_pack_str(&pk, std::strlen(k));
        msgpack_pack_str_body(&pk, k, std::strlen(k));
    };
    auto str = [&pk](char const* s, size_t n) {
        msgpack_pack_str(&pk, n);
        msgpack_pack_str_body(&pk, s, n);
    };
    msgpack_pack_map(&pk, 10);
    key("class");
    str("bench.order", 11);
    key("id");
    msgpack_pack_int(&pk, 123456);
    key("price");
    msgpack_pack_double(&pk, 99.95);
    key("qty");
    msgpack_pack_int64(&pk, 1000000000000LL);
    key("symbol");
    str("ACME", 4);
    key("note");
    str(note.data(), note.size());
    key("tags");
    msgpack_pack_array(&pk, 10);
    for (int i = 0; i < 10; ++i) {
        char tag[5] = {'t', 'a', 'g', static_cast<char>('0' + i), 0};
        str(tag, 4);
    }
    key("samples");
    msgpack_pack_array(&pk, 100);
    for (int i = 0; i < 100; ++i) msgpack_pack_int(&pk, i);
    key("payload");
    msgpack_pack_bin(&pk, payload.size());
    msgpack_pack_bin_body(&pk, payload.data(), payload.size());
    key("owner");
    msgpack_pack_map(&pk, 2);
    key("name");
    str("alice", 5);
    key("uid");
    msgpack_pack_int(&pk, 42);
}

// --- tarvik ---------------------------------------------------------------------------------------------

void BM_RecordWrite(benchmark::State& state) {
    Tuple record = reference_record();
    long bytes = 0;
    for (auto _ : state) {
        CommBuffer buffer;
        bytes = record.write(buffer);
        benchmark::DoNotOptimize(buffer.size());
    }
    CommBuffer once;
    record.write(once);
    state.counters["wire_bytes"] = once.size();
    state.counters["value_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_RecordWrite);

void BM_RecordRead(benchmark::State& state) {
    CommBuffer buffer;
    reference_record().write(buffer);
    for (auto _ : state) {
        buffer.rewind();
        Tuple back;
        benchmark::DoNotOptimize(back.read(buffer));
    }
}
BENCHMARK(BM_RecordRead);

void BM_RecordWriteRead(benchmark::State& state) {
    Tuple record = reference_record();
    for (auto _ : state) {
        CommBuffer buffer;
        record.write(buffer);
        Tuple back;
        benchmark::DoNotOptimize(back.read(buffer));
    }
}
BENCHMARK(BM_RecordWriteRead);

// The same record as XML text (what an ASCII CommBuffer carries) and back.
void BM_RecordXmlWriteRead(benchmark::State& state) {
    Tuple record = reference_record();
    unsigned int bytes = 0;
    for (auto _ : state) {
        AString text;
        {
            OBStream out(text, true);
            record.write_xml(out);
        }
        bytes = text.length();
        IBStream in(text.c_str());
        Tuple back;
        benchmark::DoNotOptimize(back.read_xml(in));
    }
    state.counters["text_bytes"] = bytes;
}
BENCHMARK(BM_RecordXmlWriteRead);

// The same through an ASCII CommBuffer, page headers included.
void BM_RecordAsciiBufferWriteRead(benchmark::State& state) {
    Tuple record = reference_record();
    unsigned int bytes = 0;
    for (auto _ : state) {
        CommBuffer buffer;
        buffer.set_is_ascii(true);
        record.write(buffer);
        bytes = buffer.size();
        Tuple back;
        benchmark::DoNotOptimize(back.read(buffer));
    }
    state.counters["wire_bytes"] = bytes;
}
BENCHMARK(BM_RecordAsciiBufferWriteRead);

// --- msgpack-c ------------------------------------------------------------------------------------------

// The reference record packed into a fresh buffer (the caller destroys it).
void pack_into(msgpack_sbuffer& sbuf) {
    msgpack_sbuffer_init(&sbuf);
    msgpack_packer pk;
    msgpack_packer_init(&pk, &sbuf, msgpack_sbuffer_write);
    pack_reference(pk);
}

// The packed record unpacked to its object tree and freed again.
void unpack_once(msgpack_sbuffer const& sbuf) {
    msgpack_unpacked result;
    msgpack_unpacked_init(&result);
    size_t offset = 0;
    benchmark::DoNotOptimize(msgpack_unpack_next(&result, sbuf.data, sbuf.size, &offset));
    msgpack_unpacked_destroy(&result);
}

void BM_MsgpackPack(benchmark::State& state) {
    size_t bytes = 0;
    for (auto _ : state) {
        msgpack_sbuffer sbuf;
        pack_into(sbuf);
        bytes = sbuf.size;
        benchmark::DoNotOptimize(sbuf.data);
        msgpack_sbuffer_destroy(&sbuf);
    }
    state.counters["wire_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_MsgpackPack);

void BM_MsgpackUnpack(benchmark::State& state) {
    msgpack_sbuffer sbuf;
    pack_into(sbuf);
    for (auto _ : state) unpack_once(sbuf);
    msgpack_sbuffer_destroy(&sbuf);
}
BENCHMARK(BM_MsgpackUnpack);

void BM_MsgpackPackUnpack(benchmark::State& state) {
    for (auto _ : state) {
        msgpack_sbuffer sbuf;
        pack_into(sbuf);
        unpack_once(sbuf);
        msgpack_sbuffer_destroy(&sbuf);
    }
}
BENCHMARK(BM_MsgpackPackUnpack);

// The floor: copying the encoded record's bytes.
void BM_MemcpyEncodedRecord(benchmark::State& state) {
    CommBuffer buffer;
    reference_record().write(buffer);
    std::vector<unsigned char> encoded(buffer.size());
    std::vector<unsigned char> copy(buffer.size());
    buffer.rewind();
    buffer.read_byte(encoded.data(), buffer.size());
    for (auto _ : state) {
        std::memcpy(copy.data(), encoded.data(), encoded.size());
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(encoded.size());
}
BENCHMARK(BM_MemcpyEncodedRecord);

// --- a 1 MiB blob ---------------------------------------------------------------------------------------

constexpr unsigned int kMiB = 1u << 20;

void BM_Blob1MiBThroughBuffer(benchmark::State& state) {
    std::vector<char> bytes(kMiB, 7);
    Blob blob(bytes.data(), kMiB, Blob::kBorrowed);
    auto page = static_cast<unsigned int>(state.range(0));
    for (auto _ : state) {
        CommBuffer buffer(page);
        buffer.write(blob);
        Blob back;
        buffer.read(back);
        benchmark::DoNotOptimize(back.get_content());
    }
    state.SetBytesProcessed(state.iterations() * kMiB);
}
BENCHMARK(BM_Blob1MiBThroughBuffer)->Arg(4096)->Arg(65536);

void BM_Memcpy1MiB(benchmark::State& state) {
    std::vector<char> src(kMiB, 7);
    std::vector<char> dst(kMiB);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), kMiB);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kMiB);
}
BENCHMARK(BM_Memcpy1MiB);

}  // namespace

// glibc returns freed memory above 128 KiB to the kernel at once, and on this machine (a virtual machine)
// faulting it back in costs far more than copying it: a 1 MiB round trip would measure page faults. The
// program therefore keeps freed memory in the process, as a long-running server's allocator settles to
// anyway, for every benchmark alike; TARVIK_BENCH_DEFAULT_MALLOC=1 measures with glibc's defaults instead.
int main(int argc, char** argv) {
    if (!std::getenv("TARVIK_BENCH_DEFAULT_MALLOC")) {
        mallopt(M_MMAP_THRESHOLD, 64 << 20);
        mallopt(M_TRIM_THRESHOLD, 256 << 20);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

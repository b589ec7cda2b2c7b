// logging.cpp: records per second through the file hook, from 1 and from 2 threads, beside a plain fprintf
// of the same formatted line to a file in the same run.
//
//   ./build/release/bench/tarvik_bench_logging --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
//
// The record is a short message with two arguments. Records logged by one thread while another thread's
// record is being delivered go to the console instead of the hooks (one dispatch at a time in the whole
// process); the 2-thread figures count every record, wherever it went, and the console is redirected to
// /dev/null for the run so that it costs what a discarded stream costs.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <string>

#include "tarvik/IOBStream.h"
#include "tarvik/Log.h"
#include "tarvik/LogHook.h"
#include "tarvik/System.h"

using namespace tarvik;

namespace {

std::string scratch_directory() {
    static std::string const dir = [] {
        char pattern[] = "/tmp/tarvik-bench-log-XXXXXX";
        char* made = ::mkdtemp(pattern);
        return std::string(made ? made : "/tmp");
    }();
    return dir;
}

void BM_FileHookRecords(benchmark::State& state) {
    static FileLogHook* hook = nullptr;
    if (state.thread_index() == 0) {
        hook = new FileLogHook(scratch_directory().c_str());
        hook->activate(true);
    }
    int i = 0;
    for (auto _ : state) Log("ORDER %0 FILLED AT %1", LEVEL_INFO, "BENCH", "LOGGING", __LINE__) << ++i << 99.5;
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        hook->activate(false);
        delete hook;
        hook = nullptr;
    }
}
BENCHMARK(BM_FileHookRecords)->Threads(1)->Threads(2)->UseRealTime();

// The same line, formatted and written with stdio (which locks the FILE per call).
void BM_FprintfLines(benchmark::State& state) {
    static FILE* file = nullptr;
    if (state.thread_index() == 0) file = std::fopen((scratch_directory() + "/fprintf.log").c_str(), "a");
    int i = 0;
    unsigned long thread = get_current_thread_id();
    for (auto _ : state) {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        long ms_of_day = (now.tv_sec % 86400) * 1000 + now.tv_nsec / 1000000;
        std::fprintf(file, "%02ld:%02ld:%02ld.%03ld\tINFO|BENCH|LOGGING|%d|%lx||ORDER %d FILLED AT %f\n",
                     ms_of_day / 3600000, ms_of_day / 60000 % 60, ms_of_day / 1000 % 60, ms_of_day % 1000, __LINE__,
                     thread, ++i, 99.5);
        std::fflush(file);
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        std::fclose(file);
        file = nullptr;
    }
}
BENCHMARK(BM_FprintfLines)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    set_program_name("bench");
    // Records that go to the console during another thread's dispatch go nowhere; the report goes to the
    // original standard output.
    bcout().flush();
    int saved = ::dup(1);
    int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 1);
    std::ofstream report("/proc/self/fd/" + std::to_string(saved));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
    reporter.SetOutputStream(&report);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

// services.cpp: a small call through a proxy over the in-process transport, against the floor it is built
// from, measured in the same run: the same request and answer tuples encoded into and decoded from a
// CommBuffer alone, plus a bare hand-off between two threads and back (condition-variable ping-pong).
// The direct Interface::call is given for reference, and calls per second from 1 and 2 threads.
//
//   ./build/release/bench/tarvik_bench_services --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "tarvik/CommBuffer.h"
#include "tarvik/GlobVar.h"
#include "tarvik/Interface.h"
#include "tarvik/Service.h"
#include "tarvik/ServiceManager.h"
#include "tarvik/Time.h"
#include "tarvik/Tuple.h"

using namespace tarvik;

namespace {

// bench.add: three attributes in, three out.
struct Add : Service::CallMethod {
    Add() : CallMethod("calc", "add") {}
    long call(Tuple const& in, Tuple& out) override {
        int a = in.get_int("a", 0);
        int b = in.get_int("b", 0);
        out.set_int("sum", a + b);
        out.set_int("diff", a - b);
        out.set_astring("op", in.get_astring("op", ""));
        return 0;
    }
};

Tuple args_in() {
    Tuple in("add");
    in.set_int("a", 1234);
    in.set_int("b", 567);
    in.set_astring("op", "plus");
    return in;
}

// One manager listening on "INPROC:bench" with the service published, for the whole program.
struct Host {
    AutoRef<ServiceManager> manager;
    AutoRef<Service> service;
    AutoRef<Interface> calc;
    Host() {
        init();
        static Add* const add = new Add;
        (void)add;
        manager = ServiceManager::create();
        service = AutoRef<Service>(new Service("bench.calc", "main", ""));
        calc = AutoRef<Interface>(new Interface("calc"));
        service->add_interface(calc);
        service->publish(manager);
        manager->add_listener("INPROC:bench");
    }
};

Host& host() {
    static Host* const h = new Host;
    return *h;
}

void BM_InprocCallThroughProxy(benchmark::State& state) {
    static AutoRef<Service> proxy;
    if (state.thread_index() == 0) {
        host();
        proxy = Service::bind("bench.calc:main@INPROC:bench");
        if (!proxy) state.SkipWithError("bind failed");
    }
    Tuple const in = args_in();
    Tuple out;
    for (auto _ : state) {
        if (proxy->call("calc", in, out) != 0) state.SkipWithError("call failed");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_InprocCallThroughProxy)->UseRealTime()->Threads(1)->Threads(2);

void BM_DirectInterfaceCall(benchmark::State& state) {
    Host& h = host();
    Tuple const in = args_in();
    Tuple out;
    for (auto _ : state) {
        if (h.calc->call(in, out) != 0) state.SkipWithError("call failed");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DirectInterfaceCall);

// The request and the answer as the proxy and the manager build them.
Tuple request_tuple() {
    Tuple request("tvk.call");
    request.set_tuple("args_in", args_in());
    request.set_time_date("tvk.req.timestamp", TimeDate::now());
    request.set_astring("svc_class", "bench.calc");
    request.set_astring("svc_name", "main");
    request.set_astring("iface_name", "calc");
    return request;
}

Tuple answer_tuple() {
    Tuple out;
    Add().call(args_in(), out);
    Tuple answer("tvk.call_return");
    answer.set_tuple("args_out", out);
    answer.set_int("r", 0);
    answer.set_time_date("tvk.req.timestamp", TimeDate::now());
    return answer;
}

// Floor, part 1: both tuples encoded into a fresh buffer and decoded from it, as the two ends do.
void BM_FloorEncodeDecodeRequestAndAnswer(benchmark::State& state) {
    Tuple const request = request_tuple();
    Tuple const answer = answer_tuple();
    for (auto _ : state) {
        for (Tuple const* t : {&request, &answer}) {
            CommBuffer wire;
            t->write(wire);
            wire.get_last()->last = true;
            wire.update_headers();
            // The value bytes reach a buffer of the reader's own (whose name dictionary starts empty).
            CommBuffer received;
            for (CommBuffer::Page const* p = wire.get_first(); p; p = p->next)
                received.write_byte(p->data() + CommBuffer::kHeaderSize, p->used - CommBuffer::kHeaderSize);
            Tuple back;
            if (back.read(received) < 0) state.SkipWithError("decode failed");
            benchmark::DoNotOptimize(back);
        }
    }
}
BENCHMARK(BM_FloorEncodeDecodeRequestAndAnswer);

// Floor, part 2: a hand-off to another thread and back, with a mutex and condition variables, as a
// request and its answer cross between the caller and a worker.
void BM_FloorThreadHandOffAndBack(benchmark::State& state) {
    std::mutex m;
    std::condition_variable to_worker, to_caller;
    int turn = 0;  // 0 idle, 1 the worker's, 2 the caller's, -1 stop
    std::thread worker([&] {
        std::unique_lock<std::mutex> lock(m);
        for (;;) {
            to_worker.wait(lock, [&] { return turn == 1 || turn == -1; });
            if (turn == -1) return;
            turn = 2;
            to_caller.notify_one();
        }
    });
    for (auto _ : state) {
        std::unique_lock<std::mutex> lock(m);
        turn = 1;
        to_worker.notify_one();
        to_caller.wait(lock, [&] { return turn == 2; });
    }
    {
        std::lock_guard<std::mutex> lock(m);
        turn = -1;
    }
    to_worker.notify_one();
    worker.join();
}
BENCHMARK(BM_FloorThreadHandOffAndBack)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

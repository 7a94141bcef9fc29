// The benchmarks are named road/implementation/argument. The implementation is "ours" or the peer's
// name; a road's implementations do the same work, and each has its result checked.
//
// The dispatchers' time is real_time: their work is done on other threads than the one whose
// cpu_time there is. All others work on one thread, and cpu_time is the calmer figure.
#ifndef BENCH_MICRO_BENCHMARKS_H
#define BENCH_MICRO_BENCHMARKS_H

namespace Micro {

// Each is called once, before the benchmarks run.
void RegisterDispatcherBenchmarks();
void RegisterJsonBenchmarks();
void RegisterRequestListBenchmarks();

}  // namespace Micro

#endif  // BENCH_MICRO_BENCHMARKS_H

// Cost of reporting through event objects: a log (create, two options, three parameters, send) and
// an alarm (create, common attributes, two parameters, send), each queued on its send list.
#include <benchmark/benchmark.h>

#include "bench_support.h"

namespace {

void BM_LogObject(benchmark::State &state) { qvbench::RunReports(state, qvbench::ReportLogObject); }
BENCHMARK(BM_LogObject)->Threads(1)->Threads(2)->UseRealTime();

void BM_Alarm(benchmark::State &state) { qvbench::RunReports(state, qvbench::ReportAlarm); }
BENCHMARK(BM_Alarm)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

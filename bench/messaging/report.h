#pragma once

namespace bench {

/// Writes a figure as a line "kind workload metric value unit". BENCH_SUFFIX of the environment is
/// put behind the workload.
void report(const char* kind, const char* workload, const char* metric, double value,
            const char* unit);

/// How long everything is to take, in terms of the usual; BENCH_SCALE of the environment.
double scale();

}  // namespace bench

#include "messaging/report.h"

#include <cstdio>
#include <cstdlib>

namespace bench {

void report(const char* kind, const char* workload, const char* metric, double value,
            const char* unit) {
  const char* suffix = std::getenv("BENCH_SUFFIX");
  std::printf("%s %s%s %s %.3f %s\n", kind, workload, suffix ? suffix : "", metric, value, unit);
  std::fflush(stdout);
}

double scale() {
  const char* given = std::getenv("BENCH_SCALE");
  return given ? std::atof(given) : 1;
}

}  // namespace bench

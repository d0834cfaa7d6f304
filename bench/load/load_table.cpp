#include "bench/load/load_table.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace tellora::load {

namespace {

// Nearest-rank percentile; NaN for no samples.
double percentile(std::vector<double> values, double p) {
  if (values.empty()) return NAN;
  const size_t rank = static_cast<size_t>(std::ceil(p / 100 * static_cast<double>(values.size())));
  const size_t at = std::min(values.size() - 1, rank == 0 ? 0 : rank - 1);
  std::nth_element(values.begin(), values.begin() + static_cast<long>(at), values.end());
  return values[at];
}

}  // namespace

void printHeader(std::FILE* out) {
  const char* format =
      "%7s %6s | %7s %8s %9s %7s %7s %8s | %8s %8s %8s | %11s %6s %6s %6s %5s | %7s %8s %7s | "
      "%6s %5s\n";
  std::fprintf(out, format, "clients", "search", "srv cpu", "srv wait", "us/cl-s", "srv rss",
               "srv hwm", "rss idle", "fp p50", "fp p99", "msg/s", "pairs found", "p50", "p90",
               "false", "lost", "bench", "bench/cl", "lag p99", "errors", "warns");
  std::fprintf(out, format, "", "", "% core", "% core", "", "MiB", "MiB", "MiB", "ms", "ms",
               "in+out", "", "s", "s", "found", "", "% core", "us/cl-s", "ms", "", "log");
}

void printRow(std::FILE* out, const RoundResult& r, const ServerSample& s) {
  const double w = r.windowSeconds > 0 ? r.windowSeconds : NAN;
  const double clientSeconds = r.searching * w;
  char pairs[32];
  std::snprintf(pairs, sizeof pairs, "%d/%d %3.0f%%", r.pairsFound, r.pairs,
                r.pairs > 0 ? 100.0 * r.pairsFound / r.pairs : 0.0);
  std::fprintf(
      out,
      "%7d %6d | %7.1f %8.1f %9.1f %7.1f %7.1f %8.1f | %8.2f %8.2f %8.0f | %11s %6.2f %6.2f "
      "%6d %5d | %7.1f %8.1f %7.1f | %6d %5d\n",
      r.clients, r.searching, 100 * s.cpuSeconds / w, 100 * s.runQueueSeconds / w,
      1e6 * s.cpuSeconds / clientSeconds, s.rssKb / 1024.0, s.peakRssKb / 1024.0,
      s.idleRssKb / 1024.0, percentile(r.fpLatencyMs, 50), percentile(r.fpLatencyMs, 99),
      static_cast<double>(r.requestsSent + r.framesReceived) / w, pairs,
      percentile(r.timeToFoundMs, 50) / 1000, percentile(r.timeToFoundMs, 90) / 1000, r.falseFound,
      r.lost, 100 * r.benchCpuSeconds / w, 1e6 * r.benchCpuSeconds / clientSeconds,
      percentile(r.sendLagMs, 99), r.errors.total(), s.logWarnings);
  std::fflush(out);
}

void printErrors(std::FILE* out, const RoundResult& r) {
  const ErrorCounts& e = r.errors;
  if (e.total() == 0) return;
  std::fprintf(out,
               "  errors of %d clients: connect %d, refused %d, closed %d, io %d, bad frames %d, "
               "not searching %d, missing replies %d, close timeouts %d\n",
               r.clients, e.connectFailed, e.refused, e.closed, e.ioErrors, e.badFrames,
               e.notSearching, e.missingReplies, e.closeTimeouts);
}

}  // namespace tellora::load

// The benchmark's table: one row per number of clients.
#pragma once

#include <cstdio>

#include "bench/load/fleet.h"

namespace tellora::load {

// What the server did over a round's window.
struct ServerSample {
  double cpuSeconds = 0;
  double runQueueSeconds = 0;  // ready but waiting for a core
  long rssKb = 0;
  long peakRssKb = 0;
  long idleRssKb = 0;   // a second after the round's sessions closed
  int logWarnings = 0;  // warning and error lines it logged during the round
};

void printHeader(std::FILE* out);
void printRow(std::FILE* out, const RoundResult& round, const ServerSample& server);
// The errors of a round by kind, when there were any.
void printErrors(std::FILE* out, const RoundResult& round);

}  // namespace tellora::load

// Log lines for limits that a peer can hit at will: the first hit is written
// at once, later ones are only counted and summed up at most once per
// interval, so the log cannot be flooded through them.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tellora::server {

class LimitLog {
 public:
  explicit LimitLog(std::string limit, std::chrono::seconds interval = std::chrono::seconds(10))
      : limit_(std::move(limit)), interval_(interval) {}

  // One hit; `detail` (e.g. the peer) is written only with a line.
  void hit(const std::string& detail);
  uint64_t total() const { return total_; }

 private:
  std::string limit_;
  std::chrono::seconds interval_;
  uint64_t total_ = 0;
  uint64_t sinceLine_ = 0;
  std::chrono::steady_clock::time_point lastLine_{};
  bool written_ = false;
};

// The limits the server logs this way.
struct LimitLogs {
  LimitLog connections{"connection refused (server or address share full)"};
  LimitLog displaced{"server full: a pending connection of the busiest address closed for"};
  LimitLog registrations{"registration rate limit (429)"};
  LimitLog devices{"device record over the size limit (413)"};
};

}  // namespace tellora::server

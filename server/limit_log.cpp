#include "server/limit_log.h"

#include "runtime/log.h"

namespace tellora::server {

void LimitLog::hit(const std::string& detail) {
  ++total_;
  ++sinceLine_;
  const auto now = std::chrono::steady_clock::now();
  if (written_ && now - lastLine_ < interval_) return;
  warnf("%s: %s; %llu since the last line, %llu in all", limit_.c_str(), detail.c_str(),
        static_cast<unsigned long long>(sinceLine_), static_cast<unsigned long long>(total_));
  written_ = true;
  lastLine_ = now;
  sinceLine_ = 0;
}

}  // namespace tellora::server

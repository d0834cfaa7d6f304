// Turns what the server and the clients print into a readable timeline, and
// keeps the observations the verdict is made from. Times are seconds on the
// demo's clock; every call returns the lines to print now.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/demo/client_event.h"
#include "tools/demo/expectations.h"
#include "tools/demo/scenario.h"

namespace tellora::demo {

class DemoTimeline {
 public:
  using Lines = std::vector<std::string>;

  explicit DemoTimeline(std::vector<DemoDevice> devices, Tolerance tolerance = {});

  Lines serverListening(double at, const std::string& address);
  Lines clientEvent(double at, size_t device, const ClientEvent& event);
  // `status` is the exit code, or 128 + the signal that ended the client.
  Lines clientExited(double at, size_t device, int status);
  // Anything else that makes the run fail (the server going away, a client
  // that had to be killed).
  Lines problem(double at, const std::string& text);
  // Room changes and the grouped start line once they fall due.
  Lines advance(double at);
  // When advance() next has something to say.
  std::optional<double> nextDue() const;
  // The run is over for the verdict (the first client stopping ends it anyway).
  void endRun(double at);

  const Observations& observations() const { return observations_; }
  Verdict verdict() const { return judge(devices_, observations_, tolerance_); }

  static std::string stamp(double at, const std::string& text);

 private:
  Lines sighting(double at, size_t device, const ClientEvent& event);
  Lines flushStarts(double at);
  std::optional<size_t> deviceOf(const ClientEvent& event);
  RoomPlan plan() const { return RoomPlan(devices_, observations_.searchStartedAt); }

  std::vector<DemoDevice> devices_;
  Tolerance tolerance_;
  Observations observations_;
  std::map<std::string, size_t> deviceByClientId_;
  std::vector<size_t> pendingStarts_;    // devices started but not printed yet
  std::vector<size_t> visitsAnnounced_;  // per device; its first visit needs no line
  std::vector<std::string> lastStatus_;  // per device, to print link changes only
};

}  // namespace tellora::demo

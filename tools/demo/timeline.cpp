#include "tools/demo/timeline.h"

#include <algorithm>
#include <cstdio>

namespace tellora::demo {

namespace {

constexpr double kStartGrouping = 0.5;  // starts this close together share one line
// A link starts out fast ("hight", as the SDK spells it): only changes are news.
constexpr const char* kFirstLinkStatus = "hight";

std::string seconds(double s) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", s);
  return text;
}

}  // namespace

DemoTimeline::DemoTimeline(std::vector<DemoDevice> devices, Tolerance tolerance)
    : devices_(std::move(devices)),
      tolerance_(tolerance),
      visitsAnnounced_(devices_.size(), 1),
      lastStatus_(devices_.size(), kFirstLinkStatus) {
  observations_.searchStartedAt.resize(devices_.size());
}

std::string DemoTimeline::stamp(double at, const std::string& text) {
  char time[32];
  std::snprintf(time, sizeof time, "%5.1f s  ", at);
  return time + text;
}

DemoTimeline::Lines DemoTimeline::serverListening(double at, const std::string& address) {
  return {stamp(at, "server listening on " + address)};
}

DemoTimeline::Lines DemoTimeline::clientEvent(double at, size_t device, const ClientEvent& e) {
  if (device >= devices_.size()) return {};
  const std::string& me = devices_[device].label;
  switch (e.kind) {
    case ClientEvent::Kind::searchStarted: {
      if (observations_.searchStartedAt[device]) return {stamp(at, me + " searching again")};
      observations_.searchStartedAt[device] = at;
      pendingStarts_.push_back(device);
      const bool allStarted =
          std::all_of(observations_.searchStartedAt.begin(), observations_.searchStartedAt.end(),
                      [](const auto& t) { return t.has_value(); });
      return allStarted ? flushStarts(at) : Lines{};
    }
    case ClientEvent::Kind::clientFound:
    case ClientEvent::Kind::clientLost:
      return sighting(at, device, e);
    case ClientEvent::Kind::searchStopped: {
      Lines lines = flushStarts(at);
      if (e.error) {
        observations_.problems.push_back(me + "'s search stopped with error " + *e.error);
        lines.push_back(stamp(at, me + "'s search stopped with error " + *e.error));
      } else {
        lines.push_back(stamp(at, me + " stopped searching"));
      }
      endRun(at);
      return lines;
    }
    case ClientEvent::Kind::speedStatus:
      if (e.status == lastStatus_[device]) return {};
      lastStatus_[device] = e.status;
      return {stamp(at, me + "'s link: " + e.status)};
  }
  return {};
}

DemoTimeline::Lines DemoTimeline::clientExited(double at, size_t device, int status) {
  if (device >= devices_.size()) return {};
  endRun(at);
  if (status == 0) return {};
  const std::string text = devices_[device].label + " exited with status " + std::to_string(status);
  observations_.problems.push_back(text);
  return {stamp(at, text)};
}

DemoTimeline::Lines DemoTimeline::problem(double at, const std::string& text) {
  observations_.problems.push_back(text);
  return {stamp(at, text)};
}

void DemoTimeline::endRun(double at) {
  if (!observations_.endedAt) observations_.endedAt = at;
}

DemoTimeline::Lines DemoTimeline::advance(double at) {
  Lines lines;
  if (!pendingStarts_.empty() &&
      at >= *observations_.searchStartedAt[pendingStarts_.front()] + kStartGrouping)
    lines = flushStarts(at);
  for (size_t d = 0; d < devices_.size(); ++d) {
    const auto& start = observations_.searchStartedAt[d];
    const auto& visits = devices_[d].visits;
    while (start && visitsAnnounced_[d] < visits.size() &&
           *start + visits[visitsAnnounced_[d]].fromSeconds <= at) {
      lines.push_back(stamp(*start + visits[visitsAnnounced_[d]].fromSeconds,
                            devices_[d].label + "'s room changes"));
      ++visitsAnnounced_[d];
    }
  }
  return lines;
}

std::optional<double> DemoTimeline::nextDue() const {
  std::optional<double> due;
  auto consider = [&due](double t) { due = due ? std::min(*due, t) : t; };
  if (!pendingStarts_.empty())
    consider(*observations_.searchStartedAt[pendingStarts_.front()] + kStartGrouping);
  for (size_t d = 0; d < devices_.size(); ++d) {
    const auto& start = observations_.searchStartedAt[d];
    if (start && visitsAnnounced_[d] < devices_[d].visits.size())
      consider(*start + devices_[d].visits[visitsAnnounced_[d]].fromSeconds);
  }
  return due;
}

DemoTimeline::Lines DemoTimeline::flushStarts(double at) {
  if (pendingStarts_.empty()) return {};
  std::sort(pendingStarts_.begin(), pendingStarts_.end());
  std::string names;
  double first = at, last = 0;
  for (size_t i = 0; i < pendingStarts_.size(); ++i) {
    const size_t d = pendingStarts_[i];
    names += (i == 0 ? "" : i + 1 == pendingStarts_.size() ? " and " : ", ") + devices_[d].label;
    first = std::min(first, *observations_.searchStartedAt[d]);
    last = std::max(last, *observations_.searchStartedAt[d]);
  }
  std::string text = names + " searching";
  if (pendingStarts_.size() > 1) {
    // Devices in one room hear a sound at the same moment; files that start
    // playing apart are heard apart, so the spread matters to the matcher.
    const double spreadMs = (last - first) * 1000;
    char spread[64];
    std::snprintf(spread, sizeof spread, " (started within %.0f ms)", spreadMs);
    text += spreadMs < 5 ? " (started together)" : spread;
  }
  pendingStarts_.clear();
  return {stamp(last, text)};
}

std::optional<size_t> DemoTimeline::deviceOf(const ClientEvent& e) {
  if (e.payload)
    for (size_t d = 0; d < devices_.size(); ++d)
      if (devices_[d].payload == *e.payload) {
        deviceByClientId_[e.clientId] = d;
        return d;
      }
  auto known = deviceByClientId_.find(e.clientId);
  if (known != deviceByClientId_.end()) return known->second;
  return std::nullopt;
}

DemoTimeline::Lines DemoTimeline::sighting(double at, size_t device, const ClientEvent& e) {
  const bool found = e.kind == ClientEvent::Kind::clientFound;
  const std::string& me = devices_[device].label;
  const auto other = deviceOf(e);
  if (!other || *other == device) {
    const std::string text = me + (found ? " found" : " lost") + " an unknown client " +
                             e.clientId + " (payload " + e.payload.value_or("null") + ")";
    observations_.problems.push_back(text);
    return {stamp(at, text)};
  }
  const Sighting s{at, device, *other, found};
  observations_.sightings.push_back(s);
  const std::string& them = devices_[*other].label;

  std::string text = me + (found ? " found " : " lost ") + them;
  const RoomPlan rooms = plan();
  const auto& start = observations_.searchStartedAt[device];
  if (found) {
    text += " (payload \"" + e.payload.value_or("null") + "\")";
    if (start) text += " after " + seconds(at - *start);
  } else if (auto change = rooms.lastChange(device, *other, at + tolerance_.lostEarly)) {
    text += ", " + seconds(std::max(0.0, at - change->at)) + " after " +
            devices_[change->device].label + "'s room changed";
  }
  if (observations_.endedAt && at >= *observations_.endedAt)
    text += " (as the run ends)";
  else if (auto why = unexpectedBecause(rooms, s, tolerance_))
    text += "   <- unexpected: " + *why;
  return {stamp(at, text)};
}

}  // namespace tellora::demo

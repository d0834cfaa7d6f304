#include "tools/demo/expectations.h"

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <limits>

namespace tellora::demo {

namespace {

std::string seconds(double s) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", s);
  return text;
}

bool involves(const Sighting& s, size_t device) {
  return s.observer == device || s.other == device;
}

struct Together {
  bool everShared = false;
  bool parted = false;  // they shared a room and no longer do
  double partedAt = 0;
};

// Sharing is constant between changes, so the moments to look at are the
// start of both searches and every change before the end.
Together togetherness(const RoomPlan& plan, size_t x, size_t y, double end) {
  Together t;
  const auto bothStarted = std::max(plan.startOf(x).value_or(end), plan.startOf(y).value_or(end));
  std::vector<double> moments{bothStarted};
  for (double c : plan.changes(x, y))
    if (c > bothStarted && c < end) moments.push_back(c);
  for (size_t i = 0; i < moments.size(); ++i) {
    const bool shared = plan.share(x, y, moments[i]);
    t.everShared = t.everShared || shared;
    if (shared) t.parted = false;
    if (i > 0 && !shared && plan.share(x, y, moments[i - 1])) {
      t.parted = true;
      t.partedAt = moments[i];
    }
  }
  return t;
}

}  // namespace

RoomPlan::RoomPlan(std::vector<DemoDevice> devices,
                   std::vector<std::optional<double>> searchStartedAt)
    : devices_(std::move(devices)), startedAt_(std::move(searchStartedAt)) {}

std::optional<double> RoomPlan::startOf(size_t device) const {
  if (device >= devices_.size() || device >= startedAt_.size()) return std::nullopt;
  return startedAt_[device];
}

std::optional<int> RoomPlan::roomOf(size_t device, double at) const {
  const auto start = startOf(device);
  if (!start) return std::nullopt;
  const double sinceStart = at - *start;
  std::optional<int> room;
  for (const RoomVisit& v : devices_[device].visits)
    if (v.fromSeconds <= sinceStart) room = v.room;
  return room;
}

bool RoomPlan::share(size_t a, size_t b, double at) const {
  const auto ra = roomOf(a, at), rb = roomOf(b, at);
  return ra && rb && *ra == *rb;
}

std::vector<double> RoomPlan::changes(size_t a, size_t b) const {
  std::vector<double> out;
  for (size_t d : {a, b}) {
    if (d >= devices_.size() || d >= startedAt_.size() || !startedAt_[d]) continue;
    for (const RoomVisit& v : devices_[d].visits)
      if (v.fromSeconds > 0) out.push_back(*startedAt_[d] + v.fromSeconds);
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::optional<RoomPlan::Change> RoomPlan::lastChange(size_t a, size_t b, double at) const {
  std::optional<Change> last;
  for (size_t d : {a, b}) {
    if (d >= devices_.size() || d >= startedAt_.size() || !startedAt_[d]) continue;
    for (const RoomVisit& v : devices_[d].visits) {
      const double when = *startedAt_[d] + v.fromSeconds;
      if (v.fromSeconds > 0 && when <= at && (!last || when > last->at)) last = Change{when, d};
    }
  }
  return last;
}

std::optional<std::string> unexpectedBecause(const RoomPlan& plan, const Sighting& s,
                                             const Tolerance& tolerance) {
  if (s.found) {
    if (plan.share(s.observer, s.other, s.at) ||
        plan.share(s.observer, s.other, s.at - tolerance.foundLate))
      return std::nullopt;
    return "different rooms";
  }
  if (!plan.share(s.observer, s.other, s.at) ||
      !plan.share(s.observer, s.other, s.at + tolerance.lostEarly))
    return std::nullopt;
  return "same room";
}

bool Verdict::passed() const {
  return std::all_of(checks.begin(), checks.end(), [](const Check& c) { return c.passed; });
}

Verdict judge(const std::vector<DemoDevice>& devices, const Observations& observations,
              const Tolerance& tolerance) {
  const RoomPlan plan(devices, observations.searchStartedAt);
  double end = observations.endedAt.value_or(-std::numeric_limits<double>::infinity());
  if (!observations.endedAt)
    for (const Sighting& s : observations.sightings)
      end = std::max(end, s.at + 1e-9);
  std::vector<Sighting> inRun;
  for (const Sighting& s : observations.sightings)
    if (s.at < end) inRun.push_back(s);

  Verdict verdict;
  const size_t n = devices.size();

  // Running at all.
  {
    Check c{true, "every client searched and stopped without error", ""};
    for (size_t d = 0; d < n; ++d)
      if (!plan.startOf(d)) {
        c.passed = false;
        c.detail += (c.detail.empty() ? "" : "; ") + devices[d].label + " never started searching";
      }
    for (const std::string& p : observations.problems) {
      c.passed = false;
      c.detail += (c.detail.empty() ? "" : "; ") + p;
    }
    verdict.checks.push_back(c);
  }

  std::vector<bool> sharesWithSomeone(n, false);
  for (size_t x = 0; x < n; ++x) {
    for (size_t y = 0; y < n; ++y) {
      if (x == y || !plan.startOf(x) || !plan.startOf(y)) continue;
      const Together together = togetherness(plan, x, y, end);
      if (!together.everShared) continue;
      sharesWithSomeone[x] = true;
      const std::string& X = devices[x].label;
      const std::string& Y = devices[y].label;

      Check found{false, X + " found " + Y, "never"};
      for (const Sighting& s : inRun)
        if (s.observer == x && s.other == y && s.found) {
          if (unexpectedBecause(plan, s, tolerance)) {
            found.detail = "only while in different rooms";
            continue;
          }
          found.passed = true;
          found.detail = "after " + seconds(s.at - plan.startOf(x).value_or(0));
          break;
        }
      verdict.checks.push_back(found);

      if (!together.parted || together.partedAt + tolerance.settle > end) continue;
      const double partedAt = together.partedAt;
      const auto change = plan.lastChange(x, y, partedAt);
      const std::string mover = change ? devices[change->device].label : X;
      Check lost{false, X + " lost " + Y + " after " + mover + "'s room changed", ""};
      const Sighting* last = nullptr;
      for (const Sighting& s : inRun)
        if (s.observer == x && s.other == y) last = &s;
      if (!last) {
        lost.detail = "never found, so never lost";
      } else if (last->found) {
        lost.detail = "still nearby when the run ended";
      } else if (last->at < partedAt - tolerance.lostEarly) {
        lost.detail = "lost before the change and never again found";
      } else {
        lost.passed = true;
        lost.detail = seconds(last->at - partedAt) + " after the change";
      }
      verdict.checks.push_back(lost);
    }
  }

  // Devices alone in their room all along: nobody may find them, nor they anybody.
  for (size_t z = 0; z < n; ++z) {
    if (sharesWithSomeone[z]) continue;
    const std::string& Z = devices[z].label;
    Check alone{true, "nobody found " + Z + ", " + Z + " found nobody", ""};
    for (const Sighting& s : inRun)
      if (s.found && involves(s, z)) {
        alone.passed = false;
        alone.detail += (alone.detail.empty() ? "" : "; ") + devices[s.observer].label + " found " +
                        devices[s.other].label + " at " + seconds(s.at);
      }
    verdict.checks.push_back(alone);
  }

  Check clean{true, "no found or lost against the rooms", ""};
  for (const Sighting& s : inRun) {
    if (!sharesWithSomeone[s.observer] || !sharesWithSomeone[s.other]) continue;
    if (auto why = unexpectedBecause(plan, s, tolerance)) {
      clean.passed = false;
      clean.detail += (clean.detail.empty() ? "" : "; ") + devices[s.observer].label +
                      (s.found ? " found " : " lost ") + devices[s.other].label + " at " +
                      seconds(s.at) + " (" + *why + ")";
    }
  }
  verdict.checks.push_back(clean);
  return verdict;
}

}  // namespace tellora::demo

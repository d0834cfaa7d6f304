// What the recorder tests share: a delegate that keeps what it receives, a log of the recorder's
// notifications, and a recorder living on the SDK's loop.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "audio/recorder.h"
#include "audio/recorder_delegate.h"
#include "runtime/event_loop.h"
#include "tellora/audio_source.h"
#include "tellora/notifications.h"
#include "tests/runtime/runtime_sandbox.h"

namespace tellora::audiotest {

using SteadyTime = std::chrono::steady_clock::time_point;

// Far beyond any expected delay: only turns a hang into a failure.
inline constexpr auto kPatience = std::chrono::seconds(20);

struct ReceivedBlock {
  std::vector<int16_t> items;
  double time = 0;
  bool onLoop = false;
  SteadyTime arrivedAt;
};

// Keeps a copy of every block (the recorder's pointer is valid only during
// the call) and every error.
struct RecordingDelegate final : TLRRecorderDelegate, TLRRecorderErrorsHandlerDelegate {
  void audioDataReceived(const int16_t* data, uint32_t itemsCount, double time) override {
    blocks.add({std::vector<int16_t>(data, data + itemsCount), time, EventLoop::main().isCurrent(),
                std::chrono::steady_clock::now()});
  }
  void recordStoppedWithError(const TLRError& error) override { errors.add(error); }
  bool waitForBlocks(size_t count, std::chrono::milliseconds patience = kPatience) {
    return testing::waitUntil([&] { return blocks.size() >= count; }, patience);
  }
  std::vector<int16_t> allItems() const {
    std::vector<int16_t> all;
    for (const auto& block : blocks.values())
      all.insert(all.end(), block.items.begin(), block.items.end());
    return all;
  }

  testing::Recorded<ReceivedBlock> blocks;
  testing::Recorded<TLRError> errors;
};

// The recorder's notifications in the order they were posted, with the
// message of each "audioError".
class RecorderNotifications {
 public:
  struct Entry {
    std::string name, message;
    SteadyTime at;
  };

  RecorderNotifications() {
    for (const char* name : {TLRAudioConnectSuccNotification, TLRAudioErrorNotification})
      tokens_.push_back(TLRNotificationCenter::defaultCenter().addObserver(
          name, [entries = entries_](const TLRNotification& n) {
            auto it = n.userInfo.find("message");
            const auto* text =
                it == n.userInfo.end() ? nullptr : std::get_if<std::string>(&it->second);
            entries->add({n.name, text ? *text : "", std::chrono::steady_clock::now()});
          }));
  }
  ~RecorderNotifications() {
    for (auto token : tokens_)
      TLRNotificationCenter::defaultCenter().removeObserver(token);
  }

  size_t count(const std::string& name) const {
    return entries_->countIf([&](const Entry& e) { return e.name == name; });
  }
  bool waitForCount(const std::string& name, size_t count) const {
    return testing::waitUntil([&] { return this->count(name) >= count; }, kPatience);
  }
  std::vector<Entry> entries() const { return entries_->values(); }

 private:
  std::shared_ptr<testing::Recorded<Entry>> entries_ = std::make_shared<testing::Recorded<Entry>>();
  std::vector<TLRNotificationCenter::ObserverToken> tokens_;
};

// A recorder made, driven and destroyed on the loop, as the SDK does. Blocks
// and errors go to `delegate`; retries are `unit` apart when given.
class LoopRecorder {
 public:
  LoopRecorder(double sampleRate, TLRAudioSourceFactory factory,
               std::optional<std::chrono::milliseconds> unit = std::nullopt) {
    EventLoop::main().call([&] {
      recorder_ = std::make_unique<TLRRecorder>(sampleRate, std::move(factory));
      recorder_->setDelegate(delegate);
      recorder_->setErrorHandler(delegate);
      if (unit) recorder_->setRetryDelayUnit(*unit);
    });
  }
  ~LoopRecorder() {
    EventLoop::main().call([&] { recorder_.reset(); });
  }

  template <class F>
  auto run(F&& f) {
    return EventLoop::main().call([&] { return f(*recorder_); });
  }
  void start() {
    run([](TLRRecorder& r) { r.startRecording(); });
  }
  void stop() {
    run([](TLRRecorder& r) { r.stopRecording(); });
  }
  bool isRec() {
    return run([](TLRRecorder& r) { return r.isRec(); });
  }

  const std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();

 private:
  std::unique_ptr<TLRRecorder> recorder_;
};

}  // namespace tellora::audiotest

// What the recorder tests share: a scripted audio source, a delegate that
// keeps what it receives, a log of the recorder's notifications, and running
// code on the SDK's loop.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "audio/recorder.h"
#include "audio/recorder_delegate.h"
#include "runtime/event_loop.h"
#include "tellora/audio_source.h"
#include "tellora/notifications.h"

namespace tellora::audiotest {

using SteadyTime = std::chrono::steady_clock::time_point;

// Waits on a condition under a mutex, with a deadline far beyond any expected
// delay: the deadline only turns a hang into a failure.
inline constexpr auto kPatience = std::chrono::seconds(20);

// A backend the test steers: start results come from a script (success once
// the script is used up), and the test delivers blocks through the sink of the
// newest source, from whatever thread it likes.
class FakeAudioBackend : public std::enable_shared_from_this<FakeAudioBackend> {
 public:
  static std::shared_ptr<FakeAudioBackend> create() {
    return std::shared_ptr<FakeAudioBackend>(new FakeAudioBackend());
  }

  void scriptStarts(std::vector<TLRAudioStartResult> results) {
    std::lock_guard lock(mutex_);
    script_.assign(results.begin(), results.end());
  }
  void setStallTimeout(std::optional<std::chrono::milliseconds> timeout) {
    std::lock_guard lock(mutex_);
    stallTimeout_ = timeout;
  }

  TLRAudioSourceFactory factory() {
    return [backend = shared_from_this()] {
      {
        std::lock_guard lock(backend->mutex_);
        ++backend->sourcesMade_;
      }
      return std::make_unique<Source>(backend);
    };
  }

  // Delivers through the sink of the newest started source, even if it has
  // been stopped since (a block that was already on its way). False when no
  // source ever started.
  bool deliver(const std::vector<int16_t>& items, double firstItemTicks) {
    TLRAudioSource::BlockSink sink;
    {
      std::lock_guard lock(mutex_);
      sink = sink_;
    }
    if (!sink) return false;
    sink(items.data(), static_cast<uint32_t>(items.size()), firstItemTicks);
    return true;
  }

  int sourcesMade() const {
    std::lock_guard lock(mutex_);
    return sourcesMade_;
  }
  int stops() const {
    std::lock_guard lock(mutex_);
    return stops_;
  }
  std::vector<SteadyTime> startTimes() const {
    std::lock_guard lock(mutex_);
    return startTimes_;
  }
  std::optional<TLRAudioSourceFormat> lastFormat() const {
    std::lock_guard lock(mutex_);
    return lastFormat_;
  }
  bool running() const {
    std::lock_guard lock(mutex_);
    return running_;
  }

 private:
  class Source final : public TLRAudioSource {
   public:
    explicit Source(std::shared_ptr<FakeAudioBackend> backend) : backend_(std::move(backend)) {}
    TLRAudioStartResult start(const TLRAudioSourceFormat& format, BlockSink sink) override {
      std::lock_guard lock(backend_->mutex_);
      backend_->startTimes_.push_back(std::chrono::steady_clock::now());
      backend_->lastFormat_ = format;
      TLRAudioStartResult result = TLRAudioStartResult::success();
      if (!backend_->script_.empty()) {
        result = backend_->script_.front();
        backend_->script_.pop_front();
      }
      if (result.ok()) {
        backend_->sink_ = std::move(sink);
        backend_->running_ = true;
      }
      return result;
    }
    void stop() override {
      std::lock_guard lock(backend_->mutex_);
      ++backend_->stops_;
      backend_->running_ = false;
    }
    std::optional<std::chrono::milliseconds> stallTimeout() const override {
      std::lock_guard lock(backend_->mutex_);
      return backend_->stallTimeout_;
    }

   private:
    std::shared_ptr<FakeAudioBackend> backend_;
  };

  FakeAudioBackend() = default;

  mutable std::mutex mutex_;
  std::deque<TLRAudioStartResult> script_;
  std::optional<std::chrono::milliseconds> stallTimeout_;
  TLRAudioSource::BlockSink sink_;
  std::optional<TLRAudioSourceFormat> lastFormat_;
  std::vector<SteadyTime> startTimes_;
  int sourcesMade_ = 0;
  int stops_ = 0;
  bool running_ = false;
};

struct ReceivedBlock {
  std::vector<int16_t> items;
  double time = 0;
  bool onLoop = false;
  SteadyTime arrivedAt;
};

// Keeps a copy of every block (the recorder's pointer is valid only during
// the call) and every error.
class RecordingDelegate final : public TLRRecorderDelegate,
                                public TLRRecorderErrorsHandlerDelegate {
 public:
  void audioDataReceived(const int16_t* data, uint32_t itemsCount, double time) override {
    ReceivedBlock block{std::vector<int16_t>(data, data + itemsCount), time,
                        EventLoop::main().isCurrent(), std::chrono::steady_clock::now()};
    std::lock_guard lock(mutex_);
    blocks_.push_back(std::move(block));
    changed_.notify_all();
  }
  void recordStoppedWithError(const TLRError& error) override {
    std::lock_guard lock(mutex_);
    errors_.push_back(error);
    changed_.notify_all();
  }

  bool waitForBlocks(size_t count, std::chrono::milliseconds patience = kPatience) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, patience, [&] { return blocks_.size() >= count; });
  }
  bool waitForErrors(size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return errors_.size() >= count; });
  }
  std::vector<ReceivedBlock> blocks() const {
    std::lock_guard lock(mutex_);
    return blocks_;
  }
  std::vector<TLRError> errors() const {
    std::lock_guard lock(mutex_);
    return errors_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<ReceivedBlock> blocks_;
  std::vector<TLRError> errors_;
};

// The recorder's notifications in the order they were posted, with the
// message of each "audioError".
class RecorderNotifications {
 public:
  struct Entry {
    std::string name;
    std::string message;
    SteadyTime at;
  };

  RecorderNotifications() {
    auto& center = TLRNotificationCenter::defaultCenter();
    for (const char* name : {TLRAudioConnectSuccNotification, TLRAudioErrorNotification}) {
      tokens_.push_back(center.addObserver(name, [this](const TLRNotification& n) {
        std::string message;
        if (auto it = n.userInfo.find("message"); it != n.userInfo.end()) {
          if (const auto* text = std::get_if<std::string>(&it->second)) message = *text;
        }
        std::lock_guard lock(mutex_);
        entries_.push_back({n.name, message, std::chrono::steady_clock::now()});
        changed_.notify_all();
      }));
    }
  }
  ~RecorderNotifications() {
    for (auto token : tokens_)
      TLRNotificationCenter::defaultCenter().removeObserver(token);
  }
  RecorderNotifications(const RecorderNotifications&) = delete;
  RecorderNotifications& operator=(const RecorderNotifications&) = delete;

  bool waitForCount(const std::string& name, size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return countLocked(name) >= count; });
  }
  size_t count(const std::string& name) const {
    std::lock_guard lock(mutex_);
    return countLocked(name);
  }
  std::vector<Entry> entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }

 private:
  size_t countLocked(const std::string& name) const {
    size_t n = 0;
    for (const auto& e : entries_)
      n += e.name == name ? 1 : 0;
    return n;
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Entry> entries_;
  std::vector<TLRNotificationCenter::ObserverToken> tokens_;
};

// A recorder made, driven and destroyed on the loop, as the SDK does.
class LoopRecorder {
 public:
  LoopRecorder(double sampleRate, TLRAudioSourceFactory factory) {
    EventLoop::main().call(
        [&] { recorder_ = std::make_unique<TLRRecorder>(sampleRate, std::move(factory)); });
  }
  ~LoopRecorder() {
    EventLoop::main().call([&] { recorder_.reset(); });
  }
  LoopRecorder(const LoopRecorder&) = delete;
  LoopRecorder& operator=(const LoopRecorder&) = delete;

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
  int64_t attemptCount() {
    return run([](TLRRecorder& r) { return r.attemptCount(); });
  }

 private:
  std::unique_ptr<TLRRecorder> recorder_;
};

}  // namespace tellora::audiotest

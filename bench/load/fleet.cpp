#include "bench/load/fleet.h"

#include <sys/resource.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <queue>
#include <unordered_map>

#include "fingerprint/part_fingerprint.h"

namespace tellora::load {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using json = nlohmann::json;

namespace {

const Clock::time_point kEpoch = Clock::now();
// Wall-clock milliseconds at kEpoch: the phones' device clock.
const double kWallAtEpochMs =
    std::chrono::duration<double, std::milli>(std::chrono::system_clock::now().time_since_epoch())
        .count();

double nowMs() {
  return std::chrono::duration<double, std::milli>(Clock::now() - kEpoch).count();
}

Clock::time_point timeAt(double ms) {
  return kEpoch +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(ms));
}

double cpuSecondsOfSelf() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
  return seconds(u.ru_utime) + seconds(u.ru_stime);
}

tcp::endpoint endpointOf(const Endpoint& server) {
  return {asio::ip::make_address(server.host), server.port};
}

// --- registration ----------------------------------------------------------

class Registrar {
 public:
  Registrar(const Endpoint& server, int appId, const std::string& appSecret, int count)
      : endpoint_(endpointOf(server)), host_(server.host + ":" + std::to_string(server.port)) {
    body_ = json{{"device",
                  {{"os", "Linux"},
                   {"osVersion", "6.1"},
                   {"hardware", "x86_64"},
                   {"language", "en"},
                   {"appName", "com.tellora.bench.load"},
                   {"appVersion", "1.0"}}},
                 {"app", {{"id", appId}, {"secretKey", appSecret}}}}
                .dump();
    identities_.resize(static_cast<size_t>(count));
  }

  std::vector<Identity> run(int parallel, std::string& error) {
    for (int w = 0; w < parallel; ++w)
      next();
    ioc_.run();
    error = error_;
    if (!error_.empty()) identities_.clear();
    return std::move(identities_);
  }

 private:
  struct Exchange {
    explicit Exchange(asio::io_context& ioc) : stream(ioc) {}
    beast::tcp_stream stream;
    http::request<http::string_body> request;
    http::response<http::string_body> response;
    beast::flat_buffer buffer;
    size_t index = 0;
  };

  void next() {
    if (!error_.empty() || issued_ == identities_.size()) return;
    auto x = std::make_shared<Exchange>(ioc_);
    x->index = issued_++;
    x->request = {http::verb::post, "/register", 11};
    x->request.set(http::field::host, host_);
    x->request.set(http::field::content_type, "application/json");
    x->request.set(http::field::connection, "close");
    x->request.body() = body_;
    x->request.prepare_payload();
    x->stream.expires_after(std::chrono::seconds(10));
    x->stream.async_connect(endpoint_, [this, x](beast::error_code ec) {
      if (ec) return fail(*x, "connect", ec);
      http::async_write(x->stream, x->request, [this, x](beast::error_code ec, size_t) {
        if (ec) return fail(*x, "write", ec);
        http::async_read(x->stream, x->buffer, x->response,
                         [this, x](beast::error_code ec, size_t) { done(*x, ec); });
      });
    });
  }

  void done(Exchange& x, beast::error_code ec) {
    if (ec) return fail(x, "read", ec);
    beast::error_code ignored;
    x.stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
    const json reply = json::parse(x.response.body(), nullptr, false);
    if (x.response.result_int() != 200 || !reply.is_object() || !reply.contains("clientId") ||
        !reply["clientId"].is_string() || !reply.contains("clientSecret") ||
        !reply["clientSecret"].is_string()) {
      if (error_.empty())
        error_ = "registration " + std::to_string(x.index) + ": HTTP " +
                 std::to_string(x.response.result_int()) + " " + x.response.body();
      return;
    }
    identities_[x.index] = {reply["clientId"].get<std::string>(),
                            reply["clientSecret"].get<std::string>()};
    next();
  }

  void fail(Exchange& x, const char* what, beast::error_code ec) {
    if (error_.empty())
      error_ = "registration " + std::to_string(x.index) + ": " + what + ": " + ec.message();
  }

  asio::io_context ioc_;
  tcp::endpoint endpoint_;
  std::string host_;
  std::string body_;
  std::vector<Identity> identities_;
  size_t issued_ = 0;
  std::string error_;
};

// --- the phones of a round -------------------------------------------------

enum class RequestType { kMode = 0, kPayload = 1, kNearby = 2, kTime = 3, kFingerprint = 4 };

struct Pending {
  int64_t id;
  RequestType type;
  double sentMs;
  bool inWindow;
};

enum class PhoneState {
  kWaiting,
  kConnecting,
  kUpgrading,
  kClock,
  kStarting,
  kSearching,
  kClosing,
  kDone
};

struct Phone {
  explicit Phone(asio::io_context& ioc) : ws(ioc), timer(ioc) {}
  int index = 0;
  websocket::stream<tcp::socket> ws;
  websocket::response_type upgrade;
  beast::flat_buffer in;
  asio::steady_timer timer;
  std::deque<std::string> out;
  bool writing = false;
  std::deque<Pending> pending;
  int64_t nextId = 0;
  PhoneState state = PhoneState::kWaiting;
  bool failed = false;
  int clockReplies = 0;
  double bestRttMs = INFINITY;
  double offsetMs = 0;  // server - device, from the fastest clock reply
  std::string clockRecord;
  int64_t nextIndex = 0;
  double fpStartMs = -1;
  double foundMs[2] = {-1, -1};  // per room-mate slot
};

// A phone's next part and when it is due.
struct Due {
  double ms;
  int phone;
  bool operator>(const Due& other) const { return ms > other.ms; }
};

// Parts go out up to this late, in batches.
constexpr auto kPumpPeriod = std::chrono::milliseconds(1);

enum class Phase { kRamp, kSettle, kWindow, kDrain, kClosing, kOver };

enum class ErrorKind { kConnect, kRefused, kClosed, kIo, kBadFrame };

class Round {
 public:
  Round(const std::vector<Endpoint>& servers, const std::vector<Identity>& identities,
        const LoadPlan& plan, const RoomStreams& streams, const RoundOptions& options,
        const RoundHooks& hooks)
      : identities_(identities),
        plan_(plan),
        streams_(streams),
        options_(options),
        hooks_(hooks),
        control_(ioc_),
        pumpTimer_(ioc_) {
    for (const auto& server : servers) {
      endpoints_.push_back(endpointOf(server));
      hosts_.push_back(server.host + ":" + std::to_string(server.port));
    }
    for (size_t i = 0; i < plan.phones.size(); ++i) {
      phones_.push_back(std::make_unique<Phone>(ioc_));
      phones_.back()->index = static_cast<int>(i);
      byClientId_.emplace(identities[i].clientId, static_cast<int>(i));
    }
  }

  RoundResult run() {
    startMs_ = nowMs();
    result_.clients = static_cast<int>(phones_.size());
    for (auto& p : phones_) {
      Phone* phone = p.get();
      phone->timer.expires_at(timeAt(startMs_ + plan_.phones[phone->index].startMs));
      phone->timer.async_wait([this, phone](beast::error_code ec) {
        if (!ec) connect(*phone);
      });
    }
    tick();
    pumpTimer_.expires_at(Clock::now());
    pump();
    ioc_.run();
    tally();
    return std::move(result_);
  }

 private:
  const RoomPlan& roomOf(const Phone& phone) const {
    return plan_.rooms[static_cast<size_t>(plan_.phones[phone.index].room)];
  }

  void connect(Phone& phone) {
    if (phase_ >= Phase::kDrain) return;
    phone.state = PhoneState::kConnecting;
    const auto& endpoint = endpoints_[static_cast<size_t>(phone.index) % endpoints_.size()];
    phone.ws.next_layer().async_connect(endpoint, [this, &phone](beast::error_code ec) {
      if (ec) return fail(phone, ErrorKind::kConnect, "connect: " + ec.message());
      phone.ws.next_layer().set_option(tcp::no_delay(true));
      upgrade(phone);
    });
  }

  void upgrade(Phone& phone) {
    phone.state = PhoneState::kUpgrading;
    websocket::stream_base::timeout timeouts{};
    timeouts.handshake_timeout = std::chrono::seconds(10);
    timeouts.idle_timeout = websocket::stream_base::none();
    timeouts.keep_alive_pings = false;
    phone.ws.set_option(timeouts);
    const Identity& id = identities_[static_cast<size_t>(phone.index)];
    phone.ws.set_option(websocket::stream_base::decorator([&id](websocket::request_type& request) {
      request.set("clientId", id.clientId);
      request.set("clientSecret", id.clientSecret);
      request.set("app_version", "1.0");
    }));
    phone.ws.read_message_max(1 << 20);
    const auto& host = hosts_[static_cast<size_t>(phone.index) % hosts_.size()];
    phone.ws.async_handshake(phone.upgrade, host, "/ws", [this, &phone](beast::error_code ec) {
      if (ec == websocket::error::upgrade_declined)
        return fail(phone, ErrorKind::kRefused,
                    "upgrade declined: HTTP " + std::to_string(phone.upgrade.result_int()));
      if (ec) return fail(phone, ErrorKind::kIo, "upgrade: " + ec.message());
      phone.upgrade = {};
      phone.ws.binary(true);
      phone.state = PhoneState::kClock;
      read(phone);
      requestTime(phone);
    });
  }

  void read(Phone& phone) {
    phone.ws.async_read(phone.in, [this, &phone](beast::error_code ec, size_t) {
      if (ec) return readFailed(phone, ec);
      // The SDK reads text frames only: a binary one would be lost on a phone.
      if (!phone.ws.got_text()) return fail(phone, ErrorKind::kBadFrame, "a binary frame");
      const auto data = phone.in.cdata();
      handle(phone, std::string_view(static_cast<const char*>(data.data()), data.size()));
      phone.in.consume(phone.in.size());
      read(phone);
    });
  }

  void readFailed(Phone& phone, beast::error_code ec) {
    if (phone.state == PhoneState::kClosing || phone.state == PhoneState::kDone) {
      phone.state = PhoneState::kDone;
      return;
    }
    if (ec == websocket::error::closed) {
      const auto& reason = phone.ws.reason();
      return fail(phone, ErrorKind::kClosed,
                  "closed by the server: " + std::to_string(reason.code) + " " +
                      std::string(reason.reason.c_str()));
    }
    fail(phone, ErrorKind::kIo, "read: " + ec.message());
  }

  // `text` carries the id the phone took last (request() and sendFingerprint()).
  void send(Phone& phone, RequestType type, std::string text) {
    phone.pending.push_back({phone.nextId - 1, type, nowMs(), phase_ == Phase::kWindow});
    if (phase_ == Phase::kWindow) ++result_.requestsSent;
    phone.out.push_back(std::move(text));
    if (!phone.writing) write(phone);
  }

  std::string request(Phone& phone, RequestType type, const json* data) {
    json message{{"type", static_cast<int>(type)}, {"id", phone.nextId++}};
    if (data != nullptr) message["data"] = *data;
    return message.dump();
  }

  void write(Phone& phone) {
    if (phone.out.empty() || phone.state == PhoneState::kClosing ||
        phone.state == PhoneState::kDone) {
      phone.writing = false;
      return;
    }
    phone.writing = true;
    phone.ws.async_write(asio::buffer(phone.out.front()),
                         [this, &phone](beast::error_code ec, size_t) {
                           if (ec) {
                             phone.writing = false;
                             if (phone.state == PhoneState::kClosing) return;
                             return fail(phone, ErrorKind::kIo, "write: " + ec.message());
                           }
                           phone.out.pop_front();
                           write(phone);
                         });
  }

  void requestTime(Phone& phone) {
    if (phone.clockRecord.empty())
      return send(phone, RequestType::kTime, request(phone, RequestType::kTime, nullptr));
    const json data{{"d", phone.clockRecord}};
    send(phone, RequestType::kTime, request(phone, RequestType::kTime, &data));
  }

  void startSearch(Phone& phone) {
    phone.state = PhoneState::kStarting;
    const json mode{{"mode", 3}};
    send(phone, RequestType::kMode, request(phone, RequestType::kMode, &mode));
    const json payload = "phone " + std::to_string(phone.index);
    send(phone, RequestType::kPayload, request(phone, RequestType::kPayload, &payload));
    send(phone, RequestType::kNearby, request(phone, RequestType::kNearby, nullptr));
  }

  void handle(Phone& phone, std::string_view text) {
    if (phase_ == Phase::kWindow) ++result_.framesReceived;
    const json message = json::parse(text, nullptr, false);
    if (!message.is_object()) return fail(phone, ErrorKind::kBadFrame, "not JSON");
    const auto requestId = message.find("requestId");
    if (requestId != message.end() && requestId->is_number_integer()) {
      const int64_t id = requestId->get<int64_t>();
      auto it = phone.pending.begin();
      while (it != phone.pending.end() && it->id != id)
        ++it;
      if (it == phone.pending.end())
        return fail(phone, ErrorKind::kBadFrame, "reply to no request: " + std::string(text));
      const Pending sent = *it;
      phone.pending.erase(it);
      return reply(phone, sent, message);
    }
    const auto type = message.find("type");
    const auto data = message.find("data");
    if (type == message.end() || data == message.end() || !data->is_object()) return;
    const auto client = data->find("clientId");
    if (client == data->end() || !client->is_string()) return;
    if (*type == 102) found(phone, client->get_ref<const std::string&>());
    if (*type == 103) ++result_.lost;
  }

  void reply(Phone& phone, const Pending& sent, const json& message) {
    const double now = nowMs();
    switch (sent.type) {
      case RequestType::kTime: {
        const auto data = message.find("data");
        const json* time = data != message.end() && data->is_object() && data->contains("time")
                               ? &(*data)["time"]
                               : nullptr;
        if (time == nullptr || !time->is_number()) {
          return fail(phone, ErrorKind::kBadFrame, "time reply without a time: " + message.dump());
        }
        const double rtt = now - sent.sentMs;
        if (rtt < phone.bestRttMs) {
          phone.bestRttMs = rtt;
          phone.offsetMs = time->get<double>() + rtt / 2 - (kWallAtEpochMs + now);
        }
        phone.clockRecord = ">>>" + message.dump() + "<<< [" + time->dump() + "]";
        if (++phone.clockReplies < 5) return requestTime(phone);
        return startSearch(phone);
      }
      case RequestType::kNearby: {
        const auto data = message.find("data");
        if (data != message.end() && data->is_object() && data->contains("nearby") &&
            (*data)["nearby"].is_array())
          for (const auto& entry : (*data)["nearby"])
            if (entry.is_object() && entry.contains("clientId") && entry["clientId"].is_string())
              found(phone, entry["clientId"].get_ref<const std::string&>());
        phone.state = PhoneState::kSearching;
        return scheduleFingerprint(phone, true);
      }
      case RequestType::kFingerprint:
        if (sent.inWindow) result_.fpLatencyMs.push_back(now - sent.sentMs);
        return;
      default:
        return;
    }
  }

  void found(Phone& phone, const std::string& clientId) {
    const auto other = byClientId_.find(clientId);
    const int mate = other == byClientId_.end() ? -1 : other->second;
    const auto& me = plan_.phones[static_cast<size_t>(phone.index)];
    if (mate < 0 || plan_.phones[static_cast<size_t>(mate)].room != me.room) {
      if (++result_.falseFound <= 5)
        std::fprintf(stderr, "load: phone %d (room %d) found %s of room %d\n", phone.index, me.room,
                     clientId.c_str(),
                     mate < 0 ? -1 : plan_.phones[static_cast<size_t>(mate)].room);
      return;
    }
    const int member = plan_.phones[static_cast<size_t>(mate)].member;
    const int slot = member < me.member ? member : member - 1;
    if (slot < 0 || slot > 1) return;
    if (phone.foundMs[slot] < 0) phone.foundMs[slot] = nowMs();
  }

  // Part k of the room's sound starts at startMs_ + (k - startIndex) steps and
  // is sent sendDelayMs after its end.
  double sendTimeOf(const Phone& phone, int64_t k) const {
    return startMs_ + static_cast<double>(k - roomOf(phone).startIndex) * kPartStepMs +
           kPartSpanMs + plan_.phones[static_cast<size_t>(phone.index)].sendDelayMs;
  }

  void scheduleFingerprint(Phone& phone, bool first) {
    if (first) {
      const double since = nowMs() - sendTimeOf(phone, roomOf(phone).startIndex);
      phone.nextIndex = roomOf(phone).startIndex +
                        static_cast<int64_t>(std::ceil(std::max(0.0, since) / kPartStepMs));
    }
    due_.push({sendTimeOf(phone, phone.nextIndex), phone.index});
  }

  // One timer sends every phone's due parts: a timer per phone would cost a
  // wake-up and a timerfd update per part, as much as the send itself.
  void pump() {
    if (phase_ >= Phase::kDrain) return;
    const double now = nowMs();
    while (!due_.empty() && due_.top().ms <= now) {
      const Due next = due_.top();
      due_.pop();
      Phone& phone = *phones_[static_cast<size_t>(next.phone)];
      if (phone.state != PhoneState::kSearching) continue;
      if (phase_ == Phase::kWindow) result_.sendLagMs.push_back(now - next.ms);
      sendFingerprint(phone);
      ++phone.nextIndex;
      scheduleFingerprint(phone, false);
    }
    pumpTimer_.expires_at(pumpTimer_.expiry() + kPumpPeriod);
    pumpTimer_.async_wait([this](beast::error_code ec) {
      if (!ec) pump();
    });
  }

  void sendFingerprint(Phone& phone) {
    const RoomPlan& room = roomOf(phone);
    const int member = plan_.phones[static_cast<size_t>(phone.index)].member;
    double clockErrorMs = 0;
    if (!streams_.partAt(room.stream, member, phone.nextIndex, room.mask, words_, clockErrorMs))
      return;
    const double soundStartMs =
        startMs_ + static_cast<double>(phone.nextIndex - room.startIndex) * kPartStepMs;
    const double stime = kWallAtEpochMs + soundStartMs + clockErrorMs + phone.offsetMs;
    const std::string fp = fingerprintFromWords(words_);
    char head[96];
    const int n = std::snprintf(head, sizeof head, "{\"type\":4,\"id\":%lld,\"data\":{\"fp\":\"",
                                static_cast<long long>(phone.nextId++));
    char tail[96];
    const int m = std::snprintf(tail, sizeof tail, "\",\"stime\":%.3f,\"etime\":%.3f}}", stime,
                                phone.offsetMs);
    std::string text;
    text.reserve(static_cast<size_t>(n + m) + fp.size());
    text.append(head, static_cast<size_t>(n)).append(fp).append(tail, static_cast<size_t>(m));
    if (phone.fpStartMs < 0) phone.fpStartMs = nowMs();
    send(phone, RequestType::kFingerprint, std::move(text));
  }

  void fail(Phone& phone, ErrorKind kind, const std::string& what) {
    if (phone.failed) return;
    phone.failed = true;
    const bool opened = phone.state >= PhoneState::kClock;
    phone.state = PhoneState::kDone;
    phone.timer.cancel();
    beast::error_code ignored;
    phone.ws.next_layer().close(ignored);
    switch (kind) {
      case ErrorKind::kConnect:
        ++result_.errors.connectFailed;
        break;
      case ErrorKind::kRefused:
        ++result_.errors.refused;
        break;
      case ErrorKind::kClosed:
        ++result_.errors.closed;
        break;
      case ErrorKind::kIo:
        ++result_.errors.ioErrors;
        break;
      case ErrorKind::kBadFrame:
        ++result_.errors.badFrames;
        break;
    }
    if (++reported_ <= 10 || options_.verbose)
      std::fprintf(stderr, "load: phone %d%s at %.1f s: %s\n", phone.index,
                   opened ? "" : " (opening)", (nowMs() - startMs_) / 1000, what.c_str());
  }

  // The round's clock: ramp, settle, window, drain, close.
  void tick() {
    const double now = nowMs();
    if (phase_ < Phase::kClosing && hooks_.serverRunning && !hooks_.serverRunning()) {
      std::fprintf(stderr, "load: the server exited at %.1f s into the round\n",
                   (now - startMs_) / 1000);
      result_.serverGone = true;
      if (phase_ == Phase::kWindow) {
        result_.benchCpuSeconds = cpuSecondsOfSelf() - cpuAtWindowStart_;
        result_.windowSeconds = (now - windowStartMs_) / 1000;
        if (hooks_.windowEnd) hooks_.windowEnd();
      }
      closeAll(now);
    }
    switch (phase_) {
      case Phase::kRamp: {
        if (now < startMs_ + options_.rampMs) break;
        int ready = 0;
        for (const auto& p : phones_)
          if (p->failed || p->fpStartMs >= 0) ++ready;
        if (ready == std::ssize(phones_) ||
            now >= startMs_ + options_.rampMs + options_.settleLimitMs) {
          phase_ = Phase::kSettle;
          phaseEndMs_ = now + options_.settleMs;
        }
        break;
      }
      case Phase::kSettle:
        if (now >= phaseEndMs_) openWindow(now);
        break;
      case Phase::kWindow:
        if (now >= phaseEndMs_) {
          result_.benchCpuSeconds = cpuSecondsOfSelf() - cpuAtWindowStart_;
          result_.windowSeconds = (now - windowStartMs_) / 1000;
          if (hooks_.windowEnd) hooks_.windowEnd();
          phase_ = Phase::kDrain;
          phaseEndMs_ = now + options_.drainMs;
        }
        break;
      case Phase::kDrain: {
        size_t due = 0;
        for (const auto& p : phones_)
          if (!p->failed) due += p->pending.size();
        if (due == 0 || now >= phaseEndMs_) {
          result_.errors.missingReplies = static_cast<int>(due);
          closeAll(now);
        }
        break;
      }
      case Phase::kClosing: {
        bool open = false;
        for (const auto& p : phones_)
          open |= p->state != PhoneState::kDone && p->state != PhoneState::kWaiting;
        if (!open || now >= phaseEndMs_) {
          for (auto& p : phones_) {
            if (p->state == PhoneState::kDone || p->state == PhoneState::kWaiting) continue;
            ++result_.errors.closeTimeouts;
            beast::error_code ignored;
            p->ws.next_layer().close(ignored);
          }
          phase_ = Phase::kOver;
          ioc_.stop();
          return;
        }
        break;
      }
      case Phase::kOver:
        return;
    }
    control_.expires_after(std::chrono::milliseconds(50));
    control_.async_wait([this](beast::error_code ec) {
      if (!ec) tick();
    });
  }

  void openWindow(double now) {
    for (const auto& p : phones_)
      if (p->fpStartMs >= 0 && !p->failed) ++result_.searching;
    result_.errors.notSearching = 0;
    for (const auto& p : phones_)
      if (!p->failed && p->fpStartMs < 0) ++result_.errors.notSearching;
    if (hooks_.windowStart) hooks_.windowStart();
    cpuAtWindowStart_ = cpuSecondsOfSelf();
    windowStartMs_ = now;
    phase_ = Phase::kWindow;
    phaseEndMs_ = now + options_.windowMs;
  }

  void closeAll(double now) {
    phase_ = Phase::kClosing;
    phaseEndMs_ = now + options_.closeMs;
    for (auto& p : phones_) {
      Phone& phone = *p;
      phone.timer.cancel();
      if (phone.failed || phone.state == PhoneState::kDone) continue;
      if (phone.state < PhoneState::kClock) {
        // Still opening: nothing to hand over but the socket.
        beast::error_code ignored;
        phone.ws.next_layer().close(ignored);
        phone.state = PhoneState::kDone;
        continue;
      }
      phone.state = PhoneState::kClosing;
      phone.ws.async_close(websocket::close_code::normal,
                           [&phone](beast::error_code) { phone.state = PhoneState::kDone; });
    }
  }

  // Pairs of co-located phones that both sent fingerprints, and when they met.
  void tally() {
    for (const auto& room : plan_.rooms) {
      for (int a = 0; a < room.phones; ++a) {
        for (int b = a + 1; b < room.phones; ++b) {
          const Phone& pa = *phones_[static_cast<size_t>(room.firstPhone + a)];
          const Phone& pb = *phones_[static_cast<size_t>(room.firstPhone + b)];
          if (pa.fpStartMs < 0 || pb.fpStartMs < 0) continue;
          ++result_.pairs;
          const double ab = pa.foundMs[b - 1], ba = pb.foundMs[a];
          const double first = ab < 0 ? ba : (ba < 0 ? ab : std::min(ab, ba));
          if (first < 0) continue;
          ++result_.pairsFound;
          result_.timeToFoundMs.push_back(
              std::max(0.0, first - std::max(pa.fpStartMs, pb.fpStartMs)));
        }
      }
    }
  }

  asio::io_context ioc_{1};
  std::vector<tcp::endpoint> endpoints_;
  std::vector<std::string> hosts_;
  const std::vector<Identity>& identities_;
  const LoadPlan& plan_;
  const RoomStreams& streams_;
  RoundOptions options_;
  RoundHooks hooks_;
  asio::steady_timer control_;
  asio::steady_timer pumpTimer_;
  std::priority_queue<Due, std::vector<Due>, std::greater<>> due_;
  std::vector<std::unique_ptr<Phone>> phones_;
  std::unordered_map<std::string, int> byClientId_;
  std::vector<uint32_t> words_;
  Phase phase_ = Phase::kRamp;
  double startMs_ = 0;
  double phaseEndMs_ = 0;
  double windowStartMs_ = 0;
  double cpuAtWindowStart_ = 0;
  int reported_ = 0;
  RoundResult result_;
};

}  // namespace

std::vector<Identity> registerIdentities(const Endpoint& server, int appId,
                                         const std::string& appSecret, int count, int parallel,
                                         std::string& error) {
  return Registrar(server, appId, appSecret, count).run(parallel, error);
}

RoundResult runRound(const std::vector<Endpoint>& servers, const std::vector<Identity>& identities,
                     const LoadPlan& plan, const RoomStreams& streams, const RoundOptions& options,
                     const RoundHooks& hooks) {
  return Round(servers, identities, plan, streams, options, hooks).run();
}

}  // namespace tellora::load

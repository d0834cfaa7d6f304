// What every connection of a running server shares. All of it is used on the
// server's one thread only.
#pragma once

#include <boost/asio/ssl/context.hpp>

#include "server/address_limits.h"
#include "server/client_store.h"
#include "server/connection_registry.h"
#include "server/hub.h"
#include "server/limit_log.h"
#include "server/metrics.h"
#include "server/server_options.h"

namespace tellora::server {

struct ServerContext {
  const ServerOptions& options;
  ClientStore& store;
  Hub& hub;
  ConnectionRegistry& registry;
  AddressLimits& addressLimits;
  LimitLogs& limitLogs;
  boost::asio::ssl::context* tls = nullptr;  // null: plain http:// and ws://
  ServerMetrics metrics{};
};

// The Server header field of every response.
constexpr const char* kServerName = "tellora-server";

}  // namespace tellora::server

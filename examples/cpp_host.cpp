// A minimal C++ host: set up, search for ten seconds (or
// $TELLORA_EXAMPLE_SECONDS), print who is nearby. The default endpoints are
// on 127.0.0.1:10000, or on $TELLORA_SERVER_HOST.
#include <tellora/tellora.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

int main() {
  using tellora::TLRClient;
  using tellora::TLRTellora;

  TLRTellora::setHostApplication("com.example.cpp-host", "1.0");
  TLRTellora::setupWithApiKey("demo-key");
  TLRTellora::startSearchingWithPayload(
      "hello from C++", [] { std::puts("search started"); },
      [](const TLRClient& c) { std::printf("found %s\n", c.clientID().c_str()); },
      [](const TLRClient& c) { std::printf("lost %s\n", c.clientID().c_str()); },
      [](const std::optional<tellora::TLRError>& error) {
        std::printf("search stopped%s%s\n", error ? ": " : "",
                    error ? error->description().c_str() : "");
      });
  const char* seconds = std::getenv("TELLORA_EXAMPLE_SECONDS");
  std::this_thread::sleep_for(std::chrono::seconds(seconds ? std::atoi(seconds) : 10));
  std::printf("%zu nearby\n", TLRTellora::sharedInstance().nearbyClients().size());
  TLRTellora::stopSearch();
  return 0;
}

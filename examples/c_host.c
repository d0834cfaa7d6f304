/* A minimal C host: set up, search for ten seconds (or
 * $TELLORA_EXAMPLE_SECONDS), print who is nearby. */
#include <stdio.h>
#include <stdlib.h>
#include <tellora/tellora.h>
#include <unistd.h>

static void started(void* user) {
  (void)user;
  puts("search started");
}

static void found(const char* id, const char* payload, void* user) {
  (void)user;
  printf("found %s (%s)\n", id, payload ? payload : "no payload");
}

static void lost(const char* id, const char* payload, void* user) {
  (void)payload;
  (void)user;
  printf("lost %s\n", id);
}

static void stopped(const tlr_error* error, void* user) {
  (void)user;
  printf("search stopped%s%s\n", error ? ": " : "", error ? error->description : "");
}

int main(void) {
  tlr_set_host_application("com.example.c-host", "1.0");
  tlr_setup_with_api_key("demo-key");
  tlr_start_searching("hello from C", started, found, lost, stopped, NULL);
  const char* seconds = getenv("TELLORA_EXAMPLE_SECONDS");
  sleep(seconds ? (unsigned)atoi(seconds) : 10u);
  printf("%zu nearby\n", tlr_nearby_clients(NULL, NULL));
  tlr_stop_search();
  return 0;
}

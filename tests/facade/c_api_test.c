/* A host written in C, linked against libtellora.so: sets up with its own
 * configuration, searches (without a lost callback), hears of a pushed client
 * through its callback and through a notification observer, lists the nearby
 * clients and stops. It prints what it heard and what the queries answered,
 * one line each; the driver test checks the lines.
 *
 * Usage: c_api_test REGISTRATION_URL WEBSOCKET_URL
 * The driver test runs it against its loopback servers (with the server
 * pushing client "peer-1" after the nearby request) and a user-defaults file
 * of its own (TELLORA_DEFAULTS_PATH). */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <time.h>

#include "tellora/tellora.h"

/* The pointer the host hands to the SDK with every callback. */
static int host;

/* Prints one event, marked when `user` is not that very pointer. The SDK's
 * callbacks come one at a time, on its loop. */
static void print(void* user, const char* what, const char* id, const char* payload) {
  printf("%s%s %s %s\n", user == &host ? "" : "wrong user: ", what, id ? id : "-",
         payload ? payload : "-");
  fflush(stdout);
}

static void on_started(void* user) {
  print(user, "started", NULL, NULL);
}
static void on_client(const char* id, const char* payload, void* user) {
  print(user, "client", id, payload);
}
static void on_stopped(const tlr_error* error, void* user) {
  print(user, error ? "stopped with error" : "stopped", NULL, NULL);
}
static void on_notification(const tlr_notification* notification, void* user) {
  print(user, notification->name, notification->client_id, NULL);
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  /* The exported constants link from C. */
  printf("constants %d\n",
         TelloraVersionNumber > 0 && TelloraVersionString[0] && UDClientID[0] && UDClientSecret[0]);
  tlr_set_host_application("com.example.c-host", "2.0");
  const uint64_t observer =
      tlr_add_observer("TelloraClientFoundNotification", on_notification, &host);

  const tlr_configuration configuration = {.registration_server_url = argv[1],
                                           .websocket_server_url = argv[2],
                                           .app_id = 42,
                                           .app_secret = "c-secret",
                                           .host_fed_audio = 1 /* no microphone here */};
  tlr_setup_with_configuration(&configuration);

  tlr_start_searching("c-payload", on_started, on_client, NULL, on_stopped, &host);
  printf("searching %d\n", tlr_is_searching());
  /* Up to five seconds for the pushed client. The callback and the observer
   * have heard of it by the time it is listed. */
  const struct timespec pause = {0, 5 * 1000 * 1000};
  for (int round = 0; round < 1000 && tlr_nearby_clients(NULL, NULL) == 0; ++round)
    nanosleep(&pause, NULL);
  printf("listed %zu\n", tlr_nearby_clients(on_client, &host));

  /* The stop is queued; the query after it waits for it. */
  tlr_stop_search();
  printf("searching %d observer %d\n", tlr_is_searching(), observer != 0);
  tlr_remove_observer(observer);
  tlr_disconnect();
  return 0;
}

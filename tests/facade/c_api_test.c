/* A host written in C, linked against libtellora.so: sets up with its own
 * configuration, searches (without a lost callback), hears of a pushed client
 * through its callback and through a notification observer, lists the nearby
 * clients and stops.
 *
 * Usage: c_api_test REGISTRATION_URL WEBSOCKET_URL
 * The driver test runs it against its loopback servers (with the server
 * pushing client "peer-1" after the nearby request) and a user-defaults file
 * of its own (TELLORA_DEFAULTS_PATH). Exit status 0 when every check held;
 * each failed check is printed on stderr. */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "tellora/tellora.h"

enum { STARTED, FOUND, FOUND_NOTICES, STOPPED, STOPPED_WITH_ERROR, EVENTS };

/* Static: the SDK may still call back while the process exits. */
static struct {
  pthread_mutex_t mutex;
  int counts[EVENTS];
  char found[128], notice[64];
} state = {PTHREAD_MUTEX_INITIALIZER, {0}, "", ""};

static int failures = 0;

#define CHECK(condition)                                                            \
  do {                                                                              \
    if (!(condition)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                                   \
    }                                                                               \
  } while (0)

/* Counts an event and keeps its text, when `user` is the very pointer the host
 * handed to the SDK. */
static void note(void* user, int event, const char* id, const char* payload) {
  if (user != &state) return;
  pthread_mutex_lock(&state.mutex);
  ++state.counts[event];
  if (event == FOUND) snprintf(state.found, sizeof state.found, "%s %s", id, payload);
  if (event == FOUND_NOTICES) snprintf(state.notice, sizeof state.notice, "%s", id);
  pthread_mutex_unlock(&state.mutex);
}

static void on_started(void* user) {
  note(user, STARTED, NULL, NULL);
}
static void on_found(const char* id, const char* payload, void* user) {
  note(user, FOUND, id, payload ? payload : "(null)");
}
static void on_stopped(const tlr_error* error, void* user) {
  note(user, error ? STOPPED_WITH_ERROR : STOPPED, NULL, NULL);
}
static void on_found_notice(const tlr_notification* notification, void* user) {
  if (strcmp(notification->name, "TelloraClientFoundNotification") == 0)
    note(user, FOUND_NOTICES, notification->client_id ? notification->client_id : "(null)", NULL);
}
static void on_each_nearby(const char* client_id, const char* payload, void* user) {
  (void)payload;
  snprintf((char*)user, 64, "%s", client_id);
}

static int count(int event) {
  int value;
  pthread_mutex_lock(&state.mutex);
  value = state.counts[event];
  pthread_mutex_unlock(&state.mutex);
  return value;
}

/* Waits up to five seconds for an event to have come `at_least` times. */
static int wait_for(int event, int at_least) {
  const struct timespec pause = {0, 5 * 1000 * 1000};
  int round;
  for (round = 0; round < 1000 && count(event) < at_least; ++round)
    nanosleep(&pause, NULL);
  return count(event) >= at_least;
}

int main(int argc, char** argv) {
  tlr_configuration configuration;
  char listed_id[64] = "";
  uint64_t observer;

  if (argc != 3) {
    fprintf(stderr, "usage: %s REGISTRATION_URL WEBSOCKET_URL\n", argv[0]);
    return 2;
  }

  /* The exported constants link from C. */
  CHECK(TelloraVersionNumber > 0 && TelloraVersionString[0] && UDClientID[0] && UDClientSecret[0]);

  tlr_set_host_application("com.example.c-host", "2.0");
  observer = tlr_add_observer("TelloraClientFoundNotification", on_found_notice, &state);
  CHECK(observer != 0);

  memset(&configuration, 0, sizeof configuration);
  configuration.registration_server_url = argv[1];
  configuration.websocket_server_url = argv[2];
  configuration.app_id = 42;
  configuration.app_secret = "c-secret";
  configuration.host_fed_audio = 1; /* no microphone here */
  tlr_setup_with_configuration(&configuration);

  tlr_start_searching("c-payload", on_started, on_found, NULL, on_stopped, &state);
  CHECK(tlr_is_searching() == 1);
  CHECK(wait_for(STARTED, 1) && wait_for(FOUND, 1) && wait_for(FOUND_NOTICES, 1));
  CHECK(count(FOUND) == 1 && count(FOUND_NOTICES) == 1);
  pthread_mutex_lock(&state.mutex);
  CHECK(strcmp(state.found, "peer-1 hello from peer") == 0);
  CHECK(strcmp(state.notice, "peer-1") == 0);
  pthread_mutex_unlock(&state.mutex);

  CHECK(tlr_nearby_clients(on_each_nearby, listed_id) == 1);
  CHECK(strcmp(listed_id, "peer-1") == 0);

  /* The stop is queued; the query after it waits for it. */
  tlr_stop_search();
  CHECK(tlr_is_searching() == 0);
  CHECK(count(STOPPED) == 1 && count(STOPPED_WITH_ERROR) == 0);

  tlr_remove_observer(observer);
  tlr_disconnect();

  if (failures == 0) printf("c host: all checks passed\n");
  return failures == 0 ? 0 : 1;
}

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

#define HOST_MAGIC 0x7e11042a

typedef struct host_state {
  unsigned magic; /* proves the SDK hands back the very pointer it was given */
  pthread_mutex_t mutex;
  int started, found, found_notices, stopped, stopped_with_error;
  char found_id[64], found_payload[64], notice_id[64];
} host_state;

static int failures = 0;

#define CHECK(condition)                                                            \
  do {                                                                              \
    if (!(condition)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                                   \
    }                                                                               \
  } while (0)

static void copy_text(char* to, size_t size, const char* from) {
  if (!from) from = "(null)";
  strncpy(to, from, size - 1);
  to[size - 1] = '\0';
}

/* Locks the state when `user` is the host's own pointer; NULL otherwise. */
static host_state* lock_state(void* user) {
  host_state* state = (host_state*)user;
  if (!state || state->magic != HOST_MAGIC) return NULL;
  pthread_mutex_lock(&state->mutex);
  return state;
}

static void on_started(void* user) {
  host_state* state = lock_state(user);
  if (!state) return;
  ++state->started;
  pthread_mutex_unlock(&state->mutex);
}

static void on_found(const char* client_id, const char* payload, void* user) {
  host_state* state = lock_state(user);
  if (!state) return;
  ++state->found;
  copy_text(state->found_id, sizeof state->found_id, client_id);
  copy_text(state->found_payload, sizeof state->found_payload, payload);
  pthread_mutex_unlock(&state->mutex);
}

static void on_stopped(const tlr_error* error, void* user) {
  host_state* state = lock_state(user);
  if (!state) return;
  ++state->stopped;
  if (error) ++state->stopped_with_error;
  pthread_mutex_unlock(&state->mutex);
}

static void on_found_notice(const tlr_notification* notification, void* user) {
  host_state* state = lock_state(user);
  if (!state) return;
  if (strcmp(notification->name, "TelloraClientFoundNotification") == 0) {
    ++state->found_notices;
    copy_text(state->notice_id, sizeof state->notice_id, notification->client_id);
  }
  pthread_mutex_unlock(&state->mutex);
}

static void on_each_nearby(const char* client_id, const char* payload, void* user) {
  (void)payload;
  copy_text((char*)user, 64, client_id);
}

/* Reads one counter under the lock. */
static int read_counter(host_state* state, const int* counter) {
  int value;
  pthread_mutex_lock(&state->mutex);
  value = *counter;
  pthread_mutex_unlock(&state->mutex);
  return value;
}

/* Waits up to five seconds for a counter to reach `at_least`. */
static int wait_for(host_state* state, const int* counter, int at_least) {
  const struct timespec pause = {0, 5 * 1000 * 1000};
  int round;
  for (round = 0; round < 1000 && read_counter(state, counter) < at_least; ++round)
    nanosleep(&pause, NULL);
  return read_counter(state, counter) >= at_least;
}

int main(int argc, char** argv) {
  /* Static: the SDK may still call back while the process exits. */
  static host_state state;
  tlr_configuration configuration;
  char listed_id[64] = "";
  uint64_t observer;

  if (argc != 3) {
    fprintf(stderr, "usage: %s REGISTRATION_URL WEBSOCKET_URL\n", argv[0]);
    return 2;
  }

  /* The exported constants link from C. */
  CHECK(TelloraVersionNumber > 0 && TelloraVersionString[0] && UDClientID[0] && UDClientSecret[0]);

  memset(&state, 0, sizeof state);
  state.magic = HOST_MAGIC;
  pthread_mutex_init(&state.mutex, NULL);

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
  CHECK(wait_for(&state, &state.started, 1));
  CHECK(wait_for(&state, &state.found, 1));
  CHECK(wait_for(&state, &state.found_notices, 1));

  pthread_mutex_lock(&state.mutex);
  CHECK(state.found == 1);
  CHECK(strcmp(state.found_id, "peer-1") == 0);
  CHECK(strcmp(state.found_payload, "hello from peer") == 0);
  CHECK(state.found_notices == 1);
  CHECK(strcmp(state.notice_id, "peer-1") == 0);
  pthread_mutex_unlock(&state.mutex);

  CHECK(tlr_nearby_clients(on_each_nearby, listed_id) == 1);
  CHECK(strcmp(listed_id, "peer-1") == 0);

  /* The stop is queued; the query after it waits for it. */
  tlr_stop_search();
  CHECK(tlr_is_searching() == 0);
  CHECK(read_counter(&state, &state.stopped) == 1);
  CHECK(read_counter(&state, &state.stopped_with_error) == 0);

  tlr_remove_observer(observer);
  tlr_disconnect();

  if (failures == 0) printf("c host: all checks passed\n");
  return failures == 0 ? 0 : 1;
}

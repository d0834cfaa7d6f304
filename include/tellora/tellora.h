/* Tellora's C interface: a thin layer over the C++ facade for hosts written in
 * other languages.
 *
 * Conventions, once for the whole header:
 *  - Every function may be called from any thread.
 *  - Callbacks run on the SDK's own event loop thread, never concurrently, and
 *    receive the `user` pointer given with them. They may call back into the SDK.
 *  - Strings handed to a callback are valid only during that call; copy them to
 *    keep them. Strings handed to the SDK are copied before the call returns.
 *  - NULL stands for "none": a client without payload, a stop without error, a
 *    callback the host does not want.
 *
 * Compiles as C99 and as C++. */
#ifndef TELLORA_TELLORA_H
#define TELLORA_TELLORA_H

#include <stddef.h>
#include <stdint.h>

#include "tellora/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Library version: 1.0, and "@(#)PROGRAM:Tellora  PROJECT:Tellora-1\n". */
TELLORA_EXPORT extern const double TelloraVersionNumber;
TELLORA_EXPORT extern const unsigned char TelloraVersionString[];

/* User-defaults keys of the persisted client identity. */
TELLORA_EXPORT extern const char* const UDClientID;
TELLORA_EXPORT extern const char* const UDClientSecret;

typedef struct tlr_configuration {
  const char* registration_server_url;
  const char* websocket_server_url;
  int32_t app_id;
  const char* app_secret;
  /* Non-zero: the host pushes its own audio with tlr_push_audio() instead of
   * the SDK recording the default microphone. */
  int host_fed_audio;
  /* Non-zero: a close without error does not end the search, which starts
   * again by itself (resumeSearchAfterClose in tellora.hpp). */
  int resume_search_after_close;
} tlr_configuration;

typedef struct tlr_error {
  const char* domain;
  int64_t code;
  const char* description;
} tlr_error;

typedef void (*tlr_started_fn)(void* user);
typedef void (*tlr_client_fn)(const char* client_id, const char* payload, void* user);
typedef void (*tlr_stopped_fn)(const tlr_error* error, void* user);
typedef void (*tlr_done_fn)(void* user);

TELLORA_EXPORT void tlr_setup_with_api_key(const char* api_key);
TELLORA_EXPORT void tlr_setup_with_configuration(const tlr_configuration* configuration);

/* Starts a search; each callback may be NULL. */
TELLORA_EXPORT void tlr_start_searching(const char* payload, tlr_started_fn started,
                                        tlr_client_fn found, tlr_client_fn lost,
                                        tlr_stopped_fn stopped, void* user);
TELLORA_EXPORT void tlr_stop_search(void);
/* Stops the search and calls `stopped` (if not NULL) instead of the search's own. */
TELLORA_EXPORT void tlr_stop_searching_with_block(tlr_done_fn stopped, void* user);
TELLORA_EXPORT void tlr_disconnect(void);

/* With host_fed_audio: mono signed 16-bit items at 8000 Hz, any block size
 * (100 ms blocks are best). Items pushed while no search records are dropped. */
TELLORA_EXPORT void tlr_push_audio(const int16_t* items, uint32_t count);

TELLORA_EXPORT int tlr_is_searching(void);
/* Calls `each` once per nearby client, in order; returns how many there were. */
TELLORA_EXPORT size_t tlr_nearby_clients(tlr_client_fn each, void* user);

/* The host application's identifier and version; call before setup. */
TELLORA_EXPORT void tlr_set_host_application(const char* identifier, const char* version);

/* Notifications by name. `client` is set for found/lost notifications, `error`
 * for a stop with an error, `text` for string values such as "speedStatus". */
typedef struct tlr_notification {
  const char* name;
  const char* client_id;
  const char* client_payload;
  const tlr_error* error;
  const char* text_key;
  const char* text;
} tlr_notification;
typedef void (*tlr_notification_fn)(const tlr_notification* notification, void* user);

/* Returns a token for tlr_remove_observer (never 0). */
TELLORA_EXPORT uint64_t tlr_add_observer(const char* name, tlr_notification_fn handler, void* user);
TELLORA_EXPORT void tlr_remove_observer(uint64_t token);
/* Posts a notification without user info (e.g. "TelloraPrivateStartLogging"). */
TELLORA_EXPORT void tlr_post_notification(const char* name);

/* Replaces where log lines go (NULL restores stderr). */
typedef void (*tlr_log_fn)(const char* line, void* user);
TELLORA_EXPORT void tlr_set_log_sink(tlr_log_fn sink, void* user);

#ifdef __cplusplus
}
#endif

#endif /* TELLORA_TELLORA_H */

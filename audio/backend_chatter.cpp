#include "audio/backend_chatter.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "runtime/log.h"

namespace tellora {

namespace {

// Both libraries are dependencies of PortAudio, so they are loaded whenever
// it is; nothing is loaded here that was not already.
void* symbolOf(const char* library, const char* symbol) {
  void* handle = dlopen(library, RTLD_LAZY | RTLD_NOLOAD);
  if (handle == nullptr) return nullptr;
  void* found = dlsym(handle, symbol);
  dlclose(handle);  // the library stays loaded: PortAudio needs it
  return found;
}

void logChatter(const char* origin, const std::string& text) {
  if (!debugEnabled()) return;
  logLine(std::string("Tellora audio backend (") + origin + "): " + text);
}

thread_local int routedDepth = 0;

// ALSA: a handler local to the thread, which ALSA consults only while its
// global handler is its own default; a host that installed a global handler
// keeps getting everything.
using AlsaLocalHandler = void (*)(const char* file, int line, const char* function, int error,
                                  const char* format, va_list args);
using AlsaSetLocal = AlsaLocalHandler (*)(AlsaLocalHandler);

__attribute__((format(printf, 5, 0))) void alsaChatter(const char* file, int line,
                                                       const char* function, int error,
                                                       const char* format, va_list args) {
  if (!debugEnabled()) return;
  char message[512];
  std::vsnprintf(message, sizeof message, format, args);
  std::string text = std::string(file ? file : "?") + ":" + std::to_string(line) + ":(" +
                     (function ? function : "?") + ") " + message;
  if (error != 0) text += std::string(": ") + std::strerror(error < 0 ? -error : error);
  logChatter("ALSA", text);
}

AlsaSetLocal alsaSetLocal() {
  static const auto set =
      reinterpret_cast<AlsaSetLocal>(symbolOf("libasound.so.2", "snd_lib_error_set_local"));
  return set;
}

void* enterAlsaScope() {
  ++routedDepth;
  const AlsaSetLocal set = alsaSetLocal();
  return set ? reinterpret_cast<void*>(set(&alsaChatter)) : nullptr;
}

// JACK: one process-wide hook per kind of line.
using JackPrint = void (*)(const char*);
using JackSetPrint = void (*)(JackPrint);

struct JackHook {
  const char* variable;
  const char* setter;
  std::atomic<JackPrint> previous{nullptr};
  JackPrint forwarder;
};

void jackError(const char* line);
void jackInfo(const char* line);
JackHook jackHooks[] = {{"jack_error_callback", "jack_set_error_function", {}, &jackError},
                        {"jack_info_callback", "jack_set_info_function", {}, &jackInfo}};

void forward(JackHook& hook, const char* line) {
  if (routedDepth > 0) {
    logChatter("JACK", line ? line : "");
  } else if (const JackPrint previous = hook.previous.load()) {
    previous(line);
  }
}
void jackError(const char* line) {
  forward(jackHooks[0], line);
}
void jackInfo(const char* line) {
  forward(jackHooks[1], line);
}

}  // namespace

AudioBackendChatterScope::AudioBackendChatterScope() : previousAlsaHandler_(enterAlsaScope()) {}

AudioBackendChatterScope::~AudioBackendChatterScope() {
  if (const AlsaSetLocal set = alsaSetLocal())
    set(reinterpret_cast<AlsaLocalHandler>(previousAlsaHandler_));
  --routedDepth;
}

void routeAudioBackendChatterOnThisThread() {
  thread_local bool routed = false;
  if (routed) return;
  routed = true;
  enterAlsaScope();  // never left: the thread is the backend's
}

void installJackForwarder() {
  for (JackHook& hook : jackHooks) {
    auto* current = static_cast<JackPrint*>(symbolOf("libjack.so.0", hook.variable));
    const auto set = reinterpret_cast<JackSetPrint>(symbolOf("libjack.so.0", hook.setter));
    // Without the current hook there is nothing to forward to: leave JACK alone.
    if (current == nullptr || set == nullptr || *current == hook.forwarder) continue;
    hook.previous = *current;
    set(hook.forwarder);
  }
}

void removeJackForwarder() {
  for (JackHook& hook : jackHooks) {
    auto* current = static_cast<JackPrint*>(symbolOf("libjack.so.0", hook.variable));
    const auto set = reinterpret_cast<JackSetPrint>(symbolOf("libjack.so.0", hook.setter));
    // A host that installed a hook of its own since keeps it.
    if (current == nullptr || set == nullptr || *current != hook.forwarder) continue;
    set(hook.previous.load());
  }
}

}  // namespace tellora

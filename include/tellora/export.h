/* Symbol visibility for the public API of libtellora. Everything else in the
 * library is hidden. Compiles as C and as C++. */
#ifndef TELLORA_EXPORT_H
#define TELLORA_EXPORT_H

#if defined(_WIN32)
#if defined(TELLORA_BUILDING_LIBRARY)
#define TELLORA_EXPORT __declspec(dllexport)
#else
#define TELLORA_EXPORT __declspec(dllimport)
#endif
#else
#define TELLORA_EXPORT __attribute__((visibility("default")))
#endif

#endif /* TELLORA_EXPORT_H */

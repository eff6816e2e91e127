#pragma once

// Marks what the shared library exports: the public API and nothing else (the library is compiled with
// hidden visibility, and a linker version script keeps every other symbol local). A static build of the
// library defines VELMORA_STATIC_DEFINE for its consumers.
#if defined(VELMORA_STATIC_DEFINE)
#define VELMORA_EXPORT
#elif defined(_WIN32)
#if defined(VELMORA_BUILDING_LIBRARY)
#define VELMORA_EXPORT __declspec(dllexport)
#else
#define VELMORA_EXPORT __declspec(dllimport)
#endif
#else
#define VELMORA_EXPORT __attribute__((visibility("default")))
#endif

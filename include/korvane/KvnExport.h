/// \file
/// Export annotation of the library's public classes and functions.
///
/// The shared library (KorvaneClientU.dll on Windows, libKorvaneClient.so
/// elsewhere) is built with KVN_BUILDING_LIBRARY and exports what carries
/// KVN_API; applications that link the shared library see it imported.
/// The static library used by the project's own tests and tools is consumed
/// with KVN_STATIC, where the annotation is empty.
#ifndef KORVANE_KVNEXPORT_H
#define KORVANE_KVNEXPORT_H

#if defined(KVN_STATIC)
#define KVN_API
#elif defined(_WIN32)
#if defined(KVN_BUILDING_LIBRARY)
#define KVN_API __declspec(dllexport)
#else
#define KVN_API __declspec(dllimport)
#endif
#else
#define KVN_API __attribute__((visibility("default")))
#endif

#endif

// Marks the names that libzeva exports. Every other symbol of the library is
// hidden, so hosts see only what the headers under zeva/ declare with ZEVA_API.
#ifndef ZEVA_EXPORT_H
#define ZEVA_EXPORT_H

#if defined(_WIN32)
#  if defined(ZEVA_BUILDING_LIBRARY)
#    define ZEVA_API __declspec(dllexport)
#  else
#    define ZEVA_API __declspec(dllimport)
#  endif
#else
#  define ZEVA_API __attribute__((visibility("default")))
#endif

#endif  // ZEVA_EXPORT_H

// Export.h: symbol visibility of the tarvik library.
//
// The library is built with hidden symbols; every class and function that belongs to the public interface
// carries TARVIK_EXPORT. A static build (TARVIK_STATIC) exports nothing.
#pragma once

#if defined(TARVIK_STATIC)
#define TARVIK_EXPORT
#elif defined(_WIN32)
#if defined(TARVIK_BUILDING)
#define TARVIK_EXPORT __declspec(dllexport)
#else
#define TARVIK_EXPORT __declspec(dllimport)
#endif
#else
#define TARVIK_EXPORT __attribute__((visibility("default")))
#endif

#if defined(__GNUC__)
#define TARVIK_PRINTF_FORMAT(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define TARVIK_PRINTF_FORMAT(fmt_index, first_arg)
#endif

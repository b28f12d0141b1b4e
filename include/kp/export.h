// libkp: the compiler- and system-dependent macros; the one public header that asks which they are.
#pragma once

/// KP_API marks what the shared library exports; everything else stays hidden in it.
#if defined(KP_STATIC)
#define KP_API
#elif defined(_WIN32)
#if defined(KP_BUILDING)
#define KP_API __declspec(dllexport)
#else
#define KP_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define KP_API __attribute__((visibility("default")))
#else
#define KP_API
#endif

/// KP_PRINTF(position, first) lets the compiler check the arguments of a printf-like function.
/// @p position and @p first are the 1-based positions of the format and of its first argument.
#if defined(__GNUC__)
#define KP_PRINTF(position, first) __attribute__((format(printf, position, first)))
#else
#define KP_PRINTF(position, first)
#endif

/// KP_VECTOR(size) makes a type of bytes one of @p size bytes that are computed with all at once.
/// It is undefined where the compiler has no such types.
#if defined(__GNUC__)
#define KP_VECTOR(size) __attribute__((vector_size(size)))
#endif

// Export macro of the pendrel library.
//
// PENDREL_API marks what a host may call: the records, the free functions of Pendrel, the
// handler client of CTolvane and the constant Pendrel::Version. Everything else is hidden
// (-fvisibility=hidden on Linux, no dllexport on Windows). The static build that the tests
// link defines PENDREL_STATIC and exports nothing.
#pragma once

#if defined(PENDREL_STATIC)
#define PENDREL_API
#elif defined(_WIN32)
#if defined(PENDREL_BUILDING)
#define PENDREL_API __declspec(dllexport)
#else
#define PENDREL_API __declspec(dllimport)
#endif
#else
#define PENDREL_API __attribute__((visibility("default")))
#endif

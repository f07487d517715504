// Symbol visibility for the public API of libCorvaneSecurity.
//
// The library is built with -fvisibility=hidden; only declarations marked CORVANE_API are
// exported from the shared object.
#pragma once

#if defined(_WIN32)
#define CORVANE_API
#else
#define CORVANE_API __attribute__((visibility("default")))
#endif

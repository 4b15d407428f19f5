// Visibility of the module's entry points.
//
// Every library of the module is built with hidden visibility; only the
// system's exports (the plain C entry points and the exported error class)
// carry OSTRAND_EXPORT. OSTRAND_C_EXPORT adds C linkage for the entry points
// that a host binds by name.
#pragma once

#define OSTRAND_EXPORT __attribute__((visibility("default")))
#define OSTRAND_C_EXPORT extern "C" OSTRAND_EXPORT

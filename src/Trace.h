// SPDX-License-Identifier: MIT
// Static probes for tracers such as bpftrace and perf, where sys/sdt.h was found; docs/tracing.md
// lists them. A probe is one instruction that does nothing until a tracer replaces it. Its
// arguments are evaluated always: pass only what costs nothing.
#pragma once

#ifdef SENNET_USDT
#ifdef __clang__ // what sys/sdt.h makes of a probe is GNU C
#pragma clang diagnostic ignored "-Wgnu-zero-variadic-macro-arguments"
#endif
#define SDT_USE_VARIADIC
#include <sys/sdt.h>
// The probe `name` of the provider sennet, with 1 to 12 arguments: integers and pointers.
#define SENNET_TRACE(name, ...) STAP_PROBEV(sennet, name, __VA_ARGS__)
#else
#define SENNET_TRACE(name, ...) static_cast<void>(0)
#endif

#pragma once

// Static trace probes (USDT, <sys/sdt.h>): a probe is one no-op instruction until a tracer enables it, and
// nothing at all where the header is missing. Every probe has a semaphore, which a tracer raises while it
// listens, so that code can ask before it builds an argument.
//
// A probe is spelt as two names. A dash of its name is written as two underscores, which is how the tools
// know it ("client-new" is client__new: `bpftrace -e 'usdt:./abd:abd:client__new {...}'`). A header declares
// each probe at namespace scope, one source defines it, anybody fires it:
//
//   PLATFORM_DECLARE_PROBE(abd, client__new);           // in the header
//   PLATFORM_DEFINE_PROBE(abd, client__new);            // in one source
//   PLATFORM_PROBE1(abd, client__new, pid);             // integers (no booleans: see below) and pointers
//   if (PLATFORM_PROBE_ENABLED(abd, request__input)) ...
//
// An argument of one byte may be put into a register that not every tracer knows: pass a flag as an int.
// Without the header the arguments are not evaluated. Any thread.

#if __has_include(<sys/sdt.h>)

#define PLATFORM_HAS_PROBES 1
#define _SDT_HAS_SEMAPHORES 1
#include <sys/sdt.h>

#define PLATFORM_DECLARE_PROBE(provider, name) \
  extern "C" __attribute__((visibility("hidden"))) volatile unsigned short provider##_##name##_semaphore
#define PLATFORM_DEFINE_PROBE(provider, name) \
  __attribute__((section(".probes"), used)) volatile unsigned short provider##_##name##_semaphore = 0
#define PLATFORM_PROBE_ENABLED(provider, name) (__builtin_expect(provider##_##name##_semaphore != 0, 0))
#define PLATFORM_PROBE0(provider, name) STAP_PROBE(provider, name)
#define PLATFORM_PROBE1(provider, name, a) STAP_PROBE1(provider, name, a)
#define PLATFORM_PROBE2(provider, name, a, b) STAP_PROBE2(provider, name, a, b)
#define PLATFORM_PROBE3(provider, name, a, b, c) STAP_PROBE3(provider, name, a, b, c)

#else

#define PLATFORM_DECLARE_PROBE(provider, name) static_assert(true)
#define PLATFORM_DEFINE_PROBE(provider, name) static_assert(true)
#define PLATFORM_PROBE_ENABLED(provider, name) false
#define PLATFORM_PROBE0(provider, name) ((void)0)
#define PLATFORM_PROBE1(provider, name, a) ((void)sizeof(a))
#define PLATFORM_PROBE2(provider, name, a, b) ((void)sizeof(a), (void)sizeof(b))
#define PLATFORM_PROBE3(provider, name, a, b, c) ((void)sizeof(a), (void)sizeof(b), (void)sizeof(c))

#endif

#pragma once

// Static trace probes (USDT, <sys/sdt.h>): a probe is one no-op instruction until a tracer enables it, and
// nothing at all where the header is missing. Probes with a semaphore can be asked whether somebody listens.

#if __has_include(<sys/sdt.h>)
#define PLATFORM_HAS_PROBES 1
#endif

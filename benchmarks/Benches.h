#pragma once

// The groups of figures; main.cc runs them by name. Each fills the table with report() (Pairs.h).

namespace bench {

void benchRequests();       // (a) the smallest request: requests_bench.cc
void benchMatch();          // (b) "match" over 100, 1,000 and 10,000 plug-ins: match_bench.cc
void benchStart();          // (c) first and second start over 10,000 bundles: start_bench.cc
void benchMemory();         // (d) memory of a cached record: memory_bench.cc
void benchEncoding();       // (e) messages to and from bytes against memcpy: encoding_bench.cc
void benchPropertyLists();  // (f) property lists against the XML library alone: propertylist_bench.cc
void benchHosts();          // ready, access, annotate, hold and release, many clients: hosts_bench.cc
void benchNeighbours();     // the smallest request beside the largest: neighbours_bench.cc

}  // namespace bench

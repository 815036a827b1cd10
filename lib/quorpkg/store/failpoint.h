// Crash points for tests: when QUOR_FAILPOINT names a step, the process
// kills itself with SIGKILL right there, as a power cut or an OOM kill
// would, so tests can check that the next change recovers the store.
//
// Only the crash tests' variant of the store library is compiled with
// QUOR_FAILPOINTS; in the product a crash point is an empty inline call that
// leaves nothing in the binary.
#pragma once

namespace quor {

#ifdef QUOR_FAILPOINTS
// Dies at once when QUOR_FAILPOINT equals `step`; otherwise does nothing.
void failpoint(const char* step);
#else
[[gnu::always_inline]] inline void failpoint(const char*) {}
#endif

}  // namespace quor

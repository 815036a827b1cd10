// Crash points for tests: when QUOR_FAILPOINT names a step, the process
// kills itself with SIGKILL right there, as a power cut or an OOM kill
// would, so tests can check that the next change recovers the store.
#pragma once

namespace quor {

// Dies at once when QUOR_FAILPOINT equals `step`; otherwise does nothing.
void failpoint(const char* step);

}  // namespace quor

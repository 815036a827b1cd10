// Running work in a process that outlives its caller.
#pragma once

#include <sys/types.h>

#include <functional>

namespace quor {

// Starts `work` in a detached process: forked twice so that init adopts it,
// in a session of its own, in "/", with standard streams on /dev/null and
// no other inherited descriptors. `started` runs in the caller with the
// worker's pid before `work` begins (the worker waits for it); when it
// returns false the worker ends without running `work`. The worker exits
// with the low byte of `work`'s result and never returns. False when the
// process cannot be made or `started` refused.
bool runDetached(const std::function<bool(pid_t)>& started, const std::function<int()>& work);

}  // namespace quor

#include "base/result.h"

#include <atomic>

namespace quor {
namespace {
std::atomic<int> g_lastResult{kOk};
}

void setLastResult(int code) { g_lastResult.store(code, std::memory_order_relaxed); }
int lastResult() { return g_lastResult.load(std::memory_order_relaxed); }

bool fail(int code) {
    setLastResult(code);
    return false;
}

}  // namespace quor

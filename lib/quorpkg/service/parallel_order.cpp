#include "quorpkg/service/parallel_order.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "base/operation.h"

namespace quor {
namespace {

class Scheduler {
public:
    Scheduler(const std::vector<OrderedJob>& jobs, bool blockOnFailure, int blockedCode)
        : jobs_(jobs),
          blockOnFailure_(blockOnFailure),
          blockedCode_(blockedCode),
          results_(jobs.size()),
          waiting_(jobs.size()),
          blocked_(jobs.size(), false),
          next_(jobs.size()) {
        for (size_t i = 0; i < jobs.size(); ++i) {
            waiting_[i] = jobs[i].after.size();
            for (size_t before : jobs[i].after) next_[before].push_back(i);
            if (waiting_[i] == 0) ready_.insert(i);
        }
    }

    void work(const std::function<int(const std::string&)>& action) {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [&] { return !ready_.empty() || running_ == 0; });
            if (ready_.empty()) return;  // nothing runs, nothing can become ready
            size_t job = *ready_.begin();
            ready_.erase(ready_.begin());
            ++running_;
            lock.unlock();
            int code = 0;
            try {
                code = action(jobs_[job].name);
            } catch (...) {
                std::lock_guard guard(errorMutex_);
                if (!error_) error_ = std::current_exception();
                code = -1;
            }
            lock.lock();
            --running_;
            finish(job, code);
            changed_.notify_all();
        }
    }

    std::vector<std::optional<int>> results() const { return results_; }
    std::exception_ptr error() const { return error_; }

private:
    // Records a job's code and releases the jobs after it; a job whose last
    // awaited job is done becomes ready, or, blocked, finishes at once.
    void finish(size_t first, int firstCode) {
        std::vector<std::pair<size_t, int>> pending = {{first, firstCode}};
        while (!pending.empty()) {
            auto [job, code] = pending.back();
            pending.pop_back();
            results_[job] = code;
            for (size_t later : next_[job]) {
                if (code != 0 && blockOnFailure_) blocked_[later] = true;
                if (--waiting_[later] != 0) continue;
                if (blocked_[later]) {
                    pending.emplace_back(later, blockedCode_);
                } else {
                    ready_.insert(later);
                }
            }
        }
    }

    const std::vector<OrderedJob>& jobs_;
    const bool blockOnFailure_;
    const int blockedCode_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::optional<int>> results_;
    std::vector<size_t> waiting_;
    std::vector<bool> blocked_;
    std::vector<std::vector<size_t>> next_;
    std::set<size_t> ready_;
    int running_ = 0;
    std::mutex errorMutex_;
    std::exception_ptr error_;
};

}  // namespace

size_t dependencyWidth(const std::vector<OrderedJob>& jobs) {
    std::vector<size_t> waiting(jobs.size()), level(jobs.size(), 0);
    std::vector<std::vector<size_t>> next(jobs.size());
    std::vector<size_t> ready;
    for (size_t i = 0; i < jobs.size(); ++i) {
        waiting[i] = jobs[i].after.size();
        for (size_t before : jobs[i].after) next[before].push_back(i);
        if (waiting[i] == 0) ready.push_back(i);
    }
    while (!ready.empty()) {
        size_t job = ready.back();
        ready.pop_back();
        for (size_t after : next[job]) {
            level[after] = std::max(level[after], level[job] + 1);
            if (--waiting[after] == 0) ready.push_back(after);
        }
    }
    std::vector<size_t> perLevel(jobs.size() + 1, 0);
    size_t width = 0;
    for (size_t i = 0; i < jobs.size(); ++i) width = std::max(width, ++perLevel[level[i]]);
    return width;
}

std::vector<int> runInOrder(const std::vector<OrderedJob>& jobs, int workers, bool blockOnFailure,
                            int blockedCode, int cycleCode,
                            const std::function<int(const std::string&)>& action) {
    Scheduler scheduler(jobs, blockOnFailure, blockedCode);
    {
        std::vector<std::jthread> pool;
        const size_t count = std::clamp<size_t>(static_cast<size_t>(std::max(workers, 1)), 1,
                                                std::max<size_t>(jobs.size(), 1));
        // The workers' failures are the caller's operation's.
        Operation* operation = Operation::current();
        for (size_t i = 0; i < count; ++i)
            pool.emplace_back([&, operation] {
                InheritOperation inherit(operation);
                scheduler.work(action);
            });
    }
    if (scheduler.error()) std::rethrow_exception(scheduler.error());
    std::vector<int> codes;
    for (const auto& result : scheduler.results()) codes.push_back(result.value_or(cycleCode));
    return codes;
}

}  // namespace quor

// Runs one action per package in dependency order, with independent
// packages in parallel on a pool of worker threads.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace quor {

struct OrderedJob {
    std::string name;
    std::vector<size_t> after;  // indexes of the jobs that must finish first
};

// Runs `action` for every job once all jobs in its `after` list have
// finished, at most `workers` at a time; among jobs free to go, the lowest
// index goes first (so one worker runs them in index order). With
// `blockOnFailure`, a job after a failed one is not run and gets
// `blockedCode`. Jobs caught in a cycle get `cycleCode`. The codes by job
// index. An exception from `action` is rethrown once every worker has ended.
// The most jobs that share one level of the graph (a job's level: the
// longest chain of jobs it waits for): how many could run at once if every
// job took the same time. Jobs caught in a cycle count on level 0.
size_t dependencyWidth(const std::vector<OrderedJob>& jobs);

std::vector<int> runInOrder(const std::vector<OrderedJob>& jobs, int workers, bool blockOnFailure,
                            int blockedCode, int cycleCode,
                            const std::function<int(const std::string&)>& action);

}  // namespace quor

// One platform operation in progress, and where its outcome goes.
//
// Every interface function opens an Operation for its duration. Failure
// sites below it report through refuse()/fail() (base/result.h), which find
// the operation through the calling thread. When the operation ends, its
// outcome (code and reason) is stored in the ResultSlot it was given and,
// as its log policy says, written to the platform log (operation_log.h).
//
// Rule for static and free functions: they have no manager object, so their
// outcome goes to the process-wide slot of freeFunctionResults().
// PackageManager::getResult() answers with the newer of its own slot and
// that one (counting only what was stored after the manager was made), so a
// manager also sees the failure of a static or free function called after
// its own last failure, as the tool expects after queryPackageFileInfo.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace quor {

// What an operation came to.
struct Outcome {
    int code = 0;
    std::string reason;
};

// The last outcome stored by operations run for one owner. Thread-safe.
class ResultSlot {
public:
    ResultSlot();
    // A slot that counts as older than any other until something is stored.
    struct Oldest {};
    explicit ResultSlot(Oldest);
    void store(const Outcome& outcome);
    Outcome load() const;
    // When the outcome was stored (or the slot made): higher is newer.
    uint64_t stamp() const;

private:
    mutable std::mutex mutex_;
    Outcome outcome_;
    uint64_t stamp_;
};

// The slot of static and free functions.
ResultSlot& freeFunctionResults();

// The newer of `own` and the free functions' slot.
Outcome latestOutcome(const ResultSlot& own);

// Which outcomes reach the platform log: every one (changes), failures only
// (reads that may refuse), none (status questions whose "no" is an answer).
enum class LogPolicy { kAlways, kOnFailure, kNever };

class Operation {
public:
    // `name` is the interface function, `package` what it acts on. An
    // operation opened inside another one on the same thread joins it;
    // `standalone` starts a new one anyway (a forked background worker).
    Operation(std::string name, std::string package, ResultSlot& target, LogPolicy policy,
              bool standalone = false);
    ~Operation();
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    // The operation on this thread, or null.
    static Operation* current();

    // A failure site's words for `code` (base/result.h: refuse, fail).
    void note(int code, const std::string& reason);
    // The operation's answer: stored in its slot when it ends.
    void settle(int code);
    // The outcome so far: the settled code (kOk when none) and the reasons
    // noted for it.
    Outcome outcome() const;
    // The reasons noted so far for `code`, joined; empty when none.
    std::string reasonsFor(int code) const;

private:
    Operation* joined_ = nullptr;  // the outer operation this one joined
    Operation* previous_ = nullptr;
    std::string name_;
    std::string package_;
    ResultSlot* target_;
    LogPolicy policy_;
    mutable std::mutex mutex_;
    bool settled_ = false;
    int code_ = 0;
    std::vector<Outcome> notes_;
};

// Lets a worker thread report to the operation of the thread that started
// it, for the worker's life: construct on the worker with the starter's
// Operation::current().
class InheritOperation {
public:
    explicit InheritOperation(Operation* operation);
    ~InheritOperation();
    InheritOperation(const InheritOperation&) = delete;
    InheritOperation& operator=(const InheritOperation&) = delete;

private:
    Operation* previous_;
};

}  // namespace quor

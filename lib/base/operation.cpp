#include "base/operation.h"

#include <algorithm>
#include <atomic>

#include "base/operation_log.h"
#include "base/result.h"

namespace quor {
namespace {

thread_local Operation* t_current = nullptr;

uint64_t nextStamp() {
    static std::atomic<uint64_t> counter{0};
    return counter.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts) {
        if (!text.empty()) text += "; ";
        text += part;
    }
    return text;
}

}  // namespace

ResultSlot::ResultSlot() : stamp_(nextStamp()) {}

ResultSlot::ResultSlot(Oldest) : stamp_(0) {}

void ResultSlot::store(const Outcome& outcome) {
    std::lock_guard guard(mutex_);
    outcome_ = outcome;
    stamp_ = nextStamp();
}

Outcome ResultSlot::load() const {
    std::lock_guard guard(mutex_);
    return outcome_;
}

uint64_t ResultSlot::stamp() const {
    std::lock_guard guard(mutex_);
    return stamp_;
}

ResultSlot& freeFunctionResults() {
    static ResultSlot slot{ResultSlot::Oldest{}};
    return slot;
}

Outcome latestOutcome(const ResultSlot& own) {
    const ResultSlot& shared = freeFunctionResults();
    return shared.stamp() > own.stamp() ? shared.load() : own.load();
}

Operation::Operation(std::string name, std::string package, ResultSlot& target, LogPolicy policy,
                     bool standalone)
    : joined_(standalone ? nullptr : t_current),
      previous_(t_current),
      name_(std::move(name)),
      package_(std::move(package)),
      target_(&target),
      policy_(policy) {
    if (!joined_) t_current = this;
}

Operation::~Operation() {
    if (joined_) return;
    t_current = previous_;
    // Reporting must never turn into a failure of its own.
    try {
        const Outcome result = outcome();
        bool settled = false;
        {
            std::lock_guard guard(mutex_);
            settled = settled_;
        }
        if (settled) target_->store(result);
        const bool failed = settled && result.code != kOk;
        if (policy_ == LogPolicy::kAlways || (policy_ == LogPolicy::kOnFailure && failed))
            logOperation(name_, package_, result);
    } catch (...) {
    }
}

Operation* Operation::current() {
    return t_current;
}

void Operation::note(int code, const std::string& reason) {
    if (joined_) return joined_->note(code, reason);
    if (reason.empty()) return;
    std::lock_guard guard(mutex_);
    const bool known = std::any_of(notes_.begin(), notes_.end(), [&](const Outcome& noted) {
        return noted.code == code && noted.reason == reason;
    });
    if (!known) notes_.push_back({code, reason});
}

void Operation::settle(int code) {
    if (joined_) return joined_->settle(code);
    std::lock_guard guard(mutex_);
    settled_ = true;
    code_ = code;
}

Outcome Operation::outcome() const {
    if (joined_) return joined_->outcome();
    std::lock_guard guard(mutex_);
    Outcome result{settled_ ? code_ : kOk, {}};
    if (result.code == kOk) {
        result.reason = "done";
        return result;
    }
    std::vector<std::string> matching, others;
    for (const Outcome& noted : notes_)
        (noted.code == result.code ? matching : others).push_back(noted.reason);
    if (!matching.empty()) {
        result.reason = joined(matching);
    } else {
        // Nobody said why in this code's terms: its meaning, and what was
        // noted on the way.
        result.reason = resultMeaning(result.code);
        if (!others.empty()) result.reason += " (" + joined(others) + ")";
    }
    return result;
}

std::string Operation::reasonsFor(int code) const {
    if (joined_) return joined_->reasonsFor(code);
    std::lock_guard guard(mutex_);
    std::vector<std::string> matching;
    for (const Outcome& noted : notes_)
        if (noted.code == code) matching.push_back(noted.reason);
    return joined(matching);
}

InheritOperation::InheritOperation(Operation* operation) : previous_(t_current) {
    t_current = operation;
}

InheritOperation::~InheritOperation() {
    t_current = previous_;
}

}  // namespace quor

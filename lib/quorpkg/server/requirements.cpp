#include "quorpkg/server/requirements.h"

#include <map>
#include <set>

#include "base/result.h"
#include "quorpkg/package/version.h"
#include "quorpkg/store/store.h"

namespace quor {
namespace {

std::string describe(const Dependency& need) {
    return need.name + need.op + need.version;
}

class Planner {
public:
    Planner(const Offers& offers, bool allowBeta, std::vector<const Offer*>& out,
            std::string* error)
        : offers_(offers), allowBeta_(allowBeta), out_(out), error_(error) {}

    int visitAll(const std::vector<Dependency>& needs) {
        for (const Dependency& need : needs) {
            int code = visit(need);
            if (code != kOk) return code;
        }
        return kOk;
    }

    void enter(const std::string& name) { path_.insert(name); }

private:
    int visit(const Dependency& need) {
        if (auto planned = planned_.find(need.name); planned != planned_.end()) {
            if (versionSatisfies(planned->second, need.op, need.version)) return kOk;
            return failWith(kMissingDependency, "two requirements on " + need.name + " disagree");
        }
        if (path_.count(need.name))
            return failWith(kDependencyCycle, "requirement cycle through " + need.name);
        Manifest installed;
        const bool isInstalled = readInstalledManifest(need.name, installed) == kOk;
        if (isInstalled && versionSatisfies(installed.version, need.op, need.version)) return kOk;

        const Offer* chosen = nullptr;
        for (const Offer& offer : offers_.all(need.name)) {
            if ((allowBeta_ || !offer.beta) &&
                versionSatisfies(offer.version, need.op, need.version)) {
                chosen = &offer;
                break;
            }
        }
        if (chosen == nullptr)
            return failWith(kMissingDependency, "no server offers " + describe(need));
        if (isInstalled && compareVersions(chosen->version, installed.version) < 0)
            return failWith(kDowngradeRefused, "requires " + describe(need) + ": only " +
                                                   chosen->version +
                                                   " is offered, which would lower the installed " +
                                                   installed.version);
        std::optional<std::vector<Dependency>> own = entryRequirements(*chosen->entry);
        if (!own || resolvedLink(*chosen).empty())
            return failWith(kMissingDependency, "the entry of " + need.name + " is malformed");

        path_.insert(need.name);
        int code = visitAll(*own);
        path_.erase(need.name);
        if (code != kOk) return code;
        planned_[need.name] = chosen->version;
        out_.push_back(chosen);
        return kOk;
    }

    int failWith(int code, const std::string& why) {
        if (error_) *error_ = why;
        return code;
    }

    const Offers& offers_;
    bool allowBeta_;
    std::vector<const Offer*>& out_;
    std::string* error_;
    std::set<std::string> path_;                  // the chain being resolved
    std::map<std::string, std::string> planned_;  // name -> version chosen
};

}  // namespace

std::optional<std::vector<Dependency>> entryRequirements(const Json::Value& entry) {
    std::vector<Dependency> needs;
    const std::string text = entryText(entry, "deps");
    size_t begin = 0;
    while (begin <= text.size()) {
        size_t end = text.find(':', begin);
        if (end == std::string::npos) end = text.size();
        std::string item = text.substr(begin, end - begin);
        if (item.find_first_not_of(" \t") != std::string::npos) {
            std::optional<Dependency> need = parseDependency(item);
            if (!need) return std::nullopt;
            needs.push_back(std::move(*need));
        }
        begin = end + 1;
    }
    return needs;
}

int planRequirements(const std::string& root, const std::vector<Dependency>& needs,
                     const Offers& offers, bool allowBeta, std::vector<const Offer*>& out,
                     std::string* error) {
    out.clear();
    Planner planner(offers, allowBeta, out, error);
    planner.enter(root);
    return planner.visitAll(needs);
}

}  // namespace quor

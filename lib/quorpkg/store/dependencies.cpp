#include "quorpkg/store/dependencies.h"

#include <cstdint>
#include <queue>
#include <unordered_map>
#include <unordered_set>

#include "base/result.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/store/store.h"

namespace quor {
namespace {

// A set of indexes below n that hands out its smallest member: a tree of
// 64-bit words, each bit of an upper level telling that a word below is not
// empty. Insert and pop touch one word per level (four levels cover 16 M
// indexes), so a sort that prefers the lowest index stays linear.
class MinIndexSet {
public:
    explicit MinIndexSet(size_t n) {
        size_t words = n;
        do {
            words = words > 64 ? (words + 63) / 64 : 1;
            levels_.emplace_back(words, 0);
        } while (words > 1);
    }

    bool empty() const { return levels_.back()[0] == 0; }

    void insert(size_t index) {
        for (auto& level : levels_) {
            level[index / 64] |= uint64_t{1} << (index % 64);
            index /= 64;
        }
    }

    size_t popMin() {
        size_t index = 0;
        for (size_t k = levels_.size(); k-- > 0;)
            index = index * 64 + static_cast<size_t>(__builtin_ctzll(levels_[k][index]));
        size_t at = index;
        for (auto& level : levels_) {
            level[at / 64] &= ~(uint64_t{1} << (at % 64));
            if (level[at / 64] != 0) break;
            at /= 64;
        }
        return index;
    }

private:
    std::vector<std::vector<uint64_t>> levels_;
};

// Orders the nodes 0..n-1 so that every node comes before each node in its
// `before` list; among nodes free to go next the lowest index goes first.
// False when a cycle leaves some node unplaced.
bool orderNodes(const std::vector<std::vector<size_t>>& before, std::vector<size_t>& order) {
    const size_t n = before.size();
    std::vector<size_t> waitingOn(n, 0);
    for (const auto& targets : before)
        for (size_t target : targets) ++waitingOn[target];
    MinIndexSet free(n);
    for (size_t i = 0; i < n; ++i)
        if (waitingOn[i] == 0) free.insert(i);
    order.clear();
    while (!free.empty()) {
        size_t node = free.popMin();
        order.push_back(node);
        for (size_t target : before[node])
            if (--waitingOn[target] == 0) free.insert(target);
    }
    return order.size() == n;
}

// A package and the names it requires.
struct Node {
    std::string name;
    std::vector<std::string> requires_;
};

// The names the ordering could not place, comma-separated.
std::string leftOver(const std::vector<Node>& nodes, const std::vector<size_t>& placed) {
    std::vector<bool> done(nodes.size(), false);
    for (size_t i : placed) done[i] = true;
    std::string names;
    for (size_t i = 0; i < nodes.size(); ++i)
        if (!done[i]) names += (names.empty() ? "" : ", ") + nodes[i].name;
    return names;
}

// Edges "a package before what it requires" (or the reverse), within the set.
std::vector<std::vector<size_t>> edges(const std::vector<Node>& nodes, bool dependentsFirst) {
    std::unordered_map<std::string, size_t> index;
    for (size_t i = 0; i < nodes.size(); ++i) index.emplace(nodes[i].name, i);
    std::vector<std::vector<size_t>> before(nodes.size());
    for (size_t i = 0; i < nodes.size(); ++i) {
        for (const std::string& required : nodes[i].requires_) {
            auto found = index.find(required);
            // A requirement outside the set, or on itself, orders nothing.
            if (found == index.end() || found->second == i) continue;
            if (dependentsFirst) {
                before[i].push_back(found->second);
            } else {
                before[found->second].push_back(i);
            }
        }
    }
    return before;
}

// Every installed package in byte order, with its requirements (none for a
// package whose manifest cannot be read).
std::vector<Node> installedNodes() {
    std::vector<Node> nodes;
    for (std::string& name : installedPackages()) {
        Node node{std::move(name), {}};
        Manifest manifest;
        if (readInstalledManifest(node.name, manifest) == kOk)
            for (const Dependency& dependency : manifest.depends)
                node.requires_.push_back(dependency.name);
        nodes.push_back(std::move(node));
    }
    return nodes;
}

std::vector<std::string> namesInOrder(const std::vector<Node>& nodes, bool dependentsFirst) {
    std::vector<size_t> order;
    std::vector<std::string> names;
    if (!orderNodes(edges(nodes, dependentsFirst), order)) {
        // Only a store changed by hand can hold a cycle; keep byte order.
        for (const Node& node : nodes) names.push_back(node.name);
        return names;
    }
    for (size_t i : order) names.push_back(nodes[i].name);
    return names;
}

}  // namespace

std::vector<std::string> dependentsOf(const std::string& name, bool recursive) {
    std::vector<Node> all = installedNodes();
    std::unordered_map<std::string, std::vector<size_t>> requiredBy;
    for (size_t i = 0; i < all.size(); ++i)
        for (const std::string& required : all[i].requires_) requiredBy[required].push_back(i);

    std::vector<bool> chosen(all.size(), false);
    std::queue<const std::string*> pending;
    pending.push(&name);
    while (!pending.empty()) {
        auto found = requiredBy.find(*pending.front());
        pending.pop();
        if (found == requiredBy.end()) continue;
        for (size_t i : found->second) {
            if (chosen[i] || all[i].name == name) continue;
            chosen[i] = true;
            if (recursive) pending.push(&all[i].name);
        }
    }
    std::vector<Node> dependents;
    for (size_t i = 0; i < all.size(); ++i)
        if (chosen[i]) dependents.push_back(std::move(all[i]));
    std::vector<std::string> names = namesInOrder(dependents, true);
    names.push_back(name);
    return names;
}

std::vector<std::string> installOrder() {
    return namesInOrder(installedNodes(), false);
}

int topologicalSort(const std::vector<Manifest>& packages, std::vector<std::string>& out) {
    std::vector<Node> nodes;
    std::unordered_set<std::string> seen;
    for (const Manifest& package : packages) {
        // The first record of a name stands for it.
        if (!seen.insert(package.name).second) continue;
        Node node{package.name, {}};
        for (const Dependency& dependency : package.depends)
            node.requires_.push_back(dependency.name);
        nodes.push_back(std::move(node));
    }
    std::vector<size_t> order;
    if (!orderNodes(edges(nodes, true), order)) {
        out.clear();
        return refuse(kDependencyCycle, "no order exists: " + leftOver(nodes, order) +
                                            " require each other in a cycle");
    }
    out.clear();
    for (size_t i : order) out.push_back(nodes[i].name);
    return kOk;
}

}  // namespace quor

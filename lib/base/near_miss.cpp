#include "base/near_miss.h"

#include <algorithm>
#include <string>
#include <vector>

namespace quor {
namespace {

std::string folded(std::string_view word) {
    std::string out(word);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c == '-') c = '_';
    }
    return out;
}

// Edits between a and b, an adjacent swap counting as one (optimal string
// alignment).
size_t editDistance(std::string_view a, std::string_view b) {
    const size_t columns = b.size() + 1;
    std::vector<size_t> d((a.size() + 1) * columns);
    auto at = [&](size_t i, size_t j) -> size_t& { return d[i * columns + j]; };
    for (size_t i = 0; i <= a.size(); ++i) at(i, 0) = i;
    for (size_t j = 0; j <= b.size(); ++j) at(0, j) = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
            at(i, j) = std::min({at(i - 1, j) + 1, at(i, j - 1) + 1, at(i - 1, j - 1) + change});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                at(i, j) = std::min(at(i, j), at(i - 2, j - 2) + 1);
        }
    }
    return at(a.size(), b.size());
}

size_t slipsAllowed(std::string_view known) {
    if (known.size() < 5) return 0;
    return known.size() < 8 ? 1 : 2;
}

}  // namespace

std::string_view nearMiss(std::string_view word, std::span<const std::string_view> known) {
    // Far longer or shorter words are never a slip; this also bounds the work.
    if (word.empty() || word.size() > 64) return {};
    const std::string written = folded(word);
    std::string_view best;
    size_t bestDistance = 0;
    for (std::string_view candidate : known) {
        const size_t distance = editDistance(written, folded(candidate));
        if (distance <= slipsAllowed(candidate) && (best.empty() || distance < bestDistance)) {
            best = candidate;
            bestDistance = distance;
        }
    }
    return best;
}

}  // namespace quor

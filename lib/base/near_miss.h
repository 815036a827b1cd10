// Typing slips in the names people write by hand (setting and manifest
// keys), so that a message can say which name was meant.
#pragma once

#include <span>
#include <string_view>

namespace quor {

// The word of `known` that `word` is most likely a slip of, or empty. Case
// and '-' for '_' are slips too. A slip is one edit (a letter added,
// dropped, changed or two swapped) for words of 5 to 7 letters, two for
// longer ones; short words such as "beta" count only case and dashes, since
// one letter turns them into other real words.
std::string_view nearMiss(std::string_view word, std::span<const std::string_view> known);

}  // namespace quor

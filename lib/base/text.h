// Small text helpers shared by the readers of settings, manifests, server
// answers and script output.
#pragma once

#include <string_view>

namespace quor {

// `text` without the `blanks` at either end.
inline std::string_view trimBlanks(std::string_view text, std::string_view blanks = " \t\r\n") {
    const size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

}  // namespace quor

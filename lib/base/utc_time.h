// Points in time as signed metadata and logs write them: UTC, to the
// second, "2026-11-24T00:00:00Z".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quor {

// Seconds since the epoch as "YYYY-MM-DDTHH:MM:SSZ".
std::string formatUtc(int64_t seconds);

// The text of formatUtc back; nothing when it is not exactly that form or
// names no real time (a 31st of February).
std::optional<int64_t> parseUtc(std::string_view text);

// The current time, in seconds since the epoch.
int64_t nowSeconds();

}  // namespace quor

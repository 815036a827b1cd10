#include "base/utc_time.h"

#include <cstdio>
#include <ctime>

namespace quor {

std::string formatUtc(int64_t seconds) {
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm utc{};
    if (!gmtime_r(&time, &utc)) return {};
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::optional<int64_t> parseUtc(std::string_view text) {
    // Exactly the form formatUtc writes, digit by digit.
    static constexpr std::string_view kShape = "dddd-dd-ddTdd:dd:ddZ";
    if (text.size() != kShape.size()) return std::nullopt;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) return std::nullopt;
    }
    auto number = [&](size_t at, size_t digits) {
        int value = 0;
        for (size_t i = at; i < at + digits; ++i) value = value * 10 + (text[i] - '0');
        return value;
    };
    std::tm parts{};
    parts.tm_year = number(0, 4) - 1900;
    parts.tm_mon = number(5, 2) - 1;
    parts.tm_mday = number(8, 2);
    parts.tm_hour = number(11, 2);
    parts.tm_min = number(14, 2);
    parts.tm_sec = number(17, 2);
    const std::time_t seconds = timegm(&parts);
    // timegm normalises a 31st of February; such a text names no time.
    if (formatUtc(seconds) != text) return std::nullopt;
    return static_cast<int64_t>(seconds);
}

int64_t nowSeconds() {
    return static_cast<int64_t>(std::time(nullptr));
}

}  // namespace quor

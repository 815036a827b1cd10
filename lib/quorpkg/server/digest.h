// MD5 digests of downloaded package files, as the catalog lists them.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace quor {

// Lower-case hex md5 of the file's content, or nothing when it cannot be read.
std::optional<std::string> fileMd5Hex(const std::filesystem::path& file);

// Lower-case hex md5 of `data`.
std::string dataMd5Hex(std::string_view data);

// Compares two hex digests ignoring case.
bool sameDigest(std::string_view a, std::string_view b);

}  // namespace quor

// Append-only log files that cannot grow without bound.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string_view>

namespace quor {

// Appends `text` to `path`. When the file would grow past `cap` bytes it is
// first moved to `<path>.1` (replacing an older copy) and `text` starts a
// new file, so at most about twice `cap` is kept. Safe among processes that
// append to the same file: the size check and the move happen under an
// flock of the file, and a writer that finds its file moved reopens it. A
// symbolic link at `path` is refused. False when `text` was not written.
bool appendCapped(const std::filesystem::path& path, std::string_view text, uintmax_t cap,
                  mode_t mode = 0644);

}  // namespace quor

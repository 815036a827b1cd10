// Catalogs on the wire: compressed with zstd, or as a zstd patch against the
// version a device already keeps (the catalog before it as the patch's
// prefix, as `zstd --patch-from` does), so that a release costs a device a
// few hundred bytes. libzstd's own prefix API on both sides.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quor {

// `text` compressed, against `prefix` when it is not empty. Empty when
// libzstd fails.
std::string compressCatalog(std::string_view text, std::string_view prefix = {});

// The catalog `compressed` holds (a patch against `prefix` when that is
// not empty), at most `limit` bytes of it; nothing, with the reason, when it
// is not whole zstd frames, needs another prefix or decodes to more.
std::optional<std::string> decodeCatalog(std::string_view compressed, std::string_view prefix,
                                         uint64_t limit, std::string& why);

}  // namespace quor

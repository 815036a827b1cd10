#include "quorpkg/package/catalog_zstd.h"

#include <zstd.h>

#include <algorithm>
#include <memory>

namespace quor {
namespace {

constexpr int kLevel = 19;
// libzstd's bounds of a window (its stable API does not name them).
constexpr int kMinWindowLog = 10;
constexpr int kMaxWindowLog = 31;

struct CCtxDeleter {
    void operator()(ZSTD_CCtx* ctx) const { ZSTD_freeCCtx(ctx); }
};
struct DCtxDeleter {
    void operator()(ZSTD_DCtx* ctx) const { ZSTD_freeDCtx(ctx); }
};

// The window that lets a patch reach back over its whole prefix.
int windowLogFor(uint64_t bytes) {
    int log = kMinWindowLog;
    while (log < kMaxWindowLog && (uint64_t{1} << log) < bytes) ++log;
    return log;
}

}  // namespace

std::string compressCatalog(std::string_view text, std::string_view prefix) {
    std::unique_ptr<ZSTD_CCtx, CCtxDeleter> ctx(ZSTD_createCCtx());
    if (!ctx) return {};
    ZSTD_CCtx_setParameter(ctx.get(), ZSTD_c_compressionLevel, kLevel);
    ZSTD_CCtx_setParameter(ctx.get(), ZSTD_c_checksumFlag, 1);
    if (!prefix.empty()) {
        ZSTD_CCtx_setParameter(ctx.get(), ZSTD_c_windowLog,
                               windowLogFor(prefix.size() + text.size()));
        ZSTD_CCtx_setParameter(ctx.get(), ZSTD_c_enableLongDistanceMatching, 1);
        if (ZSTD_isError(ZSTD_CCtx_refPrefix(ctx.get(), prefix.data(), prefix.size()))) return {};
    }
    std::string out(ZSTD_compressBound(text.size()), '\0');
    const size_t size = ZSTD_compress2(ctx.get(), out.data(), out.size(), text.data(), text.size());
    if (ZSTD_isError(size)) return {};
    out.resize(size);
    return out;
}

std::optional<std::string> decodeCatalog(std::string_view compressed, std::string_view prefix,
                                         uint64_t limit, std::string& why) {
    std::unique_ptr<ZSTD_DCtx, DCtxDeleter> ctx(ZSTD_createDCtx());
    if (!ctx) {
        why = "cannot decode zstd";
        return std::nullopt;
    }
    // A hostile frame may not ask for a larger window than the catalog needs.
    ZSTD_DCtx_setParameter(ctx.get(), ZSTD_d_windowLogMax, windowLogFor(prefix.size() + limit));
    if (!prefix.empty() &&
        ZSTD_isError(ZSTD_DCtx_refPrefix(ctx.get(), prefix.data(), prefix.size()))) {
        why = "cannot use the kept catalog as the patch's base";
        return std::nullopt;
    }
    std::string out;
    ZSTD_inBuffer in{compressed.data(), compressed.size(), 0};
    size_t pending = 1;
    char buffer[64 * 1024];
    while (in.pos < in.size || pending != 0) {
        ZSTD_outBuffer chunk{buffer, sizeof buffer, 0};
        pending = ZSTD_decompressStream(ctx.get(), &chunk, &in);
        if (ZSTD_isError(pending)) {
            why = std::string("not a zstd catalog: ") + ZSTD_getErrorName(pending);
            return std::nullopt;
        }
        if (out.size() + chunk.pos > limit) {
            why = "decodes to more than " + std::to_string(limit) + " bytes";
            return std::nullopt;
        }
        out.append(buffer, chunk.pos);
        // Input used up inside a frame: it was cut short.
        if (in.pos == in.size && pending != 0 && chunk.pos == 0) {
            why = "the zstd catalog is cut short";
            return std::nullopt;
        }
    }
    return out;
}

}  // namespace quor

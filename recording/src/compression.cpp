// Chunk compression: zstd at a fast level (recording must keep up with the sensors), LZ4 frames.
#include "compression.h"

#include <lz4frame.h>
#include <zstd.h>

#include <memory>

namespace sensor_recording {

namespace {
constexpr int kZstdLevel = -3;
}

size_t compressBound(Compression compression, size_t size) {
    if (compression == Compression::Zstd) return ZSTD_compressBound(size);
    if (compression == Compression::Lz4) {
        LZ4F_preferences_t prefs{};
        prefs.frameInfo.contentSize = size;
        return LZ4F_compressFrameBound(size, &prefs);
    }
    return size;
}

size_t compress(Compression compression, const uint8_t* data, size_t size, uint8_t* out, size_t capacity,
                std::string& error) {
    if (compression == Compression::Zstd) {
        // One context per thread, kept rather than made for every chunk. No zstd workers of its own: the
        // writer's workers compress whole chunks side by side, which copies nothing more.
        thread_local std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx*)> ctx(ZSTD_createCCtx(), ZSTD_freeCCtx);
        thread_local bool configured = false;
        if (!configured) {
            ZSTD_CCtx_setParameter(ctx.get(), ZSTD_c_compressionLevel, kZstdLevel);
            configured = true;
        }
        const size_t n = ZSTD_compress2(ctx.get(), out, capacity, data, size);
        if (ZSTD_isError(n)) {
            error = std::string("zstd compression failed: ") + ZSTD_getErrorName(n);
            return 0;
        }
        return n;
    }
    if (compression == Compression::Lz4) {
        LZ4F_preferences_t prefs{};
        prefs.frameInfo.contentSize = size;
        const size_t n = LZ4F_compressFrame(out, capacity, data, size, &prefs);
        if (LZ4F_isError(n)) {
            error = std::string("lz4 compression failed: ") + LZ4F_getErrorName(n);
            return 0;
        }
        return n;
    }
    error = "chunks without compression are written as they are";
    return 0;
}

bool decompress(const std::string& compression, const uint8_t* data, size_t size, size_t expected,
                std::vector<uint8_t>& out, std::string& error) {
    out.resize(expected);
    if (compression == "zstd") {
        const size_t n = ZSTD_decompress(out.data(), expected, data, size);
        if (ZSTD_isError(n)) {
            error = std::string("zstd: ") + ZSTD_getErrorName(n);
            return false;
        }
        if (n != expected) {
            error = "zstd data gives " + std::to_string(n) + " bytes, the chunk says " + std::to_string(expected);
            return false;
        }
        return true;
    }
    if (compression == "lz4") {
        LZ4F_dctx* ctx = nullptr;
        if (LZ4F_isError(LZ4F_createDecompressionContext(&ctx, LZ4F_VERSION))) {
            error = "lz4: no decompression context";
            return false;
        }
        size_t inPos = 0, outPos = 0;
        bool ok = true;
        while (true) {
            size_t inLeft = size - inPos, outLeft = expected - outPos;
            const size_t r = LZ4F_decompress(ctx, out.data() + outPos, &outLeft, data + inPos, &inLeft, nullptr);
            if (LZ4F_isError(r)) {
                error = std::string("lz4: ") + LZ4F_getErrorName(r);
                ok = false;
                break;
            }
            inPos += inLeft;
            outPos += outLeft;
            if (r == 0) break;  // the frame is complete
            if (inLeft == 0 && outLeft == 0) {
                error = outPos == expected ? "lz4 data gives more bytes than the chunk says"
                                           : "lz4 frame ends early";
                ok = false;
                break;
            }
        }
        LZ4F_freeDecompressionContext(ctx);
        if (ok && outPos != expected) {
            error = "lz4 data gives " + std::to_string(outPos) + " bytes, the chunk says " + std::to_string(expected);
            ok = false;
        }
        return ok;
    }
    if (compression.empty()) {
        if (size != expected) {
            error = "uncompressed records of " + std::to_string(size) + " bytes, the chunk says " +
                    std::to_string(expected);
            return false;
        }
        out.assign(data, data + size);
        return true;
    }
    error = "unknown compression '" + compression + "'";
    return false;
}

}  // namespace sensor_recording

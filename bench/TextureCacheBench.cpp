// The image-texture cache beside plain peers: mip-chain generation against a
// memcpy of level 0 and against itself on one thread, offloading and reading
// back a 64 MiB level against a plain write and read of the same bytes in the
// same folder, decoding through the cache against OpenImageIO's ImageBuf, and
// the memory a half EXR texture holds against the same texels as float.
#include <benchmark/benchmark.h>

#include <OpenImageIO/imagebuf.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "BenchRatios.h"
#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "Ferrim/TextureMap/MipGeneration.h"

namespace {

using namespace Quelin;
using Clock = std::chrono::steady_clock;

constexpr int SIZE = 4096;
constexpr std::int64_t LEVEL0_BYTES = std::int64_t(SIZE) * SIZE * 4; // 64 MiB

/// Hashed texels over smooth ramps: neither flat (which would compress to
/// nothing) nor pure noise.
Image makeImage() {
    Image image(Image::Descriptor({SIZE, SIZE}, PixelFormat::Rgba8));
    for (int y = 0; y < SIZE; ++y) {
        auto* row = image.getRow<PixelRgba8>(y);
        for (int x = 0; x < SIZE; ++x) {
            std::uint32_t h = std::uint32_t(x) * 0x9E3779B1u ^ std::uint32_t(y) * 0x85EBCA77u;
            h ^= h >> 15;
            h *= 0x2C1B3C6Du;
            h ^= h >> 12;
            row[x] = {std::uint8_t((x / 16 + (h & 15)) & 255), std::uint8_t((y / 16 + ((h >> 8) & 15)) & 255),
                      std::uint8_t(((x ^ y) / 32) & 255), 255};
        }
    }
    return image;
}

Image const& level0() {
    static Image const sImage = makeImage();
    return sImage;
}

std::filesystem::path benchFolder() {
    static std::filesystem::path const sFolder = [] {
        auto folder = Io::StandardPaths::temporary() / "ferrim_bench_texture_cache";
        std::filesystem::create_directories(folder);
        return folder;
    }();
    return sFolder;
}

std::filesystem::path const& pngFile() {
    static std::filesystem::path const sPath = [] {
        auto path = benchFolder() / "texture4096.png";
        if (auto r = writeImage(level0(), path); !r)
            std::fprintf(stderr, "bench: %s\n", r.error().c_str());
        return path;
    }();
    return sPath;
}

/// The 8-bit texture's pixels as a half and as a float EXR: the same values
/// (8-bit codes fit halves exactly), in two precisions.
std::filesystem::path const& exrFile(FileChannelType type) {
    static auto const write = [](FileChannelType channelType, char const* name) {
        auto path = benchFolder() / name;
        Image const pixels = level0().convertedTo(PixelFormat::RgbaFloat);
        if (auto r = writeImage(pixels, path, {channelType, {}}); !r)
            std::fprintf(stderr, "bench: %s\n", r.error().c_str());
        return path;
    };
    static std::filesystem::path const sHalf = write(FileChannelType::Half, "texture4096_half.exr");
    static std::filesystem::path const sFloat = write(FileChannelType::Float, "texture4096_float.exr");
    return type == FileChannelType::Half ? sHalf : sFloat;
}

std::filesystem::path deskFile() { return std::filesystem::path(FERRIM_TESTDATA_DIR) / "exr" / "Desk.exr"; }

// ------------------------------------------------------------- mip chains

void runMipChain(benchmark::State& state, int threads) {
    TaskScheduler scheduler("bench.mip", threads);
    Image const& image = level0();
    for (auto _ : state) {
        Stack<Image> chain = MipGeneration::buildMipChain(image, &scheduler);
        benchmark::DoNotOptimize(chain.data());
    }
}
void TextureCacheMipChain1Thread(benchmark::State& state) { runMipChain(state, 1); }
void TextureCacheMipChainAllThreads(benchmark::State& state) { runMipChain(state, 0); }
BENCHMARK(TextureCacheMipChain1Thread)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(TextureCacheMipChainAllThreads)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

void TextureCacheMemcpyLevel0(benchmark::State& state) {
    Image const& image = level0();
    Stack<std::byte> copy(std::size_t(image.getByteSize()));
    for (auto _ : state) {
        std::memcpy(copy.data(), image.getData(), copy.size());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(TextureCacheMemcpyLevel0)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

// ---------------------------------------------------------------- offload

/// A 4096 x 4096 RGBA 8-bit texture with a budget of exactly its level 0, so
/// that offloading writes that level and nothing else.
struct OffloadSetup {
    SharedPtr<ImageTexture> texture;
    std::filesystem::path folder = benchFolder() / "offload";
    OffloadSetup() {
        texture = ImageTextureCache::getOrCreate(FileDataSource::make(pngFile()));
        if (auto r = MipMapManager::updateCache(false, std::nullopt, std::nullopt, folder); !r)
            std::fprintf(stderr, "bench: %s\n", r.error().c_str());
    }
    void enable() {
        if (auto r = MipMapManager::updateCache(true, float(double(LEVEL0_BYTES) / 1073741824.0), std::nullopt, folder); !r)
            std::fprintf(stderr, "bench: %s\n", r.error().c_str());
    }
    ~OffloadSetup() { (void)MipMapManager::updateCache(false, std::nullopt, std::nullopt, folder); }
};

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

void TextureCacheOffloadWrite(benchmark::State& state) {
    OffloadSetup setup;
    setup.enable(); // writes level 0 once; read it back before each timed write
    for (auto _ : state) {
        setup.texture->requireLevel(0);
        auto const start = Clock::now();
        int const written = MipMapManager::offload(*setup.texture, setup.folder);
        state.SetIterationTime(secondsSince(start));
        if (written != 1)
            state.SkipWithError("the budget did not take exactly level 0");
    }
    setup.texture->requireLevel(0);
}
BENCHMARK(TextureCacheOffloadWrite)->Unit(benchmark::kMillisecond)->UseManualTime()->MinTime(2.0);

void TextureCacheReload(benchmark::State& state) {
    OffloadSetup setup;
    setup.enable();
    for (auto _ : state) {
        if (setup.texture->getOffloadedCount() == 0)
            MipMapManager::offload(*setup.texture, setup.folder);
        auto const start = Clock::now();
        setup.texture->requireLevel(0);
        state.SetIterationTime(secondsSince(start));
    }
}
BENCHMARK(TextureCacheReload)->Unit(benchmark::kMillisecond)->UseManualTime()->MinTime(2.0);

// The peers: the same bytes with the standard library's plain file streams, a
// fresh buffer for each read as a reload needs one.
void TextureCacheRawWrite(benchmark::State& state) {
    auto const path = benchFolder() / "offload" / "raw.bin";
    std::filesystem::create_directories(path.parent_path());
    Image const& image = level0();
    for (auto _ : state) {
        // A new file each time, as an offload writes one.
        std::filesystem::remove(path);
        auto const start = Clock::now();
        {
            std::ofstream out(path, std::ios::binary | std::ios::trunc);
            out.write(reinterpret_cast<char const*>(image.getData()), std::streamsize(image.getByteSize()));
        }
        state.SetIterationTime(secondsSince(start));
    }
}
BENCHMARK(TextureCacheRawWrite)->Unit(benchmark::kMillisecond)->UseManualTime()->MinTime(2.0);

void TextureCacheRawRead(benchmark::State& state) {
    auto const path = benchFolder() / "offload" / "raw.bin";
    std::filesystem::create_directories(path.parent_path());
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<char const*>(level0().getData()), std::streamsize(LEVEL0_BYTES));
    }
    for (auto _ : state) {
        auto const start = Clock::now();
        std::unique_ptr<char[]> buffer(new char[std::size_t(LEVEL0_BYTES)]);
        {
            std::ifstream in(path, std::ios::binary);
            in.read(buffer.get(), std::streamsize(LEVEL0_BYTES));
        }
        benchmark::DoNotOptimize(buffer.get());
        state.SetIterationTime(secondsSince(start));
    }
}
BENCHMARK(TextureCacheRawRead)->Unit(benchmark::kMillisecond)->UseManualTime()->MinTime(2.0);

// --------------------------------------------------------------- decoding

/// A fresh decode each time: the texture is released, so its record ends and
/// the next request decodes again (pixels and mip chain). The loader is
/// suspended so that every decode runs here; were it to take a request, its
/// last reference could outlive this iteration and the next one would reuse it.
template <typename Use> void decodeEachIteration(benchmark::State& state, std::filesystem::path const& path, Use&& use) {
    auto const source = FileDataSource::make(path);
    ImageTextureCache::suspend();
    struct Resume {
        ~Resume() { ImageTextureCache::resume(); }
    } const resume;
    for (auto _ : state) {
        SharedPtr<ImageTexture> texture = ImageTextureCache::getOrCreate(source);
        if (!texture->hasPixels())
            state.SkipWithError(texture->getError().c_str());
        use(*texture);
    }
}

void runCacheDecode(benchmark::State& state, std::filesystem::path const& path) {
    decodeEachIteration(state, path, [](ImageTexture const& texture) { benchmark::DoNotOptimize(&texture); });
}

void runOiioDecode(benchmark::State& state, std::filesystem::path const& path) {
    for (auto _ : state) {
        OIIO::ImageBuf buffer(path.string());
        if (!buffer.read(0, 0, true))
            state.SkipWithError(buffer.geterror().c_str());
        benchmark::DoNotOptimize(buffer.localpixels());
    }
}

void TextureCacheDecodeDesk(benchmark::State& state) { runCacheDecode(state, deskFile()); }
void TextureCacheDecodeDeskOiio(benchmark::State& state) { runOiioDecode(state, deskFile()); }
void TextureCacheDecodePng(benchmark::State& state) { runCacheDecode(state, pngFile()); }
void TextureCacheDecodePngOiio(benchmark::State& state) { runOiioDecode(state, pngFile()); }
BENCHMARK(TextureCacheDecodeDesk)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(TextureCacheDecodeDeskOiio)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(TextureCacheDecodePng)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(TextureCacheDecodePngOiio)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

// --------------------------------------------------------------- memory

/// Bytes held (all levels) by the last texture each of the two benchmarks loaded.
struct HeldBytes {
    std::int64_t half = 0, asFloat = 0;
};
HeldBytes& heldBytes() {
    static HeldBytes sBytes;
    return sBytes;
}

/// Loads the file through the cache (decode and mip chain) and keeps the
/// bytes its texture holds.
void runHeldBytes(benchmark::State& state, FileChannelType type, std::int64_t& held) {
    decodeEachIteration(state, exrFile(type), [&](ImageTexture const& texture) { held = texture.getMemoryUsage(); });
    state.counters["held_MiB"] = double(held) / double(1 << 20);
}
void TextureCacheHalfExrHeld(benchmark::State& state) { runHeldBytes(state, FileChannelType::Half, heldBytes().half); }
void TextureCacheFloatExrHeld(benchmark::State& state) { runHeldBytes(state, FileChannelType::Float, heldBytes().asFloat); }
BENCHMARK(TextureCacheHalfExrHeld)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(TextureCacheFloatExrHeld)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

} // namespace

// Both figures are set only by benchmarks that ran.
FERRIM_BENCH_RATIO("half_texture_memory_vs_float", "<= 0.55", [](FerrimBench::Results const&) -> std::optional<double> {
    HeldBytes const& b = heldBytes();
    if (b.half <= 0 || b.asFloat <= 0) return std::nullopt;
    return double(b.half) / double(b.asFloat);
});
FERRIM_BENCH_RATIO("mip_chain_vs_memcpy", "<= 3",
                   FerrimBench::timeRatio("TextureCacheMipChain1Thread/real_time", "TextureCacheMemcpyLevel0/real_time"));
FERRIM_BENCH_RATIO("mip_chain_threads_speedup", ">= 1.7",
                   FerrimBench::timeRatio("TextureCacheMipChain1Thread/real_time", "TextureCacheMipChainAllThreads/real_time"));
FERRIM_BENCH_RATIO("offload_write_vs_raw", "<= 1.25",
                   FerrimBench::timeRatio("TextureCacheOffloadWrite/manual_time", "TextureCacheRawWrite/manual_time"));
FERRIM_BENCH_RATIO("reload_vs_raw", "<= 1.25",
                   FerrimBench::timeRatio("TextureCacheReload/manual_time", "TextureCacheRawRead/manual_time"));
// The worse of the two files.
FERRIM_BENCH_RATIO("decode_vs_oiio", "<= 1.1", [](FerrimBench::Results const& r) -> std::optional<double> {
    auto const desk = r.secondsPerItem("TextureCacheDecodeDesk/real_time");
    auto const deskPeer = r.secondsPerItem("TextureCacheDecodeDeskOiio/real_time");
    auto const png = r.secondsPerItem("TextureCacheDecodePng/real_time");
    auto const pngPeer = r.secondsPerItem("TextureCacheDecodePngOiio/real_time");
    if (!desk || !deskPeer || !png || !pngPeer)
        return std::nullopt;
    return std::max(*desk / *deskPeer, *png / *pngPeer);
});

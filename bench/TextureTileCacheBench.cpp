// Tiles read on demand under a memory cap: one trace of trilinear lookups over
// twelve 4096 x 4096 tiled, mip-mapped files holding four times the cap, through
// our tile cache and through OpenImageIO's TextureSystem over its ImageCache
// with the same max_memory_MB, on the same files. Each run starts cold.
#include <benchmark/benchmark.h>

#include <OpenImageIO/texture.h>

#include <cstdio>
#include <filesystem>

#include "BenchRatios.h"
#include "Ferrim/TextureMap/MipGeneration.h"
#include "Ferrim/TextureMap/TileCache.h"
#include "QuelinLibImage/ImageLevelsWrite.h"

namespace {

using namespace Quelin;

constexpr int FILES = 12;
constexpr int SIZE = 4096;
constexpr int TILE = 64;
constexpr std::int64_t LOOKUPS = 10'000'000;
/// A shading bucket's worth of neighbouring lookups on one file.
constexpr int BUCKET_SIDE = 8;

/// Hashed texels over waves, different per file, so that tiles do not compress to nothing.
Image makeLevel0(int seed) {
    Image image(Image::Descriptor(Pixel(SIZE, SIZE), PixelFormat::Rgba8));
    for (int y = 0; y < SIZE; ++y) {
        auto* row = image.getRow<PixelRgba8>(y);
        for (int x = 0; x < SIZE; ++x) {
            std::uint32_t h = std::uint32_t(x) * 0x9E3779B1u ^ std::uint32_t(y + seed * 7919) * 0x85EBCA77u;
            h ^= h >> 15;
            h *= 0x2C1B3C6Du;
            h ^= h >> 12;
            row[x] = {std::uint8_t((x + (h & 63)) & 255), std::uint8_t((y + ((h >> 8) & 63)) & 255),
                      std::uint8_t((x ^ (y + seed)) & 255), 255};
        }
    }
    return image;
}

/// The files, written once and kept between runs of the benchmark program.
struct TileFiles {
    Stack<std::filesystem::path> paths;
    std::int64_t totalBytes = 0;
    TileFiles() {
        std::filesystem::path const folder = Io::StandardPaths::temporary() / "ferrim_bench_tiles";
        std::filesystem::create_directories(folder);
        for (int i = 0; i < FILES; ++i) {
            std::filesystem::path const path = folder / ("tiles" + std::to_string(i) + ".tif");
            paths.push_back(path);
            if (!TiledImageFile::open(path)) {
                Stack<Image> levels;
                levels.push_back(makeLevel0(i));
                for (Image& level : MipGeneration::buildMipChain(levels.front())) levels.push_back(std::move(level));
                if (auto r = writeImageLevels(levels, path, {}, TILE); !r) std::fprintf(stderr, "bench: %s\n", r.error().c_str());
            }
            if (auto file = TiledImageFile::open(path)) totalBytes += (*file)->getTotalBytes();
        }
    }
};
TileFiles const& files() {
    static TileFiles f;
    return f;
}
std::int64_t capBytes() { return files().totalBytes / 4; }

/// The trace: a render's access pattern, passes over the same screen of
/// buckets (progressive refinement), each bucket neighbouring points on one
/// file at one footprint, the buckets scattered over the files, each pass in
/// another order. One pass touches more tiles than the files hold over the cap,
/// so every pass evicts and reads again. The same for both sides, made as it
/// is walked.
template <typename Lookup> float walkTrace(Lookup&& lookup) {
    struct Bucket {
        int file;
        float width, u0, v0;
    };
    constexpr int BUCKETS = 32768;
    static Stack<Bucket> const screen = [] {
        std::uint64_t state = 0x853C49E6748FEA9Bull;
        auto const next = [&] {
            state = state * 6364136223846793005ull + 1442695040888963407ull;
            return std::uint32_t(state >> 33);
        };
        Stack<Bucket> buckets;
        for (int i = 0; i < BUCKETS; ++i) {
            int const file = int(next() % FILES);
            // Footprints from one texel of level 0 to 8 of them: levels 0 to 3,
            // where a 4096 x 4096 texture's tiles are.
            float const width = std::exp2(-12.f + 3.f * float(next() & 0xFFFF) / 65535.f);
            buckets.push_back({file, width, float(next() & 0xFFFFFF) / 16777216.f, float(next() & 0xFFFFFF) / 16777216.f});
        }
        return buckets;
    }();
    float sum = 0.f;
    std::int64_t done = 0;
    for (std::int64_t n = 0; done < LOOKUPS; ++n, done += BUCKET_SIDE * BUCKET_SIDE) {
        // An odd stride over a power of two visits every bucket once a pass.
        std::int64_t const pass = n / BUCKETS;
        Bucket const& k = screen[std::size_t((n * 7919 + pass * 104729) % BUCKETS)];
        for (int j = 0; j < BUCKET_SIDE; ++j)
            for (int i = 0; i < BUCKET_SIDE; ++i) {
                float u = k.u0 + float(i) * k.width, v = k.v0 + float(j) * k.width;
                u -= std::floor(u);
                v -= std::floor(v);
                sum += lookup(k.file, u, v, k.width);
            }
    }
    return sum;
}

struct Figures {
    double ourReread = -1, theirReread = -1, ourPeak = -1;
};
Figures& figures() {
    static Figures f;
    return f;
}

void TextureTileCacheCapped(benchmark::State& state) {
    Stack<SharedPtr<TiledImageFile>> opened;
    for (auto const& path : files().paths) {
        auto file = TiledImageFile::open(path);
        if (!file) {
            state.SkipWithError(file.error().c_str());
            return;
        }
        opened.push_back(*file);
    }
    TextureSampling::Addressing const repeat{TextureSampling::Address::Repeat, TextureSampling::Address::Repeat};
    for (auto _ : state) {
        TileCache cache(capBytes());
        float const sum = walkTrace([&](int file, float u, float v, float width) {
            float out[4];
            cache.sampleTrilinear(*opened[std::size_t(file)], u, v, width, repeat).store(out);
            return out[1];
        });
        benchmark::DoNotOptimize(sum);
        figures().ourReread = double(cache.getStats().bytesReread);
        figures().ourPeak = double(cache.getPeakMemoryUsage());
        state.counters["reread_MiB"] = double(cache.getStats().bytesReread) / double(1 << 20);
        state.counters["peak_MiB"] = double(cache.getPeakMemoryUsage()) / double(1 << 20);
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * LOOKUPS);
}

void TextureTileCacheCappedOiio(benchmark::State& state) {
    Stack<OIIO::ustring> names;
    for (auto const& path : files().paths) names.emplace_back(path.string());
    for (auto _ : state) {
        OIIO::TextureSystem* system = OIIO::TextureSystem::create(false);
        system->attribute("max_memory_MB", float(double(capBytes()) / double(1 << 20)));
        system->attribute("max_open_files", 100);
        OIIO::TextureSystem::Perthread* thread = system->get_perthread_info();
        Stack<OIIO::TextureSystem::TextureHandle*> handles;
        for (auto const& name : names) handles.push_back(system->get_texture_handle(name, thread));
        OIIO::TextureOpt options;
        options.swrap = options.twrap = OIIO::TextureOpt::WrapPeriodic;
        options.interpmode = OIIO::TextureOpt::InterpBilinear;
        options.mipmode = OIIO::TextureOpt::MipModeTrilinear;
        float const sum = walkTrace([&](int file, float u, float v, float width) {
            float out[4];
            // Their t runs down the image, our v up.
            system->texture(handles[std::size_t(file)], thread, options, u, 1.f - v, width, 0.f, 0.f, width, 4, out);
            return out[1];
        });
        benchmark::DoNotOptimize(sum);
        std::int64_t reread = 0;
        for (auto const& name : names) {
            std::int64_t bytes = 0;
            system->get_texture_info(name, 0, OIIO::ustring("stat:redundant_bytesread"), OIIO::TypeDesc::INT64, &bytes);
            reread += bytes;
        }
        figures().theirReread = double(reread);
        state.counters["reread_MiB"] = double(reread) / double(1 << 20);
        OIIO::TextureSystem::destroy(system);
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * LOOKUPS);
    state.SetLabel("OpenImageIO " OIIO_VERSION_STRING);
}

// ------------------------------------------------------------ anisotropic

/// Footprints of a plane seen 80 degrees from its normal through 128 x 128
/// pixels, each pixel's derivatives from its neighbours.
struct GrazingPoint {
    float u, v;
    TextureSampling::UvDerivatives d;
};
Stack<GrazingPoint> const& grazingPoints() {
    static Stack<GrazingPoint> const points = [] {
        constexpr int SIDE = 128;
        float const fy = std::sin(80.f * float(M_PI) / 180.f), fz = -std::cos(80.f * float(M_PI) / 180.f);
        auto const uvAt = [&](float x, float y, float& u, float& v) {
            float const ax = (x - 0.5f * SIDE) * 0.002f, ay = (0.5f * SIDE - y) * 0.002f;
            float const t = -1.f / (fz + ay * fy);
            u = 0.3f + ax * t * 0.05f;
            v = 0.2f + (fy - ay * fz) * t * 0.05f;
        };
        Stack<GrazingPoint> result;
        for (int y = 0; y < SIDE; ++y)
            for (int x = 0; x < SIDE; ++x) {
                GrazingPoint p;
                float ux, vx, uy, vy;
                uvAt(float(x), float(y), p.u, p.v);
                uvAt(float(x) + 1.f, float(y), ux, vx);
                uvAt(float(x), float(y) + 1.f, uy, vy);
                p.d = {ux - p.u, vx - p.v, uy - p.u, vy - p.v};
                p.u -= std::floor(p.u);
                p.v -= std::floor(p.v);
                result.push_back(p);
            }
        return result;
    }();
    return points;
}

void TextureAnisotropic(benchmark::State& state) {
    auto file = TiledImageFile::open(files().paths.front());
    if (!file) {
        state.SkipWithError(file.error().c_str());
        return;
    }
    TileCache cache(std::int64_t(1) << 30);  // resident, as the peer's
    TextureSampling::Addressing const repeat{TextureSampling::Address::Repeat, TextureSampling::Address::Repeat};
    float sum = 0.f;
    auto const pass = [&] {
        for (GrazingPoint const& p : grazingPoints()) {
            float out[4];
            cache.sampleAnisotropic(**file, p.u, p.v, p.d, TextureSampling::DEFAULT_MAX_ANISOTROPY, repeat).store(out);
            sum += out[1];
        }
    };
    pass();  // warm
    for (auto _ : state) pass();
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(grazingPoints().size()));
}

void TextureAnisotropicOiio(benchmark::State& state) {
    OIIO::TextureSystem* system = OIIO::TextureSystem::create(false);
    system->attribute("max_memory_MB", 1024.f);
    OIIO::TextureSystem::Perthread* thread = system->get_perthread_info();
    OIIO::TextureSystem::TextureHandle* handle = system->get_texture_handle(OIIO::ustring(files().paths.front().string()), thread);
    OIIO::TextureOpt options;  // the default: anisotropic, at most 32
    options.swrap = options.twrap = OIIO::TextureOpt::WrapPeriodic;
    options.anisotropic = int(TextureSampling::DEFAULT_MAX_ANISOTROPY);
    float sum = 0.f;
    auto const pass = [&] {
        for (GrazingPoint const& p : grazingPoints()) {
            float out[4];
            system->texture(handle, thread, options, p.u, 1.f - p.v, p.d.dudx, -p.d.dvdx, p.d.dudy, -p.d.dvdy, 4, out);
            sum += out[1];
        }
    };
    pass();
    for (auto _ : state) pass();
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(grazingPoints().size()));
    state.SetLabel("OpenImageIO " OIIO_VERSION_STRING);
    OIIO::TextureSystem::destroy(system);
}

BENCHMARK(TextureAnisotropic)->Repetitions(5)->MinTime(0.2);
BENCHMARK(TextureAnisotropicOiio)->Repetitions(5)->MinTime(0.2);
FERRIM_BENCH_RATIO("aniso_vs_oiio_aniso", "<= 0.5", FerrimBench::timeRatio("TextureAnisotropic", "TextureAnisotropicOiio"));

// Each run is seconds long and starts cold: one iteration, a few repetitions.
BENCHMARK(TextureTileCacheCapped)->Iterations(1)->Repetitions(2)->Unit(benchmark::kMillisecond);
BENCHMARK(TextureTileCacheCappedOiio)->Iterations(1)->Repetitions(2)->Unit(benchmark::kMillisecond);

FERRIM_BENCH_RATIO("tile_cache_capped_vs_oiio", "<= 0.8",
                   FerrimBench::timeRatio("TextureTileCacheCapped/iterations:1", "TextureTileCacheCappedOiio/iterations:1"));
FERRIM_BENCH_RATIO("tile_bytes_reread_vs_oiio", "<= 1.0", [](FerrimBench::Results const&) -> std::optional<double> {
    Figures const& f = figures();
    if (f.ourReread < 0 || f.theirReread < 0) return std::nullopt;
    // Neither re-reading anything is a tie.
    return f.theirReread > 0 ? f.ourReread / f.theirReread : (f.ourReread > 0 ? 2.0 : 1.0);
});
FERRIM_BENCH_RATIO("peak_rss_over_cap", "<= 1.1", [](FerrimBench::Results const&) -> std::optional<double> {
    if (figures().ourPeak < 0) return std::nullopt;
    return figures().ourPeak / double(capBytes());
});

} // namespace

// Image-texture lookups through the texture map's evaluator and a shade
// context, beside OpenImageIO's TextureSystem with a texture handle: the same
// 2048 x 2048 RGBA 8-bit mip-mapped image, the same points and derivatives,
// the texture resident in memory on both sides.
#include <benchmark/benchmark.h>

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <OpenImageIO/texture.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include "BenchRatios.h"
#include "Ferrim/TextureMap/TextureMap.h"
#include "QuelinLib/DataSource.h"

namespace {

using namespace Quelin;

constexpr int SIZE = 2048;
constexpr int WINDOW = 256;           ///< texels on a side of the window of the local cases
constexpr int WINDOW_ORIGIN = 640;    ///< its lower-left texel
constexpr float TRILINEAR_FOOTPRINT = 1.5f / float(SIZE);
constexpr int POINT_COUNT = 4096;

int threadCount() { return std::max(1, int(std::thread::hardware_concurrency())); }

/// A colourful texture without large flat areas: hashed texels over smooth waves.
Image makeTexture() {
    Image image(Image::Descriptor(Pixel(SIZE, SIZE), PixelFormat::Rgba8));
    for (int y = 0; y < SIZE; ++y) {
        auto* row = image.getRow<PixelRgba8>(y);
        for (int x = 0; x < SIZE; ++x) {
            std::uint32_t h = std::uint32_t(x) * 0x9E3779B1u ^ std::uint32_t(y) * 0x85EBCA77u;
            h ^= h >> 15;
            h *= 0x2C1B3C6Du;
            h ^= h >> 12;
            row[x] = {std::uint8_t((x + (h & 63)) & 255), std::uint8_t((y + ((h >> 8) & 63)) & 255),
                      std::uint8_t((x ^ y) & 255), std::uint8_t(192 + ((h >> 16) & 63))};
        }
    }
    return image;
}

/// The texture written once per run: a PNG for the map, a tiled mip-mapped TIFF for the peer.
struct TextureFiles {
    std::filesystem::path png, tx;
    TextureFiles() {
        std::filesystem::path const folder = Io::StandardPaths::temporary() / "ferrim_bench_texture";
        std::filesystem::create_directories(folder);
        png = folder / "texture.png";
        tx = folder / "texture.tx";
        Image const image = makeTexture();
        if (auto r = writeImage(image, png); !r) std::fprintf(stderr, "bench: %s\n", r.error().c_str());
        OIIO::ImageBuf buffer(OIIO::ImageSpec(SIZE, SIZE, 4, OIIO::TypeDesc::UINT8));
        buffer.set_pixels(OIIO::ROI::All(), OIIO::TypeDesc::UINT8, image.getData());
        OIIO::ImageSpec config;
        config.tile_width = config.tile_height = 64;
        config.attribute("maketx:filtername", "box");
        if (!OIIO::ImageBufAlgo::make_texture(OIIO::ImageBufAlgo::MakeTxTexture, buffer, tx.string(), config))
            std::fprintf(stderr, "bench: make_texture: %s\n", OIIO::geterror().c_str());
    }
};
TextureFiles const& files() {
    static TextureFiles const f;
    return f;
}

struct LookupPoint {
    float u, v;
};

/// Seeded points: inside the window, or over the whole texture.
std::vector<LookupPoint> makePoints(bool window, unsigned seed) {
    std::mt19937 rng(seed);
    float const lo = window ? float(WINDOW_ORIGIN) / SIZE : 0.f;
    float const hi = window ? float(WINDOW_ORIGIN + WINDOW) / SIZE : 1.f;
    std::uniform_real_distribution<float> d(lo, hi);
    std::vector<LookupPoint> p(POINT_COUNT);
    for (auto& q : p) q = {d(rng), d(rng)};
    return p;
}
std::vector<LookupPoint> const& windowPoints() {
    static auto const p = makePoints(true, 11);
    return p;
}
std::vector<LookupPoint> const& wholePoints() {
    static auto const p = makePoints(false, 12);
    return p;
}

// ---------------------------------------------------------------- ours

/// A surface point whose UV and footprint the loop sets.
class BenchShadeContext final : public NullShadeContext {
public:
    Pos uvw;
    Dir dUvw;
    bool filtered = false;
    Pos getUvw(int, std::uint32_t) const override { return uvw; }
    Dir getDUvw(int) const override { return dUvw; }
    ShadedKind getShadedKind() const override { return ShadedKind::Surface; }
    bool wantsFilteredLookup() const override { return filtered; }
};

SharedPtr<IMapEvaluator> const& ourEvaluator() {
    static SharedPtr<IMapEvaluator> const e = [] {
        auto map = makeSharedPtr<TextureMap>();
        map->set("imageSource", EntityHolder<Entity>(FileDataSource::make(files().png)));
        SharedPtr<IMapEvaluator> evaluator = map->getEvaluatorImpl().evaluator;
        if (auto info = map->getTextureInfo(); !info) std::fprintf(stderr, "bench: %s\n", info.error().c_str());
        return evaluator;
    }();
    return e;
}

void runOurs(benchmark::State& state, std::vector<LookupPoint> const& points, float footprint) {
    IMapEvaluator const& e = *ourEvaluator();
    BenchShadeContext context;
    context.filtered = footprint > 0.f;
    context.dUvw = Dir(footprint, footprint, 0.f);
    float sum = 0.f;
    // A pass outside the timing, as the peer's warms its tile cache.
    for (LookupPoint const& p : points) {
        context.uvw = Pos(p.u, p.v, 0.f);
        sum += e.evalColor(context, nullptr).g;
    }
    for (auto _ : state) {
        for (LookupPoint const& p : points) {
            context.uvw = Pos(p.u, p.v, 0.f);
            sum += e.evalColor(context, nullptr).g;
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(points.size()));
}

void TextureBilinearWindow(benchmark::State& s) { runOurs(s, windowPoints(), 0.f); }
void TextureTrilinearWindow(benchmark::State& s) { runOurs(s, windowPoints(), TRILINEAR_FOOTPRINT); }
void TextureBilinearWhole(benchmark::State& s) { runOurs(s, wholePoints(), 0.f); }
void TextureTrilinearWindowThreads(benchmark::State& s) { runOurs(s, windowPoints(), TRILINEAR_FOOTPRINT); }

// ---------------------------------------------------------------- peer

struct Peer {
    OIIO::TextureSystem* system = nullptr;
    OIIO::ustring name;
    Peer() {
        system = OIIO::TextureSystem::create(false);
        // Everything resident: a budget far above the chain's 22 MB, no file-handle churn.
        system->attribute("max_memory_MB", 2048.f);
        system->attribute("max_open_files", 100);
        name = OIIO::ustring(files().tx.string());
    }
    ~Peer() { OIIO::TextureSystem::destroy(system); }
};
Peer& peer() {
    static Peer p;
    return p;
}

void runPeer(benchmark::State& state, std::vector<LookupPoint> const& points, float footprint) {
    Peer& p = peer();
    OIIO::TextureSystem::Perthread* thread = p.system->get_perthread_info();
    OIIO::TextureSystem::TextureHandle* handle = p.system->get_texture_handle(p.name, thread);
    OIIO::TextureOpt options;
    options.swrap = options.twrap = OIIO::TextureOpt::WrapPeriodic;
    options.interpmode = OIIO::TextureOpt::InterpBilinear;
    options.mipmode = footprint > 0.f ? OIIO::TextureOpt::MipModeTrilinear : OIIO::TextureOpt::MipModeNoMIP;
    float result[4];
    float sum = 0.f;
    // Warm the tile cache outside the timing.
    for (LookupPoint const& q : points)
        p.system->texture(handle, thread, options, q.u, 1.f - q.v, footprint, 0.f, 0.f, footprint, 4, result);
    for (auto _ : state) {
        for (LookupPoint const& q : points) {
            // Their t runs down the image, our v up.
            p.system->texture(handle, thread, options, q.u, 1.f - q.v, footprint, 0.f, 0.f, footprint, 4, result);
            sum += result[1];
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(points.size()));
    state.SetLabel("OpenImageIO " OIIO_VERSION_STRING);
}

void TextureBilinearWindowOiio(benchmark::State& s) { runPeer(s, windowPoints(), 0.f); }
void TextureTrilinearWindowOiio(benchmark::State& s) { runPeer(s, windowPoints(), TRILINEAR_FOOTPRINT); }
void TextureBilinearWholeOiio(benchmark::State& s) { runPeer(s, wholePoints(), 0.f); }

// ------------------------------------------------------- batched lookups

// The batch entry against one call per point, both on our evaluator: 10^6
// seeded points, a batch being what a shading point asks at once.
constexpr std::size_t BATCH_POINT_COUNT = 1'000'000;
constexpr std::size_t BATCH_SIZE = 64;

std::vector<MapLookupPoint> makeBatchPoints(bool window, float footprint, unsigned seed) {
    std::mt19937 rng(seed);
    float const lo = window ? float(WINDOW_ORIGIN) / SIZE : 0.f;
    float const hi = window ? float(WINDOW_ORIGIN + WINDOW) / SIZE : 1.f;
    std::uniform_real_distribution<float> d(lo, hi);
    std::vector<MapLookupPoint> p(BATCH_POINT_COUNT);
    for (auto& q : p) q = {Pos(d(rng), d(rng), 0.f), Dir(footprint, footprint, 0.f)};
    return p;
}
std::vector<MapLookupPoint> const& batchPoints(bool window, bool trilinear) {
    static std::vector<MapLookupPoint> const sets[4] = {
        makeBatchPoints(false, 0.f, 21), makeBatchPoints(false, TRILINEAR_FOOTPRINT, 22),
        makeBatchPoints(true, 0.f, 23), makeBatchPoints(true, TRILINEAR_FOOTPRINT, 24)};
    return sets[2 * int(window) + int(trilinear)];
}

void runSingle(benchmark::State& state, bool window, bool trilinear) {
    IMapEvaluator const& e = *ourEvaluator();
    std::vector<MapLookupPoint> const& points = batchPoints(window, trilinear);
    BenchShadeContext context;
    context.filtered = trilinear;
    float sum = 0.f;
    for (auto _ : state) {
        for (MapLookupPoint const& p : points) {
            context.uvw = p.uvw;
            context.dUvw = p.dUvw;
            sum += e.evalColor(context, nullptr).g;
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(points.size()));
}

void runBatched(benchmark::State& state, bool window, bool trilinear) {
    IMapEvaluator const& e = *ourEvaluator();
    std::vector<MapLookupPoint> const& points = batchPoints(window, trilinear);
    BenchShadeContext context;
    context.filtered = trilinear;
    RgbAlpha colors[BATCH_SIZE];
    float sum = 0.f;
    for (auto _ : state) {
        for (std::size_t i = 0; i < points.size(); i += BATCH_SIZE) {
            std::size_t const n = std::min(BATCH_SIZE, points.size() - i);
            e.evalColors(context, std::span(points).subspan(i, n), std::span(colors, n), nullptr);
            sum += colors[0].g;
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(points.size()));
}

// Many short runs: the ratios take the fastest of each (see BenchRatios.h),
// and on a shared machine short runs are likelier to miss a disturbance.
constexpr int REPETITIONS = 15;
constexpr double RUN_SECONDS = 0.1;
BENCHMARK(TextureBilinearWindow)->Repetitions(REPETITIONS)->MinTime(RUN_SECONDS);
BENCHMARK(TextureBilinearWindowOiio)->Repetitions(REPETITIONS)->MinTime(RUN_SECONDS);
BENCHMARK(TextureTrilinearWindow)->Repetitions(REPETITIONS)->MinTime(RUN_SECONDS);
BENCHMARK(TextureTrilinearWindowOiio)->Repetitions(REPETITIONS)->MinTime(RUN_SECONDS);
BENCHMARK(TextureBilinearWhole)->Repetitions(REPETITIONS)->MinTime(RUN_SECONDS);
BENCHMARK(TextureBilinearWholeOiio)->Repetitions(REPETITIONS)->MinTime(RUN_SECONDS);
// Each iteration is 10^6 lookups: fewer, longer runs. Named
// Texture{Single,Batched}{Bilinear,Trilinear}{Window,Whole}.
constexpr int BATCH_REPETITIONS = 5;
constexpr double BATCH_SECONDS = 0.2;
bool const sBatchRegistered = [] {
    for (bool trilinear : {false, true})
        for (bool window : {true, false})
            for (bool batched : {false, true}) {
                std::string const name = std::string("Texture") + (batched ? "Batched" : "Single") +
                                         (trilinear ? "Trilinear" : "Bilinear") + (window ? "Window" : "Whole");
                benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& s) {
                    batched ? runBatched(s, window, trilinear) : runSingle(s, window, trilinear);
                })->Repetitions(BATCH_REPETITIONS)->MinTime(BATCH_SECONDS);
            }
    return true;
}();
// One thread and all threads, both in real time: the speed-up is their ratio.
// Twice the runs, half as long: the fastest run with all threads needs every
// core undisturbed at once.
BENCHMARK(TextureTrilinearWindowThreads)
    ->Threads(1)
    ->Threads(threadCount())
    ->UseRealTime()
    ->Repetitions(2 * REPETITIONS)
    ->MinTime(RUN_SECONDS / 2);

bool const sContext = [] {
    benchmark::AddCustomContext("OpenImageIO", OIIO_VERSION_STRING);
    return true;
}();

} // namespace

FERRIM_BENCH_RATIO("bilinear_vs_oiio", "<= 0.15",
                   FerrimBench::timeRatio("TextureBilinearWindow", "TextureBilinearWindowOiio"));
FERRIM_BENCH_RATIO("trilinear_vs_oiio", "<= 0.15",
                   FerrimBench::timeRatio("TextureTrilinearWindow", "TextureTrilinearWindowOiio"));
FERRIM_BENCH_RATIO("bilinear_whole_vs_oiio", "<= 0.35",
                   FerrimBench::timeRatio("TextureBilinearWhole", "TextureBilinearWholeOiio"));
FERRIM_BENCH_RATIO("trilinear_threads_speedup", ">= 1.8",
                   [](FerrimBench::Results const& r) -> std::optional<double> {
                       auto const one = r.secondsPerItem("TextureTrilinearWindowThreads/real_time/threads:1");
                       auto const all = r.secondsPerItem("TextureTrilinearWindowThreads/real_time/threads:" +
                                                         std::to_string(threadCount()));
                       if (!one || !all || *all <= 0) return std::nullopt;
                       return *one / *all;
                   });
FERRIM_BENCH_RATIO("batched_bilinear_vs_single", "<= 0.5",
                   FerrimBench::timeRatio("TextureBatchedBilinearWindow", "TextureSingleBilinearWindow"));
FERRIM_BENCH_RATIO("batched_bilinear_whole_vs_single", "<= 0.5",
                   FerrimBench::timeRatio("TextureBatchedBilinearWhole", "TextureSingleBilinearWhole"));
FERRIM_BENCH_RATIO("batched_trilinear_vs_single", "<= 0.5",
                   FerrimBench::timeRatio("TextureBatchedTrilinearWindow", "TextureSingleTrilinearWindow"));
FERRIM_BENCH_RATIO("batched_trilinear_whole_vs_single", "<= 0.5",
                   FerrimBench::timeRatio("TextureBatchedTrilinearWhole", "TextureSingleTrilinearWhole"));

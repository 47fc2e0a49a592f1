// Tiles read on demand: under any cap and from many threads the same lookups
// as with room for every tile (bit-identity with the file decoded whole, for
// each stored precision and filter, is TiledTextureMapTest's), and hostile
// files refused by name.
#include <gtest/gtest.h>

#include <thread>

#include "Ferrim/TextureMap/TileCache.h"
#include "TextureMapTestSupport.h"

using namespace Quelin;
using namespace Quelin::TextureMapTest;
using TextureSampling::Address;
using TextureSampling::Addressing;

namespace {

struct Point { float u, v, width; };

/// Points over the whole level, borders and footprints of every level included.
Stack<Point> points(int count, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> unit(0.f, 1.f);
    Stack<Point> result = {{0.f, 0.f, 0.f}, {1.f, 1.f, 1.f}, {1.f, 0.f, 0.3f}, {0.5f, 0.5f, 1e-3f}};
    for (int i = 0; i < count; ++i) result.push_back({unit(rng), unit(rng), std::exp2(-10.f * unit(rng))});
    return result;
}

bool sameBits(Float4 a, Float4 b) {
    float x[4], y[4];
    a.store(x);
    b.store(y);
    return std::memcmp(x, y, sizeof x) == 0;
}

class TileCacheTest : public Testing::LibraryTempFolderTest {
protected:
    /// A tiled file of `format` with its full chain.
    SharedPtr<TiledImageFile> tiledFile(String const& name, PixelFormat format, FileChannelType type) {
        // Integer texels: noise, so that a misplaced tile shows; float ones:
        // finite values, negatives and values above 1 among them.
        Image const level0 = getChannelType(format) == ChannelType::Float
                                 ? imageOf(100, 70, format, [](int x, int y) {
                                       return RgbAlpha(float((x * 37 + y * 11) % 23) / 7.f - 1.f, std::sin(float(x * y)),
                                                       float(x ^ y) / 64.f, float(y) / 70.f);
                                   })
                                 : randomImage({100, 70}, format, 7);
        Io::Path const path = mFolder / name;
        writeTiledChain(level0, path, type);
        auto file = TiledImageFile::open(path);
        EXPECT_TRUE(file) << (file ? String() : file.error());
        return file ? *file : nullptr;
    }
};

TEST_F(TileCacheTest, CapSmallerThanOneLevelChangesNoResultAndHoldsThePeak) {
    auto file = tiledFile("capped.tif", PixelFormat::Rgba8, FileChannelType::UInt8);
    ASSERT_TRUE(file);
    Stack<Point> const trace = points(4000, 11);
    Addressing const repeat{Address::Repeat, Address::Repeat};
    TileCache roomy(std::int64_t(1) << 30);
    Stack<Float4> expected;
    for (Point const& p : trace) expected.push_back(roomy.sampleTrilinear(*file, p.u, p.v, p.width, repeat));

    // Caps below level 0's 35 tiles. Above what one lookup pins (a trilinear
    // lookup: four tiles a level), the peak is the cap and the tile being
    // read; below it, the pinned tiles.
    for (auto [capTiles, overTiles] : {std::pair{12, 1}, std::pair{3, 8}}) {
        std::int64_t const cap = capTiles * file->getTileBytes();
        TileCache capped(cap);
        for (std::size_t i = 0; i < trace.size(); ++i)
            ASSERT_TRUE(sameBits(capped.sampleTrilinear(*file, trace[i].u, trace[i].v, trace[i].width, repeat), expected[i])) << i;
        EXPECT_LE(capped.getPeakMemoryUsage(), cap + overTiles * file->getTileBytes()) << capTiles;
        EXPECT_LE(capped.getMemoryUsage(), cap + overTiles * file->getTileBytes()) << capTiles;
        TileStats const stats = capped.getStats();
        EXPECT_GT(stats.bytesReread, 0);
        EXPECT_EQ(stats.bytesRead, stats.misses * file->getTileBytes());
        capped.setCapacity(0);
        EXPECT_EQ(capped.getMemoryUsage(), 0);
    }
    EXPECT_EQ(roomy.getStats().bytesRead, file->getTotalBytes() > 0 ? roomy.getStats().misses * file->getTileBytes() : 0);
}

TEST_F(TileCacheTest, EightThreadsEvictingUnderATinyCapReadWhatOneThreadReads) {
    auto file = tiledFile("threads.exr", PixelFormat::RgbaFloat, FileChannelType::Half);
    ASSERT_TRUE(file);
    Stack<Point> const trace = points(3000, 5);
    Addressing const clamp;
    TileCache reference(std::int64_t(1) << 30);
    Stack<Float4> expected;
    for (Point const& p : trace) expected.push_back(reference.sampleTrilinear(*file, p.u, p.v, p.width, clamp));

    constexpr int THREADS = 8;
    std::int64_t const cap = 2 * file->getTileBytes();
    TileCache cache(cap);
    std::atomic<int> mismatches{0};
    Stack<std::thread> threads;
    for (int t = 0; t < THREADS; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 3; ++round)
                for (std::size_t i = std::size_t(t); i < trace.size(); i += 3)
                    if (!sameBits(cache.sampleTrilinear(*file, trace[i].u, trace[i].v, trace[i].width, clamp), expected[i]))
                        ++mismatches;
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_LE(cache.getPeakMemoryUsage(), cap + THREADS * 4 * file->getTileBytes());
    EXPECT_GT(cache.getStats().bytesReread, 0);
}

TEST_F(TileCacheTest, HostileFilesAreRefusedOrReadAsZeroWithTheFileNamed) {
    Io::Path const scanlines = mFolder / "plain.exr";
    ASSERT_TRUE(writeImage(randomImage({32, 32}, PixelFormat::Rgba8, 1), scanlines));
    auto plain = TiledImageFile::open(scanlines);
    ASSERT_FALSE(plain);
    EXPECT_NE(plain.error().find("plain.exr"), String::npos) << plain.error();
    EXPECT_NE(plain.error().find("not tiled"), String::npos) << plain.error();
    auto missing = TiledImageFile::open(mFolder / "nowhere.tif");
    ASSERT_FALSE(missing);
    EXPECT_NE(missing.error().find("nowhere.tif"), String::npos) << missing.error();
    auto folder = TiledImageFile::open(mFolder);
    EXPECT_FALSE(folder);

    // Cut after its header: the file opens, its tiles are gone.
    auto file = tiledFile("cut.tif", PixelFormat::Rgba8, FileChannelType::UInt8);
    ASSERT_TRUE(file);
    Io::Path const cut = mFolder / "cut.tif";
    std::filesystem::resize_file(cut, std::filesystem::file_size(cut) / 3);
    auto damaged = TiledImageFile::open(cut);
    if (!damaged) {
        EXPECT_NE(damaged.error().find("cut.tif"), String::npos) << damaged.error();
        return;
    }
    TileCache cache(std::int64_t(1) << 20);
    for (Point const& p : points(200, 9)) {
        float out[4];
        cache.sampleBilinear(**damaged, 0, p.u, p.v, {}).store(out);
        for (float x : out) EXPECT_TRUE(std::isfinite(x));
    }
    EXPECT_NE((*damaged)->getError().find("cut.tif"), String::npos) << (*damaged)->getError();
}

} // namespace

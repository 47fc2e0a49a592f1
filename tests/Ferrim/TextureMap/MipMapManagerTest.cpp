#include "Ferrim/TextureMap/MipGeneration.h"
#include "Ferrim/TextureMap/MipMapManager.h"

#include <filesystem>
#include <fstream>
#include <cmath>
#include <cstdlib>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <thread>

#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "TestSupport/ErrorOf.h"
#include "TextureMapTestSupport.h"

using namespace Quelin;
using namespace Quelin::TextureMapTest;
namespace fs = std::filesystem;

namespace {

// ---------------------------------------------------------------- the filter

RgbAlpha mean(Image const& image) {
    double sum[4] = {};
    for (int y = 0; y < image.getHeight(); ++y)
        for (int x = 0; x < image.getWidth(); ++x) {
            RgbAlpha const p = image.getRgbAlpha(x, y);
            sum[0] += p.r, sum[1] += p.g, sum[2] += p.b, sum[3] += p.alpha;
        }
    double const n = double(image.getWidth()) * image.getHeight();
    return {float(sum[0] / n), float(sum[1] / n), float(sum[2] / n), float(sum[3] / n)};
}

TEST(MipMeanTest, LevelsHalveDownToOnePixelAndKeepTheMeanOfLevelZero) {
    // Sizes odd and even, square and thin: the exact-area weights drop no
    // row or column, so random texels keep their mean.
    Pixel const sizes[] = {{7, 5},  {64, 64}, {1, 9},     {100, 60}, {33, 17}, {2, 2}, {64, 64},
                           {13, 1}, {99, 31}, {257, 255}, {6, 10},   {128, 3}, {9, 9}, {6, 3}};
    for (std::size_t f = 0; f < std::size(ALL_FORMATS); ++f) {
        SCOPED_TRACE(getPixelFormatName(ALL_FORMATS[f]));
        // Values, not bytes: random float bits would hold NaNs.
        std::mt19937 rng(7);
        std::uniform_real_distribution<float> value(0.f, 4.f);
        Image const level0 = imageOf(sizes[f].x, sizes[f].y, ALL_FORMATS[f], [&](int, int) {
            return RgbAlpha{value(rng), value(rng), value(rng), value(rng) / 4.f};
        });
        Stack<Image> const chain = MipGeneration::buildMipChain(level0);
        ASSERT_EQ(chain.back().getResolution(), (Pixel{1, 1}));
        RgbAlpha const want = mean(level0);
        // Integer levels are built in float and rounded once (half a step at
        // worst, however deep); floats only by float rounding.
        ChannelType const type = getChannelType(level0.getFormat());
        float const step = type == ChannelType::UInt8 ? 1.f / 255.f : type == ChannelType::UInt16 ? 1.f / 65535.f : 0.f;
        for (std::size_t i = 0; i < chain.size(); ++i) {
            Pixel const finer = i == 0 ? level0.getResolution() : chain[i - 1].getResolution();
            EXPECT_EQ(chain[i].getResolution(), (Pixel{std::max(1, finer.x / 2), std::max(1, finer.y / 2)}));
            expectNear(mean(chain[i]), want, 0.5f * step + 2e-5f);
        }
    }
}

TEST(MipThreadsTest, OneThreadAndAllThreadsBuildTheSameLevels) {
    Image const level0 = randomImage({301, 200}, PixelFormat::Rgba8, 3);
    TaskScheduler one("one", 1);
    Stack<Image> const serial = MipGeneration::buildMipChain(level0, &one);
    Stack<Image> const parallel = MipGeneration::buildMipChain(level0);
    ASSERT_EQ(serial.size(), parallel.size());
    for (std::size_t i = 0; i < serial.size(); ++i) EXPECT_TRUE(sameBytes(serial[i], parallel[i])) << i;
}

// ------------------------------------------------------------------ offload

/// 64 x 64 RGBA 8-bit textures: 7 levels of 16384, 4096, 1024, 256, 64, 16 and 4 bytes.
class OffloadTest : public TextureMapFixture {
  protected:
    static constexpr std::int64_t TOTAL = 21844;

    void SetUp() override {
        TextureMapFixture::SetUp();
        mStore = mFolder / "store";
    }
    SharedPtr<ImageTexture> load(String const& name) {
        auto texture = ImageTextureCache::getOrCreate(
            FileDataSource::make(write(name, randomImage({64, 64}, PixelFormat::Rgba8, std::uint32_t(name.size())))));
        EXPECT_TRUE(texture->hasPixels()) << texture->getError();
        return texture;
    }

    Expected<std::true_type, String> budgetBytes(std::int64_t bytes) {
        return MipMapManager::updateCache(true, float(double(bytes) / 1073741824.0), std::nullopt, mStore);
    }
    Expected<std::true_type, String> offloadAll() { return MipMapManager::updateCache(true, std::nullopt, std::nullopt, mStore); }
    /// A single texture's offloaded level count, and the bytes on disk and (the rest) in memory.
    static void expectSplit(ImageTexture const& texture, int offloaded, std::int64_t onDisk) {
        EXPECT_EQ(texture.getOffloadedCount(), offloaded);
        EXPECT_EQ(MipMapManager::getOffloadedBytes(), onDisk);
        EXPECT_EQ(ImageTextureCache::getMemoryUsage(), TOTAL - onDisk);
    }

    Io::Path levelFile(ImageTexture const& texture, int level) const {
        return mStore / ("Ostrel_Out_Of_Core_Texture_" + texture.getMipChain().getId()) / ("Ostrel_Mip_Map_" + std::to_string(level));
    }

    Io::Path mStore;
};

TEST_F(OffloadTest, UnlimitedBudgetOffloadsEverythingAndLevelsComeBackFromTheNeededOneIntact) {
    SharedPtr<ImageTexture> const texture = load("a.png");
    Image const original = texture->getLevel(0).clone();
    expectSplit(*texture, 0, 0);
    ASSERT_TRUE(offloadAll());
    expectSplit(*texture, 7, TOTAL);
    MipMapManager::resetStats();
    texture->requireLevel(2); // levels 2 to 6 come back, 0 and 1 stay on disk
    EXPECT_EQ(MipMapManager::getStats().levelsRead, 5);
    expectSplit(*texture, 2, 16384 + 4096);
    ASSERT_TRUE(budgetBytes(0));
    expectSplit(*texture, 0, 0);
    EXPECT_FALSE(fs::exists(levelFile(*texture, 0).parent_path()));
    EXPECT_TRUE(sameBytes(texture->getLevel(0), original));
}

TEST_F(OffloadTest, BudgetsBySizeAndByPercentageOffloadFinestFirstWhileTheyFitAndNoneTakesNothing) {
    SharedPtr<ImageTexture> const texture = load("a.png");
    ASSERT_TRUE(budgetBytes(16384 + 4096 + 1000)); // room for levels 0 and 1, not 2
    expectSplit(*texture, 2, 16384 + 4096);
    // Keeping the whole disk free leaves no budget: everything comes back.
    ASSERT_TRUE(MipMapManager::updateCache(true, std::nullopt, 100.f, mStore));
    EXPECT_EQ(MipMapManager::getBudget(), 0);
    EXPECT_EQ(texture->getOffloadedCount(), 0);
    // Keeping nothing free: the disk's free space is the budget.
    ASSERT_TRUE(MipMapManager::updateCache(true, std::nullopt, 0.f, mStore));
    EXPECT_GT(MipMapManager::getBudget(), TOTAL);
    EXPECT_EQ(texture->getOffloadedCount(), 7);
    // The same budget again rebalances nothing: a texture loaded since stays.
    ASSERT_TRUE(offloadAll());
    SharedPtr<ImageTexture> const b = load("bb.png");
    ASSERT_TRUE(offloadAll());
    EXPECT_EQ(b->getOffloadedCount(), 0);
    // Disabled, or a folder that cannot hold files: a budget of 0.
    ASSERT_TRUE(MipMapManager::updateCache(false, std::nullopt, std::nullopt, mStore));
    EXPECT_EQ(texture->getOffloadedCount(), 0);
    ASSERT_TRUE(offloadAll());
    Io::Path const blocked = writeText("plain-file", "x") / "sub";
    auto const result = MipMapManager::updateCache(true, std::nullopt, std::nullopt, blocked);
    EXPECT_EQ(result ? String() : result.error(), "Unable to store files in the given out-of-core textures folder: " + Io::pathToUtf8(blocked));
    EXPECT_EQ(MipMapManager::getBudget(), 0);
    EXPECT_EQ(texture->getOffloadedCount(), 0) << "offloaded levels come back";
}

TEST_F(OffloadTest, TheReportSumsTheTexturesAndWritesThreeCsvSections) {
    SharedPtr<ImageTexture> const a = load("a.png");
    SharedPtr<ImageTexture> const b = load("bb.png");
    ASSERT_TRUE(budgetBytes(16384));
    String const report = MipMapManager::getStatsAndSaveReport();
    EXPECT_THAT(report, ::testing::HasSubstr(" 6/7\n")) << "one texture lost its finest level";
    std::ifstream in(mStore / "textureStats.csv");
    Stack<String> lines;
    for (String line; std::getline(in, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), 7u) << report;
    EXPECT_EQ(lines[1], std::to_string(2 * TOTAL - 16384) + ", " + std::to_string(2 * TOTAL));
}

TEST_F(OffloadTest, ACutOrAlteredLevelFileGivesTheEofErrorAndStaysCounted) {
    SharedPtr<ImageTexture> const cut = load("a.png"), altered = load("bb.png");
    ASSERT_TRUE(offloadAll());
    fs::resize_file(levelFile(*cut, 3), 100);
    {
        std::fstream file(levelFile(*altered, 1), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(100);
        file.put('\x7f'); // one byte of 4096 + 8
    }
    for (auto const& [texture, level] : {std::pair{cut, 3}, {altered, 1}}) {
        String const error = Testing::errorOf([&] { texture->requireLevel(0); });  // every level back
        EXPECT_TRUE(error.starts_with("EOF while reading mip map data!")) << error;
        EXPECT_NE(error.find("Ostrel_Mip_Map_" + std::to_string(level)), String::npos) << error;
    }
    // The coarser levels came back; the damaged ones and finer are still on disk and counted.
    std::int64_t const onDisk = (16384 + 4096 + 1024 + 256) + (16384 + 4096);
    auto const expectCounted = [&] {
        EXPECT_EQ(cut->getOffloadedCount(), 4);
        EXPECT_EQ(altered->getOffloadedCount(), 2);
        EXPECT_EQ(MipMapManager::getOffloadedBytes(), onDisk);
        EXPECT_EQ(ImageTextureCache::getMemoryUsage(), 2 * TOTAL - onDisk);
    };
    expectCounted();
    // The same budget again is not silently "done": it retries and reports.
    EXPECT_FALSE(budgetBytes(0));
    EXPECT_FALSE(budgetBytes(0));
    expectCounted();
}

TEST_F(OffloadTest, NonFiniteOrOutOfRangeBudgetsAreRefusedAndChangeNothing) {
    SharedPtr<ImageTexture> const texture = load("a.png");
    ASSERT_TRUE(budgetBytes(16384));
    float const inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    for (auto const& [size, percent] : {std::pair<Optional<float>, Optional<float>>{nan, std::nullopt}, {inf, std::nullopt},
                                        {-1.f, std::nullopt}, {std::nullopt, -inf}, {std::nullopt, 100.5f}, {1.f, nan}}) {
        auto const result = MipMapManager::updateCache(true, size, percent, mStore);
        EXPECT_THAT(result ? String() : result.error(), ::testing::HasSubstr("must be a finite number"));
        EXPECT_EQ(MipMapManager::getBudget(), 16384);
    }
    EXPECT_EQ(texture->getOffloadedCount(), 1);
}

TEST_F(OffloadTest, AFullDiskIsReportedAndTheLevelStaysInMemory) {
    Io::Path const small = mFolder / "small";
    fs::create_directories(small);
    if (::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=12k") != 0)
        GTEST_SKIP() << "cannot mount a small tmpfs here (" << std::strerror(errno) << "): the full-disk case is not run";
    SharedPtr<ImageTexture> const texture = load("a.png");
    Image const original = texture->getLevel(0).clone();
    auto const result = MipMapManager::updateCache(true, std::nullopt, std::nullopt, small);
    ::umount2(small.c_str(), MNT_DETACH);
    ASSERT_FALSE(result) << "16 KiB of level 0 on a 12 KiB disk";
    EXPECT_THAT(result.error(), ::testing::HasSubstr("Ostrel_Mip_Map_0"));
    EXPECT_EQ(texture->getOffloadedCount(), 0);
    EXPECT_EQ(MipMapManager::getOffloadedBytes(), 0);
    EXPECT_TRUE(sameBytes(texture->getLevel(0), original));
}

// Budgets changing while eight threads sample: every lookup gives what it
// gives with nothing offloaded, nothing reads freed memory (this runs under
// the sanitizer presets too), and no level is read back twice (its file is
// gone after the first read). FERRIM_LIVE_BUDGET_SECONDS sets the length.
TEST_F(OffloadTest, BudgetsChangingWhileEightThreadsSampleGiveTheSingleThreadedResults) {
    auto map = makeMap(write("live.png", randomImage({256, 256}, PixelFormat::Rgba8, 11)));
    auto const evaluator = std::dynamic_pointer_cast<TextureMap::Evaluator const>(evaluatorOf(*map));
    ASSERT_TRUE(evaluator);
    ASSERT_TRUE(evaluator->getTexture().hasPixels());
    struct Lookup { float u, v, du; RgbAlpha expected; };
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> unit(0.f, 1.f);
    Stack<Lookup> lookups(2048);
    for (Lookup& l : lookups) {
        l = {unit(rng), unit(rng), std::exp2(-9.f * unit(rng))};  // the largest footprints unfiltered
        l.expected = evaluator->lookupWrapped(l.u, l.v, l.du, l.du, l.du < 0.5f, {}).value();
    }
    char const* seconds = std::getenv("FERRIM_LIVE_BUDGET_SECONDS");
    auto const duration = std::chrono::duration<double>(seconds ? std::atof(seconds) : 2.0);
    std::atomic<bool> stop{false};
    std::atomic<std::int64_t> done{0}, wrong{0}, failed{0};
    Stack<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            std::size_t i = std::size_t(t) * 97;
            while (!stop.load(std::memory_order_relaxed)) {
                Lookup const& l = lookups[i++ % lookups.size()];
                try {
                    RgbAlpha const got = evaluator->lookupWrapped(l.u, l.v, l.du, l.du, l.du < 0.5f, {}).value();
                    if (std::memcmp(&got, &l.expected, sizeof got) != 0) ++wrong;
                } catch (...) {
                    ++failed;
                }
                ++done;
            }
        });
    MipMapManager::resetStats();
    float const budgets[] = {0.f, 0.002f, 0.f, 0.0005f, 0.f, 1.f, 0.0001f};
    int changes = 0;
    auto const end = std::chrono::steady_clock::now() + duration;
    // Two rounds of every budget at least, however slow the build (sanitizers, valgrind).
    while (std::chrono::steady_clock::now() < end || changes < 2 * int(std::size(budgets))) {
        auto const r = MipMapManager::updateCache(true, budgets[changes++ % std::size(budgets)], std::nullopt, mStore);
        EXPECT_TRUE(r) << r.error();
    }
    stop = true;
    for (auto& thread : threads) thread.join();
    EXPECT_GT(MipMapManager::getStats().levelsWritten, 0) << "levels went to disk under the lookups";
    EXPECT_GT(done.load(), 8 * 100);
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(failed.load(), 0);
    ASSERT_TRUE(budgetBytes(0));
    EXPECT_EQ(MipMapManager::getOffloadedBytes(), 0);
}

} // namespace

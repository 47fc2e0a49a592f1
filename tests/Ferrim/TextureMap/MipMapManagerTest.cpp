#include "Ferrim/TextureMap/MipGeneration.h"
#include "Ferrim/TextureMap/MipMapManager.h"

#include <filesystem>
#include <fstream>
#include <cmath>
#include <cstdlib>
#include <fcntl.h>
#include <future>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>

#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "TextureMapTestSupport.h"

using namespace Quelin;
using namespace Quelin::TextureMapTest;
namespace fs = std::filesystem;

namespace {

// ---------------------------------------------------------------- the filter

TEST(MipLevelsTest, CountsAndResolutionsRoundDownToOnePixel) {
    struct Case {
        Pixel size;
        int count;
        Pixel level1;
    };
    for (Case const& c : {Case{{1, 1}, 1, {1, 1}}, Case{{2, 1}, 2, {1, 1}}, Case{{5, 3}, 3, {2, 1}}, Case{{4096, 4096}, 13, {2048, 2048}},
                          Case{{1000, 1}, 10, {500, 1}}, Case{{7, 7}, 3, {3, 3}}}) {
        EXPECT_EQ(MipGeneration::getLevelCount(c.size), c.count) << c.size.x << "x" << c.size.y;
        EXPECT_EQ(MipGeneration::getLevelResolution(c.size, 1), c.level1);
        EXPECT_EQ(MipGeneration::getLevelResolution(c.size, c.count - 1), (Pixel{1, 1}));
    }
}

TEST(MipFilterTest, OddSizesWeighTheSharedPixelByHalfAndDropNothing) {
    // Five pixels into two: each covers 2.5 source pixels, the middle one shared.
    Image const row = imageOf(5, 1, PixelFormat::MonoFloat, [](int x, int) { return RgbAlpha(Rgb(x == 2 ? 10.f : x == 4 ? 20.f : 0.f), 1.f); });
    Stack<Image> const chain = MipGeneration::buildMipChain(row);
    ASSERT_EQ(chain.size(), 2u);
    EXPECT_FLOAT_EQ(chain[0].getPixel<PixelMonoF>(0, 0).value, 2.f);  // (0 + 0 + 0.5 * 10) / 2.5
    EXPECT_FLOAT_EQ(chain[0].getPixel<PixelMonoF>(1, 0).value, 10.f); // (0.5 * 10 + 0 + 20) / 2.5
    EXPECT_FLOAT_EQ(chain[1].getPixel<PixelMonoF>(0, 0).value, 6.f);
}

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

TEST(MipMeanTest, EveryLevelKeepsTheMeanOfLevelZero) {
    // Sizes odd and even, square and thin.
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
        ASSERT_EQ(int(chain.size()), MipGeneration::getLevelCount(level0.getResolution()) - 1);
        RgbAlpha const want = mean(level0);
        // Integer channels round once per level (half a step at worst); floats only by float rounding.
        ChannelType const type = getChannelType(level0.getFormat());
        float const step = type == ChannelType::UInt8 ? 1.f / 255.f : type == ChannelType::UInt16 ? 1.f / 65535.f : 0.f;
        for (std::size_t i = 0; i < chain.size(); ++i) {
            SCOPED_TRACE("level " + std::to_string(i + 1));
            EXPECT_EQ(chain[i].getResolution(), MipGeneration::getLevelResolution(level0.getResolution(), int(i) + 1));
            EXPECT_EQ(chain[i].getFormat(), MipGeneration::getLevelFormat(level0.getFormat()));
            expectNear(mean(chain[i]), want, 0.5f * step * float(i + 1) + 2e-5f);
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

TEST_F(OffloadTest, UnlimitedBudgetOffloadsEverythingAndZeroReadsItAllBackIntact) {
    SharedPtr<ImageTexture> const texture = load("a.png");
    Image const original = texture->getLevel(0).clone();
    expectSplit(*texture, 0, 0);
    ASSERT_TRUE(offloadAll());
    expectSplit(*texture, 7, TOTAL);
    EXPECT_EQ(fs::file_size(levelFile(*texture, 0)), 16384u + 8u) << "raw pixel bytes and their checksum";
    EXPECT_EQ(MipMapManager::getOffloadDirectory(), mStore);
    ASSERT_TRUE(budgetBytes(0));
    expectSplit(*texture, 0, 0);
    EXPECT_FALSE(fs::exists(levelFile(*texture, 0).parent_path()));
    EXPECT_TRUE(sameBytes(texture->getLevel(0), original));
}

TEST_F(OffloadTest, BudgetsBySizeAndByPercentageOffloadFinestFirstWhileTheyFit) {
    SharedPtr<ImageTexture> const texture = load("a.png");
    ASSERT_TRUE(budgetBytes(16384 + 4096 + 1000)); // room for levels 0 and 1, not 2
    expectSplit(*texture, 2, 16384 + 4096);
    for (int level = 0; level < 3; ++level) EXPECT_EQ(fs::exists(levelFile(*texture, level)), level < 2) << level;
    // Keeping the whole disk free leaves no budget: everything comes back.
    ASSERT_TRUE(MipMapManager::updateCache(true, std::nullopt, 100.f, mStore));
    EXPECT_EQ(MipMapManager::getBudget(), 0);
    EXPECT_EQ(texture->getOffloadedCount(), 0);
    // Keeping nothing free: the disk's free space is the budget.
    ASSERT_TRUE(MipMapManager::updateCache(true, std::nullopt, 0.f, mStore));
    EXPECT_GT(MipMapManager::getBudget(), TOTAL);
    EXPECT_EQ(texture->getOffloadedCount(), 7);
    // Disabled: as a budget of 0.
    ASSERT_TRUE(MipMapManager::updateCache(false, std::nullopt, std::nullopt, mStore));
    EXPECT_EQ(texture->getOffloadedCount(), 0);
}

TEST_F(OffloadTest, TheSameBudgetTwiceDoesNothing) {
    SharedPtr<ImageTexture> const a = load("a.png");
    ASSERT_TRUE(offloadAll());
    EXPECT_EQ(a->getOffloadedCount(), 7);
    SharedPtr<ImageTexture> const b = load("bb.png");
    ASSERT_TRUE(offloadAll());
    EXPECT_EQ(b->getOffloadedCount(), 0) << "an unchanged budget rebalances nothing";
    ASSERT_TRUE(budgetBytes(TOTAL * 2));
    EXPECT_EQ(b->getOffloadedCount(), 7);
}

TEST_F(OffloadTest, NeedingLevelTwoReadsBackLevelsTwoAndThreeOnly) {
    SharedPtr<ImageTexture> const texture = load("a.png");
    ASSERT_TRUE(budgetBytes(16384 + 4096 + 1024 + 256));
    ASSERT_EQ(texture->getOffloadedCount(), 4);
    MipMapManager::resetStats();
    texture->requireLevel(2);
    EXPECT_EQ(MipMapManager::getStats().levelsRead, 2);
    expectSplit(*texture, 2, 16384 + 4096);
    for (int level = 0; level < 3; ++level) EXPECT_EQ(fs::exists(levelFile(*texture, level)), level < 2) << level;
}

TEST_F(OffloadTest, ATruncatedLevelFileGivesTheEofErrorAndKeepsTheRestConsistent) {
    SharedPtr<ImageTexture> const texture = load("a.png");
    ASSERT_TRUE(offloadAll());
    fs::resize_file(levelFile(*texture, 3), 100);
    try {
        texture->requireLevel(0);
        FAIL() << "read a truncated level";
    } catch (Exception const& e) {
        EXPECT_TRUE(String(e.what()).starts_with("EOF while reading mip map data!")) << e.what();
    }
    // Levels 4 to 6 came back; 3 and finer are still on disk.
    expectSplit(*texture, 4, TOTAL - (64 + 16 + 4));
}

TEST_F(OffloadTest, AnUnusableFolderIsAnErrorAndABudgetOfZero) {
    SharedPtr<ImageTexture> const texture = load("a.png");
    ASSERT_TRUE(offloadAll());
    ASSERT_EQ(texture->getOffloadedCount(), 7);
    Io::Path const blocked = writeText("plain-file", "x") / "sub";
    auto const result = MipMapManager::updateCache(true, std::nullopt, std::nullopt, blocked);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(), "Unable to store files in the given out-of-core textures folder: " + Io::pathToUtf8(blocked));
    EXPECT_EQ(MipMapManager::getBudget(), 0);
    EXPECT_EQ(texture->getOffloadedCount(), 0) << "offloaded levels come back";
}

TEST_F(OffloadTest, ManyThreadsNeedingTheSameLevelReadItOnce) {
    SharedPtr<ImageTexture> const texture = load("a.png");
    Image const original = texture->getLevel(0).clone();
    ASSERT_TRUE(offloadAll());
    MipMapManager::resetStats();
    std::atomic<bool> go{false};
    std::atomic<int> intact{0};
    Stack<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            while (!go) std::this_thread::yield();
            texture->requireLevel(t % 2); // some need level 0, some level 1
            texture->requireLevel(0);
            intact += sameBytes(texture->getLevel(0), original);
        });
    go = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(MipMapManager::getStats().levelsRead, 7);
    EXPECT_EQ(intact, 8);
}

TEST_F(OffloadTest, TheReportSumsTheTexturesAndWritesThreeCsvSections) {
    SharedPtr<ImageTexture> const a = load("a.png");
    SharedPtr<ImageTexture> const b = load("bb.png");
    ASSERT_TRUE(budgetBytes(16384));
    String const report = MipMapManager::getStatsAndSaveReport();
    EXPECT_TRUE(report.starts_with("Loaded mip maps size: ")) << report;
    EXPECT_THAT(report, ::testing::HasSubstr("\n" + a->getName() + " 64x64 "));
    EXPECT_THAT(report, ::testing::HasSubstr(" 6/7\n")) << "one texture lost its finest level";
    Io::Path const csvPath = mStore / "textureStats.csv";
    EXPECT_THAT(report, ::testing::HasSubstr("\nAdditional texture statistics were dumped in this file:\n" + Io::pathToUtf8(csvPath)));
    std::ifstream in(csvPath);
    Stack<String> lines;
    for (String line; std::getline(in, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0], "Loaded mip maps size, Total mip maps size");
    EXPECT_EQ(lines[1], std::to_string(2 * TOTAL - 16384) + ", " + std::to_string(2 * TOTAL));
}

TEST_F(OffloadTest, ALevelFileOverwrittenWithGarbageOfTheSameSizeIsRefusedAndStaysCounted) {
    SharedPtr<ImageTexture> const texture = load("a.png");
    ASSERT_TRUE(offloadAll());
    {
        std::fstream file(levelFile(*texture, 1), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(100);
        file.put('\x7f'); // one byte of 4096 + 8
    }
    auto const readAll = [&] {
        try {
            texture->requireLevel(0);
            return String();
        } catch (Exception const& e) {
            return String(e.what());
        }
    };
    String const error = readAll();
    EXPECT_TRUE(error.starts_with("EOF while reading mip map data!")) << error;
    EXPECT_NE(error.find("Ostrel_Mip_Map_1"), String::npos) << error;
    // Levels 2 to 6 came back; 0 and 1 are still on disk and counted as such.
    expectSplit(*texture, 2, 16384 + 4096);
    // The same budget again is not silently "done": it retries and reports.
    auto const again = budgetBytes(0);
    ASSERT_FALSE(again);
    EXPECT_NE(again.error().find("Ostrel_Mip_Map_1"), String::npos) << again.error();
    EXPECT_FALSE(budgetBytes(0)) << "and again with the same budget";
    expectSplit(*texture, 2, 16384 + 4096);
}

TEST_F(OffloadTest, ALevelFileReplacedByAFifoIsRefusedWithoutBlocking) {
    SharedPtr<ImageTexture> const texture = load("a.png");
    ASSERT_TRUE(offloadAll());
    Io::Path const level = levelFile(*texture, 6); // the first one read back
    fs::remove(level);
    ASSERT_EQ(::mkfifo(level.c_str(), 0600), 0);
    auto reading = std::async(std::launch::async, [&] {
        try {
            texture->requireLevel(0);
            return String();
        } catch (Exception const& e) {
            return String(e.what());
        }
    });
    if (reading.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
        int const fd = ::open(level.c_str(), O_WRONLY | O_NONBLOCK); // let the blocked reader go
        if (fd >= 0) ::close(fd);
        FAIL() << "reading the level back blocked";
    }
    String const error = reading.get();
    EXPECT_NE(error.find("Ostrel_Mip_Map_6"), String::npos) << error;
    expectSplit(*texture, 7, TOTAL);
}

TEST_F(OffloadTest, NonFiniteOrOutOfRangeBudgetsAreRefusedAndChangeNothing) {
    SharedPtr<ImageTexture> const texture = load("a.png");
    ASSERT_TRUE(budgetBytes(16384));
    float const inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    for (auto const& [size, percent] : {std::pair<Optional<float>, Optional<float>>{nan, std::nullopt},
                                        {inf, std::nullopt}, {-1.f, std::nullopt}, {std::nullopt, nan},
                                        {std::nullopt, -inf}, {std::nullopt, 100.5f}, {1.f, nan}}) {
        auto const result = MipMapManager::updateCache(true, size, percent, mStore);
        ASSERT_FALSE(result);
        EXPECT_THAT(result.error(), ::testing::HasSubstr("must be a finite number"));
        EXPECT_EQ(MipMapManager::getBudget(), 16384);
        EXPECT_EQ(texture->getOffloadedCount(), 1);
    }
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
// gives with nothing offloaded, and nothing reads freed memory (this runs
// under the sanitizer presets too). FERRIM_LIVE_BUDGET_SECONDS sets the length.
TEST_F(OffloadTest, BudgetsChangingWhileEightThreadsSampleGiveTheSingleThreadedResults) {
    auto map = makeMap(write("live.png", randomImage({256, 256}, PixelFormat::Rgba8, 11)));
    auto const evaluator = std::dynamic_pointer_cast<TextureMap::Evaluator const>(evaluatorOf(*map));
    ASSERT_TRUE(evaluator);
    ASSERT_TRUE(evaluator->getTexture().hasPixels());
    struct Lookup {
        float u, v, du, dv;
        bool filtered;
        RgbAlpha expected;
    };
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> unit(0.f, 1.f);
    Stack<Lookup> lookups(2048);
    for (std::size_t i = 0; i < lookups.size(); ++i) {
        Lookup& l = lookups[i];
        l.u = unit(rng), l.v = unit(rng), l.du = std::exp2(-9.f * unit(rng)), l.dv = l.du * (0.5f + unit(rng));
        l.filtered = i % 8 != 0;
        l.expected = evaluator->lookupWrapped(l.u, l.v, l.du, l.dv, l.filtered, {}).value();
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
                    RgbAlpha const got = evaluator->lookupWrapped(l.u, l.v, l.du, l.dv, l.filtered, {}).value();
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

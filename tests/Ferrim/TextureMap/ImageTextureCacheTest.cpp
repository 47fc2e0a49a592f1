#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "Ferrim/TextureMap/MipGeneration.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <thread>

#include "TextureMapTestSupport.h"

using namespace Quelin;
using namespace Quelin::TextureMapTest;
namespace fs = std::filesystem;

namespace {

/// A file source that counts how often its bytes are opened, i.e. decodes.
class CountingFileSource final : public FileDataSource {
  public:
    CountingFileSource(Io::Path const& path, std::atomic<int>& opens) : mOpens(opens) { set("path", Io::pathToUtf8(path)); }
    Expected<std::unique_ptr<Io::InputStream>> openStream() const override {
        ++mOpens;
        return FileDataSource::openStream();
    }
    std::atomic<int>& mOpens;
};

String readBytes(Io::Path const& path) {
    std::ifstream in(path, std::ios::binary);
    return String(std::istreambuf_iterator<char>(in), {});
}

class ImageTextureCacheTest : public TextureMapFixture {
  protected:
    void TearDown() override {
        ImageTextureCache::resume();
        TextureMapFixture::TearDown();
    }

    /// A solid-colour 8-bit RGBA PNG.
    Io::Path writePng(String const& name, Pixel size, int value) {
        float const v = float(value) / 255.f;
        return write(name, imageOf(size.x, size.y, PixelFormat::Rgba8, [v](int, int) { return RgbAlpha(v, v, v, 1.f); }));
    }
    EntityHolder<IDataSource const> countingSource(Io::Path const& path) {
        return EntityHolder<IDataSource const>(makeSharedPtr<CountingFileSource>(path, mOpens));
    }
    static bool waitUntil(Function<bool()> const& condition) {
        for (int i = 0; i < 2000 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return condition();
    }

    std::atomic<int> mOpens{0};
};

TEST_F(ImageTextureCacheTest, TwoRequestsBeforeTheLoadShareOneDecodeAndEachCallbackRunsOnce) {
    Io::Path const path = writePng("a.png", {8, 8}, 10);
    ImageTextureCache::suspend();
    int first = 0, second = 0;
    auto a = ImageTextureCache::getOrCreate(countingSource(path), [&](ImageTexture const&) { ++first; });
    // Another source entity for the same file joins the queued record.
    auto b = ImageTextureCache::getOrCreate(countingSource(path), [&](ImageTexture const&) { ++second; });
    EXPECT_FALSE(a.isReady());
    ImageTextureCache::resume();
    EXPECT_EQ(a.getImageTexture(), b.getImageTexture());
    EXPECT_EQ(mOpens, 1);
    EXPECT_EQ(std::pair(first, second), std::pair(1, 1));
    // A request for a ready texture calls back at once, on this thread.
    std::thread::id caller;
    ImageTextureCache::getOrCreate(countingSource(path), [&](ImageTexture const&) { caller = std::this_thread::get_id(); });
    EXPECT_EQ(caller, std::this_thread::get_id());
    EXPECT_EQ(mOpens, 1);
}

TEST_F(ImageTextureCacheTest, SuspendedLoaderDecodesNothingButCallersStillBuildTheirOwn) {
    ImageTextureCache::suspend();
    std::thread::id builder;
    auto future = ImageTextureCache::getOrCreate(countingSource(writePng("a.png", {4, 4}, 10)),
                                                 [&](ImageTexture const&) { builder = std::this_thread::get_id(); });
    // A negative check: give a wrongly running loader ample time to take the request.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(mOpens, 0);
    EXPECT_FALSE(future.isReady());
    EXPECT_TRUE(future.getImageTexture()->hasPixels());
    EXPECT_EQ(builder, std::this_thread::get_id());
    EXPECT_EQ(mOpens, 1);
    ImageTextureCache::resume();
    // The loader skips the ready record and decodes the next one queued.
    auto second = ImageTextureCache::getOrCreate(countingSource(writePng("b.png", {4, 4}, 20)), {});
    ASSERT_TRUE(waitUntil([&] { return second.isReady(); }));
    EXPECT_EQ(mOpens, 2);
}

TEST_F(ImageTextureCacheTest, AChangedFileDecodesAgainWhileOldReferencesKeepTheirPixels) {
    Io::Path const path = writePng("a.png", {4, 4}, 10);
    SharedPtr<ImageTexture> const before = ImageTextureCache::getOrCreate(countingSource(path));
    EXPECT_EQ(ImageTextureCache::getOrCreate(countingSource(path)), before) << "unchanged file";
    // Rewritten within one tick of the file clock (old stamp restored): the size tells it apart.
    auto const stamp = fs::last_write_time(path);
    writePng("a.png", {16, 16}, 200);
    fs::last_write_time(path, stamp);
    SharedPtr<ImageTexture> const after = ImageTextureCache::getOrCreate(countingSource(path));
    ASSERT_NE(after, before);
    EXPECT_EQ(mOpens, 2);
    EXPECT_EQ(after->getDescriptor().resolution, (Pixel{16, 16}));
    EXPECT_EQ(before->getLevel(0).getPixel<PixelRgba8>(3, 3).r, 10);
    // Same size, new time stamp: also a change.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    writePng("a.png", {16, 16}, 100);
    SharedPtr<ImageTexture> const third = ImageTextureCache::getOrCreate(countingSource(path));
    EXPECT_NE(third, after);
    EXPECT_EQ(third->getLevel(0).getPixel<PixelRgba8>(0, 0).r, 100);
}

TEST_F(ImageTextureCacheTest, MemorySourcesNeverGoStaleAndEachIsItsOwnTexture) {
    String const bytes = readBytes(writePng("a.png", {4, 4}, 10));
    auto const source = MemoryDataSource::make(bytes, "image/png");
    SharedPtr<ImageTexture> const first = ImageTextureCache::getOrCreate(source);
    ASSERT_TRUE(first->hasPixels()) << first->getError();
    EXPECT_EQ(ImageTextureCache::getOrCreate(source), first);
    EXPECT_NE(ImageTextureCache::getOrCreate(MemoryDataSource::make(bytes, "image/png")), first);
}

TEST_F(ImageTextureCacheTest, AThrowingCallbackLeavesReadyUnsetAndTheOthersStillRun) {
    Io::Path const path = writePng("a.png", {4, 4}, 10);
    ImageTextureCache::suspend();
    Stack<int> calls;
    auto future = ImageTextureCache::getOrCreate(countingSource(path), [&](ImageTexture const&) {
        calls.push_back(1);
        throw Exception("callback failed");
    });
    ImageTextureCache::getOrCreate(countingSource(path), [&](ImageTexture const&) { calls.push_back(2); });
    EXPECT_THROW(future.getImageTexture(), Exception);
    EXPECT_FALSE(future.isReady());
    // The next request finishes the record without decoding or calling anyone again.
    EXPECT_TRUE(future.getImageTexture()->hasPixels());
    EXPECT_TRUE(future.isReady());
    EXPECT_EQ(calls, (Stack<int>{1, 2}));
    EXPECT_EQ(mOpens, 1);
}

TEST_F(ImageTextureCacheTest, MemoryUsageFollowsLoadsAndReleases) {
    EXPECT_EQ(ImageTextureCache::getMemoryUsage(), 0);
    SharedPtr<ImageTexture> texture = ImageTextureCache::getOrCreate(countingSource(writePng("a.png", {64, 32}, 10)));
    // 64 x 32 RGBA 8-bit and its chain: 8192 + 2048 + 512 + 128 + 32 + 8 + 4.
    EXPECT_EQ(ImageTextureCache::getMemoryUsage(), 10924);
    texture.reset();
    // The loader may still hold the request it popped while this thread built it; it lets go when done.
    EXPECT_TRUE(waitUntil([] { return ImageTextureCache::getMemoryUsage() == 0; })) << "the index keeps no texture alive";
}

TEST_F(ImageTextureCacheTest, AFileWithItsOwnMipChainKeepsItsLevels) {
    // Each level of this file has its own colour: a filtered level would be a blend of level 0's.
    Io::Path const path = Io::Path(FERRIM_TESTDATA_DIR) / "exr" / "ColorCodedLevels.exr";
    auto const texture = ImageTextureCache::getOrCreate(FileDataSource::make(path));
    ASSERT_EQ(texture->getLevelCount(), 10);
    // Tiled with its whole chain: read on demand, no level decoded.
    ASSERT_NE(texture->getTiledFile(), nullptr);
    EXPECT_EQ(texture->getTotalSize(), texture->getTiledFile()->getTotalBytes());
    // One tile held: the coarsest level's, read to check the file when it loaded.
    EXPECT_EQ(texture->getMemoryUsage(), texture->getTiledFile()->getTileBytes());
    // Decoded whole (a memory source), the file's own levels are kept as well.
    auto const whole = ImageTextureCache::getOrCreate(MemoryDataSource::make(readBytes(path), "image/x-exr"));
    ASSERT_EQ(whole->getLevelCount(), 10);
    Image const filtered = MipGeneration::downsample(whole->getLevel(0), TaskScheduler::getDefault());
    Rgb const difference = whole->getLevel(1).getRgbAlpha(128, 128).rgb() - filtered.getRgbAlpha(128, 128).rgb();
    EXPECT_GT(std::abs(difference.r) + std::abs(difference.g) + std::abs(difference.b), 0.1f);
}

TEST_F(ImageTextureCacheTest, TileMemoryCapKeepsTheLastValidCapAndTilesAreReported) {
    // The other refused values: FerrimTool.TiledTexturesRenderUnderAMemoryCapAndTileErrorsAreReported.
    ASSERT_TRUE(ImageTextureCache::setTileMemoryCap(0.5));
    ASSERT_FALSE(ImageTextureCache::setTileMemoryCap(std::nan("")));
    EXPECT_EQ(ImageTextureCache::getTileMemoryCap(), 0.5);
    EXPECT_EQ(ImageTextureCache::getTileCache().getCapacity(), 1 << 19);
    ASSERT_TRUE(ImageTextureCache::setTileMemoryCap(ImageTextureCache::DEFAULT_TILE_MEMORY_MIB));

    // A tiled texture's tiles show in the report, and leave the cache with the texture.
    auto texture = ImageTextureCache::getOrCreate(FileDataSource::make(Io::Path(FERRIM_TESTDATA_DIR) / "exr" / "ColorCodedLevels.exr"));
    ASSERT_NE(texture->getTiledFile(), nullptr);
    EXPECT_GT(texture->getMemoryUsage(), 0);  // the coarsest tile, read when it loaded
    String const report = MipMapManager::getStatsAndSaveReport();
    EXPECT_THAT(report, ::testing::HasSubstr("Tiles read on demand: "));
    EXPECT_THAT(report, ::testing::HasSubstr("\n" + texture->getName() + " 0 1 "));
    std::int64_t const held = ImageTextureCache::getTileCache().getMemoryUsage();
    texture.reset();
    EXPECT_TRUE(waitUntil([&] { return ImageTextureCache::getTileCache().getMemoryUsage() < held; }));
}

TEST_F(ImageTextureCacheTest, SourcesThatCannotLoadGiveTheirErrorText) {
    auto const errorOf = [](auto const& source) { return ImageTextureCache::getOrCreate(source)->getError(); };
    EXPECT_EQ(errorOf(EntityHolder<IDataSource const>()), "No texture source specified");
    Io::Path const noExtension = writeText("image", "whatever");
    EXPECT_EQ(errorOf(FileDataSource::make(noExtension)), "Texture source's content type not specified");
    EXPECT_THAT(errorOf(FileDataSource::make(noExtension, "image/x-unknown")), ::testing::HasSubstr(Io::pathToUtf8(noExtension)));
    auto const missing = ImageTextureCache::getOrCreate(FileDataSource::make(mFolder / "missing.png"));
    EXPECT_FALSE(missing->hasPixels());
    EXPECT_THAT(missing->getError(), ::testing::HasSubstr("missing.png"));
    EXPECT_EQ(missing->getName(), Io::pathToUtf8(mFolder / "missing.png"));
}

TEST(ImageTextureCacheHookTest, TheCacheStartsAfterTheObsoleteOperatorsWhateverTheInitialisationOrder) {
    Stack<String> names;
    for (auto const& hook : Ferrim::getHooks()) names.emplace_back(hook.name);
    auto const cache = std::find(names.begin(), names.end(), "Image Texture cache");
    ASSERT_NE(cache, names.end());
    EXPECT_LT(std::find(names.begin(), names.end(), "Register obsolete operators"), cache);
    EXPECT_FALSE(ImageTextureCache::isStarted());
    Ferrim::startup();
    EXPECT_TRUE(ImageTextureCache::isStarted());
    Ferrim::shutdown();
    EXPECT_FALSE(ImageTextureCache::isStarted());
}

// ------------------------------------------------------------ damaged files

/// Each damaged file must leave a one-line printable error naming the file (or,
/// for a flip the format cannot notice, a whole image) and never crash.
void expectRefusedCleanly(Io::Path const& path, bool mayDecode) {
    SCOPED_TRACE(Io::pathToUtf8(path));
    SharedPtr<ImageTexture> const texture = ImageTextureCache::getOrCreate(FileDataSource::make(path));
    if (texture->hasPixels()) {
        EXPECT_TRUE(mayDecode) << "decoded a damaged file";
        EXPECT_FALSE(texture->getDescriptor().isEmpty());
        return;
    }
    String const& error = texture->getError();
    EXPECT_TRUE(std::all_of(error.begin(), error.end(), [](char c) { return c >= 0x20 && c < 0x7F; })) << error;
    EXPECT_NE(error.find(path.filename().string()), String::npos) << error;
    EXPECT_EQ(texture->getLevelCount(), 0);
}

TEST_F(ImageTextureCacheTest, EveryFileOfTheDamagedCollectionIsRefused) {
    int files = 0;
    for (auto const& entry : fs::directory_iterator(Io::Path(FERRIM_TESTDATA_DIR) / "exr-damaged"))
        if (entry.path().extension() == ".exr") expectRefusedCleanly(entry.path(), false), ++files;
    EXPECT_GE(files, 10);
}

TEST_F(ImageTextureCacheTest, TruncatedAndBitFlippedCopiesAreRefused) {
    Io::Path const data(FERRIM_TESTDATA_DIR);
    for (Io::Path const& original : {data / "exr" / "Desk.exr", data / "exr" / "ColorCodedLevels.exr", data / "png" / "basn6a16.png",
                                     data / "png" / "ibasn2c08.png"}) {
        String const stem = original.stem().string(), extension = original.extension().string(), bytes = readBytes(original);
        for (double keep : {0.0, 0.01, 0.3, 0.9})
            expectRefusedCleanly(writeText(stem + "_cut" + std::to_string(int(keep * 100)) + extension,
                                           bytes.substr(0, std::size_t(double(bytes.size()) * keep))),
                                 false);
        // Flips in the header and throughout the data; checksums (PNG) or the
        // decompressor (EXR) catch most, a flip in raw samples is undetectable.
        for (std::size_t step : {7u, 61u, 997u}) {
            String flipped = bytes;
            for (std::size_t i = 20; i < flipped.size(); i += step) flipped[i] = char(flipped[i] ^ 0x5A);
            expectRefusedCleanly(writeText(stem + "_flip" + std::to_string(step) + extension, flipped), true);
        }
    }
}

} // namespace

#pragma once
// Texture-map tests: images written to a temp folder and maps built on them.
#include <gtest/gtest.h>

#include <random>

#include "Ferrim/Ferrim.h"
#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/TextureMap/MipGeneration.h"
#include "Ferrim/TextureMap/TextureMap.h"
#include "QuelinLibImage/ImageLevelsWrite.h"
#include "QuelinLib/DataSource.h"
#include "TestSupport/TempFolderTest.h"

namespace Quelin::TextureMapTest {

using Testing::SettableShadeContext;

/// An image of `format` whose texel (x, row) is f(x, row) (rows from the top).
template <typename F> Image imageOf(int w, int h, PixelFormat format, F f) {
    Image image(Image::Descriptor(Pixel(w, h), format));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) image.setRgbAlpha(x, y, f(x, y));
    return image;
}

/// Float texels that hold their own column and row: a lookup says which texel it read.
inline Image coordinateImage(int w, int h) {
    return imageOf(w, h, PixelFormat::RgbaFloat, [](int x, int y) { return RgbAlpha(float(x), float(y), 0.f, 1.f); });
}

PixelFormat const ALL_FORMATS[] = {PixelFormat::Mono8,       PixelFormat::Mono16,      PixelFormat::MonoFloat,
                                   PixelFormat::MonoAlpha8,  PixelFormat::MonoAlpha16, PixelFormat::MonoAlphaFloat,
                                   PixelFormat::Rgb8,        PixelFormat::Rgb16,       PixelFormat::RgbFloat,
                                   PixelFormat::Rgba8,       PixelFormat::Rgba16,      PixelFormat::RgbaFloat,
                                   PixelFormat::Rgbe,        PixelFormat::MonoWithExp};

/// Noise bytes: every texel differs, so a misplaced or stale level shows.
inline Image randomImage(Pixel size, PixelFormat format, std::uint32_t seed) {
    Image image(Image::Descriptor(size, format));
    std::mt19937 rng(seed);
    for (auto& byte : std::span(image.getData(), std::size_t(image.getByteSize()))) byte = std::byte(rng());
    return image;
}

inline bool sameBytes(Image const& a, Image const& b) {
    return a.getByteSize() == b.getByteSize() && std::memcmp(a.getData(), b.getData(), std::size_t(a.getByteSize())) == 0;
}

inline void expectNear(RgbAlpha const& actual, RgbAlpha const& expected, float tolerance) {
    Testing::expectNear(actual.rgb(), expected.rgb(), tolerance);
    EXPECT_NEAR(actual.alpha, expected.alpha, tolerance) << "alpha";
}

/// The library started, and a temp folder for the test's images.
class TextureMapFixture : public Testing::LibraryTempFolderTest {
protected:

    /// Written losslessly: EXR keeps float channels, PNG 8 and 16 bits.
    Io::Path write(String const& name, Image const& image) {
        Io::Path const path = mFolder / name;
        ImageWriteOptions options;
        if (name.ends_with(".exr")) options.channelType = FileChannelType::Float;
        auto r = writeImage(image, path, options);
        EXPECT_TRUE(r.has_value()) << (r ? String() : r.error());
        return path;
    }

    static SharedPtr<TextureMap> makeMap(Io::Path const& path) {
        auto map = makeSharedPtr<TextureMap>();
        map->set("imageSource", EntityHolder<Entity>(FileDataSource::make(path)));
        return map;
    }
    /// The map's own mapper, given one first when it has none (a new map has none).
    static UvMapper& mapperOf(TextureMap& map) {
        if (!map.get<EntityHolder<UvMapper>>("uvMapper"))
            map.set("uvMapper", EntityHolder<Entity>(makeSharedPtr<UvMapper>()));
        return *map.get<EntityHolder<UvMapper>>("uvMapper");
    }
    static void setEnviro(TextureMap& map, StringView property, PropertyValue value) {
        GenericDataObject group = map.get<GenericDataObject>("enviroMode");
        ASSERT_TRUE(group.setValue(property, std::move(value)).has_value());
        map.set("enviroMode", group);
    }
    static SharedPtr<IMapEvaluator> evaluatorOf(TextureMap const& map) { return map.getEvaluatorImpl().evaluator; }
};

/// Writes `level0` with its mip chain as a tiled file of 16-pixel tiles.
inline void writeTiledChain(Image const& level0, Io::Path const& path, FileChannelType type) {
    Stack<Image> levels;
    levels.push_back(level0.clone());
    for (Image& level : MipGeneration::buildMipChain(level0)) levels.push_back(std::move(level));
    ImageWriteOptions options;
    options.channelType = type;
    auto const written = writeImageLevels(levels, path, options, 16);
    EXPECT_TRUE(written) << (written ? String() : written.error());
}

} // namespace Quelin::TextureMapTest

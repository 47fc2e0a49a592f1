#pragma once
// Texture-map tests: images written to a temp folder, maps built on them, and
// a shading point whose every answer the test sets.
#include <gtest/gtest.h>

#include "Ferrim/Ferrim.h"
#include "Ferrim/TextureMap/TextureMap.h"
#include "QuelinLib/DataSource.h"
#include "TestSupport/TempFolderTest.h"

namespace Quelin::TextureMapTest {

/// A shading point: UVW, footprint, filtering, kind, ray and image answers.
class PointContext : public NullShadeContext {
public:
    Pos uvw{0.5f, 0.5f, 0.f};
    Dir dUvw{0.f, 0.f, 0.f};
    bool filtered = false;
    ShadedKind kind = ShadedKind::Surface;
    Dir view{0.f, 0.f, -1.f};
    PrecisePos position;
    float footprint = 0.f;
    Matrix33 bumpBase = Matrix33::fromColumns(Dir(1, 0, 0), Dir(0, 1, 0), Dir(0, 0, 1));
    Vector2 screen{0.5f, 0.5f};            ///< what unprojectPoint answers
    mutable Optional<PrecisePos> unprojected;  ///< what it was asked

    PointContext() = default;
    PointContext(float u, float v) : uvw(u, v, 0.f) {}
    /// An environment ray along `direction`.
    static PointContext ray(Dir const& direction) {
        PointContext c;
        c.kind = ShadedKind::Environment;
        c.view = direction;
        return c;
    }

    Pos getUvw(int, std::uint32_t = 0) const override { return uvw; }
    Dir getDUvw(int) const override { return dUvw; }
    bool wantsFilteredLookup() const override { return filtered; }
    ShadedKind getShadedKind() const override { return kind; }
    Dir getViewDirection() const override { return view; }
    PrecisePos getPosition() const override { return position; }
    float getPositionFootprint() const override { return footprint; }
    Matrix33 getBumpBase(int) const override { return bumpBase; }
    Vector2 unprojectPoint(Optional<PrecisePos> const& p, UnprojectPoint) const override {
        unprojected = p;
        return screen;
    }
};

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

/// The library started, and a temp folder for the test's images.
class TextureMapFixture : public Testing::TempFolderTest {
protected:
    void SetUp() override {
        TempFolderTest::SetUp();
        Ferrim::startup();
    }
    void TearDown() override {
        Ferrim::shutdown();
        TempFolderTest::TearDown();
    }

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
    static UvMapper& mapperOf(TextureMap& map) { return *map.get<EntityHolder<UvMapper>>("uvMapper"); }
    static void setEnviro(TextureMap& map, StringView property, PropertyValue value) {
        GenericDataObject group = map.get<GenericDataObject>("enviroMode");
        ASSERT_TRUE(group.setValue(property, std::move(value)).has_value());
        map.set("enviroMode", group);
    }
    static SharedPtr<IMapEvaluator> evaluatorOf(TextureMap const& map) { return map.getEvaluatorImpl().evaluator; }
};

} // namespace Quelin::TextureMapTest

#pragma once
// Helpers shared by the shading library's tests.
#include <gtest/gtest.h>

#include "Ferrim/Ferrim.h"
#include "Ferrim/IShadeContext.h"
#include "QuelinLib/Exception.h"
#include "TestSupport/TempFolderTest.h"

namespace Quelin::Testing {

/// Runs `f` and expects the stop exception with the given source position.
template <typename F> void expectStop(F&& f, StringView source, int line) {
    try {
        f();
        ADD_FAILURE() << "no stop, expected " << source << ":" << line;
    } catch (StopException const& e) {
        EXPECT_EQ(e.getSourceFile(), source);
        EXPECT_EQ(e.getLine(), line);
    }
}

/// Element by element, for the three-element value types (Rgb, Pos, Dir).
template <typename V> void expectNear(V const& actual, V const& expected, float tolerance) {
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(actual[i], expected[i], tolerance) << "element " << i;
}

/// A shading point whose every answer a test sets. The defaults are a surface
/// point at the centre of the UV square, seen head on, with a unit bump frame.
class SettableShadeContext : public NullShadeContext {
public:
    Pos uvw{0.5f, 0.5f, 0.f};
    Dir dUvw{0.f, 0.f, 0.f};
    Dir normal{0.f, 0.f, 1.f};
    Matrix33 bumpBase = Matrix33::fromColumns(Dir(1, 0, 0), Dir(0, 1, 0), Dir(0, 0, 1));
    bool filtered = false;
    ShadedKind kind = ShadedKind::Surface;
    Dir view{0.f, 0.f, -1.f};
    PrecisePos position;
    Pos objectPosition;
    float footprint = 0.f;
    Vector2 screen{0.5f, 0.5f};                ///< what unprojectPoint answers
    mutable Optional<PrecisePos> unprojected;  ///< what it was asked

    SettableShadeContext() = default;
    explicit SettableShadeContext(Pos const& p) : uvw(p) {}
    SettableShadeContext(float u, float v, float w = 0.f) : uvw(u, v, w) {}
    /// An environment ray along `direction`.
    static SettableShadeContext ray(Dir const& direction) {
        SettableShadeContext c;
        c.kind = ShadedKind::Environment;
        c.view = direction;
        return c;
    }

    Pos getUvw(int, std::uint32_t = 0) const override { return uvw; }
    Dir getDUvw(int) const override { return dUvw; }
    Dir getNormal() const override { return normal; }
    Matrix33 getBumpBase(int) const override { return bumpBase; }
    bool wantsFilteredLookup() const override { return filtered; }
    ShadedKind getShadedKind() const override { return kind; }
    Dir getViewDirection() const override { return view; }
    PrecisePos getPosition() const override { return position; }
    Pos getObjectPosition() const override { return objectPosition; }
    float getPositionFootprint() const override { return footprint; }
    Vector2 unprojectPoint(Optional<PrecisePos> const& p, UnprojectPoint) const override {
        unprojected = p;
        return screen;
    }
};

/// Starts the library for tests that create or load entities.
class LibraryFixture : public ::testing::Test {
protected:
    void SetUp() override { Ferrim::startup(); }
    void TearDown() override { Ferrim::shutdown(); }
};

/// The library started, and a temp folder for the test's files.
class LibraryTempFolderTest : public TempFolderTest {
protected:
    void SetUp() override {
        TempFolderTest::SetUp();
        Ferrim::startup();
    }
    void TearDown() override {
        Ferrim::shutdown();
        TempFolderTest::TearDown();
    }
};

} // namespace Quelin::Testing

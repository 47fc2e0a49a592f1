#pragma once
// Helpers shared by the shading library's tests.
#include <gtest/gtest.h>

#include "Ferrim/Ferrim.h"
#include "QuelinLib/Exception.h"

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

/// Starts the library for tests that create or load entities.
class LibraryFixture : public ::testing::Test {
protected:
    void SetUp() override { Ferrim::startup(); }
    void TearDown() override { Ferrim::shutdown(); }
};

} // namespace Quelin::Testing

#include "QuelinLib/Exception.h"
#include <gtest/gtest.h>

using namespace Quelin;

TEST(ExceptionTest, StopCarriesModuleAndLineAndIsALibraryException) {
    try {
        Detail::throwStopException("maps/CellularMap", 123);
        FAIL() << "no exception";
    } catch (Exception const& base) {
        EXPECT_NE(dynamic_cast<StopException const*>(&base), nullptr); // its fields: every expectStop
        String const text = base.what();
        EXPECT_NE(text.find("maps/CellularMap"), String::npos) << text;
        EXPECT_NE(text.find("123"), String::npos) << text;
    }
}

TEST(ExceptionTest, ExceptionToStringGivesTheText) {
    auto textOf = [](auto&& thrower) {
        try {
            thrower();
        } catch (...) {
            return exceptionToString(std::current_exception());
        }
        return String("nothing thrown");
    };
    EXPECT_EQ(textOf([] { throw Exception("Texture source's content type not specified"); }),
              "Texture source's content type not specified");
    EXPECT_EQ(textOf([] { throw std::out_of_range("index 7"); }), "index 7");
    String const unknown = textOf([] { throw 42; });
    EXPECT_FALSE(unknown.empty());
    EXPECT_NE(unknown, "nothing thrown");
    EXPECT_FALSE(exceptionToString(nullptr).empty());
}

#pragma once
// A fixture that gives each test its own empty folder under the temporary
// folder, removed afterwards.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "QuelinLib/Io.h"

namespace Quelin::Testing {

class TempFolderTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto made = Io::createRandomNamedFile(Io::StandardPaths::temporary(), "ferrim_test_");
        ASSERT_TRUE(made) << made.error();
        // The random file reserves a unique name; the folder sits beside it.
        mReserved = *made;
        mFolder = mReserved;
        mFolder += ".d";
        ASSERT_TRUE(Io::createDirs(mFolder));
    }
    void TearDown() override {
        std::error_code ec;
        std::filesystem::remove_all(mFolder, ec);
        std::filesystem::remove(mReserved, ec);
    }

    Io::Path writeText(String const& name, String const& text) const {
        Io::Path const path = mFolder / name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

    Io::Path mReserved;
    Io::Path mFolder;
};

} // namespace Quelin::Testing

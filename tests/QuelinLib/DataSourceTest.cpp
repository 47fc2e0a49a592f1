#include "QuelinLib/DataSource.h"
#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "TestSupport/TempFolderTest.h"

using namespace Quelin;
namespace fs = std::filesystem;

namespace {

class DataSourceTest : public Testing::TempFolderTest {};

TEST_F(DataSourceTest, FileIdentityFollowsTheFileNotThePath) {
    Io::Path const path = writeText("a.png", "bytes");
    fs::create_hard_link(path, mFolder / "other-name.png");
    Io::Path const roundabout = mFolder / "." / "a.png";
    Io::FileId const id = FileDataSource::make(path)->getFileId();
    EXPECT_EQ(FileDataSource::make(roundabout)->getFileId(), id);
    EXPECT_EQ(FileDataSource::make(roundabout)->getFileId().getHash(), id.getHash());
    EXPECT_EQ(FileDataSource::make(mFolder / "other-name.png")->getFileId(), id);
    EXPECT_NE(FileDataSource::make(writeText("b.png", "bytes"))->getFileId(), id);
    // Missing files: one identity per path, none shared with real files.
    auto const missing = FileDataSource::make(mFolder / "missing.png");
    EXPECT_EQ(missing->getFileId(), FileDataSource::make(mFolder / "missing.png")->getFileId());
    EXPECT_NE(missing->getFileId(), id);
    EXPECT_FALSE(missing->getTimeStamp());
}

TEST_F(DataSourceTest, TimeStampsFollowTimeAndSizeAndMemoryHasNone) {
    Io::Path const path = writeText("a.png", "12345");
    auto const source = FileDataSource::make(path);
    auto const before = source->getTimeStamp();
    ASSERT_TRUE(before);
    EXPECT_EQ(before->size, 5);
    auto const time = fs::last_write_time(path);
    writeText("a.png", "123456");
    fs::last_write_time(path, time);
    EXPECT_NE(source->getTimeStamp(), before) << "same time, other size";
    fs::last_write_time(path, time + std::chrono::seconds(5));
    EXPECT_GT(source->getTimeStamp()->ticks, before->ticks);
    EXPECT_FALSE(MemoryDataSource::make("x", "png")->getTimeStamp());
}

TEST(MemoryDataSourceTest, OpenStreamsOutliveChangesOfTheDataAndBinaryDataSurvivesJsonAsBase64) {
    auto const source = MemoryDataSource::make(String("\x00\x01\x02", 3), "image/png");
    auto stream = source->openStream();
    ASSERT_TRUE(stream);
    source->set("data", String("replaced"));
    char read[3];
    ASSERT_TRUE((*stream)->read(read, 3));
    EXPECT_EQ(String(read, 3), String("\x00\x01\x02", 3)) << "an open stream keeps the bytes it started with";
    auto fresh = source->openStream();
    EXPECT_EQ((**fresh).getSize().value(), 8);
    for (String const& bytes : {String(), String("\xff", 1), String("\x89PNG\r\n\x1a\n\x00", 9), String(1000, '\x7f')}) {
        String const text = MemoryDataSource::make(bytes, "image/png")->saveInternalData().dump(); // would throw on raw binary
        auto const loaded = makeSharedPtr<MemoryDataSource>();
        ASSERT_TRUE(loaded->loadInternalData(nlohmann::json::parse(text)));
        EXPECT_EQ(loaded->get<String>("data"), bytes);
        EXPECT_EQ(loaded->getContentType(), "image/png");
    }
    auto const loaded = makeSharedPtr<MemoryDataSource>();
    auto const bad = loaded->loadInternalData(nlohmann::json{{"data", "not*base64"}, {"contentType", "png"}});
    ASSERT_FALSE(bad);
    EXPECT_NE(bad.error().find("base64"), String::npos);
}

} // namespace

#include "QuelinLib/Io.h"
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <numeric>
#include <sys/stat.h>

#include "TestSupport/ScopedEnv.h"
#include "TestSupport/TempFolderTest.h"

using namespace Quelin;
namespace fs = std::filesystem;

namespace {

class IoTest : public Quelin::Testing::TempFolderTest {
  protected:
    Io::Path writeBytes(String const& name, Stack<std::uint8_t> const& bytes) {
        Io::Path const path = mFolder / name;
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<char const*>(bytes.data()), std::streamsize(bytes.size()));
        return path;
    }

    /// A folder nobody can write in, even root: it would have to live under a regular file.
    Io::Path unwritableFolder() {
        Io::Path const blocker = writeBytes("blocker", {1, 2, 3});
        return blocker / "sub";
    }

    template <typename T> static void expectNames(Expected<T> const& result, Io::Path const& path) {
        ASSERT_FALSE(result);
        EXPECT_NE(result.error().find(Io::pathToUtf8(path)), String::npos) << result.error();
    }
};

} // namespace

TEST_F(IoTest, BinaryValuesRoundTripLittleEndian) {
    Io::Path const path = mFolder / "values.bin";
    {
        auto out = Io::FileOutputStream::open(path);
        ASSERT_TRUE(out) << out.error();
        Io::BinaryOutputStream binary(**out);
        ASSERT_TRUE(binary.write(std::uint32_t(0x11223344)));
        ASSERT_TRUE(binary.write(1.5f));
        ASSERT_TRUE(binary.writeHalf(0.5f));
        ASSERT_TRUE(binary.write(std::int64_t(-1234567890123)));
        EXPECT_EQ((*out)->tell(), 4 + 4 + 2 + 8);
        ASSERT_TRUE((*out)->close());
    }
    std::ifstream raw(path, std::ios::binary);
    char head[4];
    raw.read(head, 4);
    EXPECT_EQ(String(head, 4), "\x44\x33\x22\x11");

    auto in = Io::FileInputStream::open(path);
    ASSERT_TRUE(in) << in.error();
    Io::BinaryInputStream binary(**in);
    EXPECT_EQ(*binary.read<std::uint32_t>(), 0x11223344u);
    EXPECT_EQ(*binary.read<float>(), 1.5f);
    EXPECT_EQ(*binary.readHalf(), 0.5f);
    EXPECT_EQ(*binary.read<std::int64_t>(), -1234567890123);
    EXPECT_FALSE(binary.read<std::uint8_t>()) << "read past the end";
}

TEST_F(IoTest, RelativeSeeksMoveFromTheCurrentPosition) {
    Stack<std::uint8_t> bytes(256);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t(0));
    auto in = Io::FileInputStream::open(writeBytes("ramp.bin", bytes));
    ASSERT_TRUE(in);
    auto& stream = **in;
    auto next = [&] {
        std::uint8_t b = 0;
        EXPECT_TRUE(stream.read(&b, 1));
        return int(b);
    };
    ASSERT_TRUE(stream.skip(100));
    EXPECT_EQ(next(), 100);
    ASSERT_TRUE(stream.skip(-51));
    EXPECT_EQ(next(), 50);
    ASSERT_TRUE(stream.seek(-1, Io::SeekOrigin::End));
    EXPECT_EQ(next(), 255);
    EXPECT_EQ(stream.tell(), 256);
    // Beyond either end is refused and leaves the position alone.
    EXPECT_FALSE(stream.skip(1));
    EXPECT_FALSE(stream.seek(-1, Io::SeekOrigin::Begin));
    EXPECT_EQ(stream.tell(), 256);
}

TEST_F(IoTest, ShortReadIsAnErrorNamingTheFileAndTheStreamStaysUsable) {
    Io::Path const path = writeBytes("truncated.dat", {1, 2, 3, 4, 5, 6});
    auto in = Io::FileInputStream::open(path);
    ASSERT_TRUE(in);
    Io::BinaryInputStream binary(**in);
    ASSERT_TRUE(binary.skip(2));
    auto const value = binary.read<double>();
    ASSERT_NO_FATAL_FAILURE(expectNames(value, path));
    EXPECT_NE(value.error().find("offset 2"), String::npos) << value.error();
    ASSERT_TRUE(binary.getStream().seek(0, Io::SeekOrigin::Begin));
    EXPECT_EQ(binary.read<std::uint16_t>().value(), 0x0201);
}

TEST(IoMemoryTest, MemoryStreamReadsHalvesAndRefusesShortReads) {
    std::uint8_t const data[] = {0x00, 0x3C, 0x00, 0xC0, 0x00, 0x7C, 0x01, 0x00, 0xFF};
    Io::MemoryInputStream stream(data, sizeof data, "texture bytes");
    Io::BinaryInputStream binary(stream);
    float values[4];
    ASSERT_TRUE(binary.readHalves(values, 4));
    EXPECT_EQ(values[0], 1.f);
    EXPECT_EQ(values[1], -2.f);
    EXPECT_TRUE(std::isinf(values[2]));
    EXPECT_EQ(values[3], std::ldexp(1.f, -24));
    auto const more = binary.read<std::uint32_t>();
    ASSERT_FALSE(more);
    EXPECT_NE(more.error().find("texture bytes"), String::npos);
    ASSERT_TRUE(stream.seek(0, Io::SeekOrigin::Begin));
    EXPECT_EQ(stream.readAll().value().size(), 9u);
}

TEST_F(IoTest, MissingFilesAndUnwritableFoldersAreRefusedByName) {
    Io::Path const missing = mFolder / "missing.png";
    expectNames(Io::FileInputStream::open(missing), missing);
    expectNames(Io::removeFile(missing), missing);
    expectNames(Io::FileId::fromPath(missing), missing);
    Io::Path const folder = unwritableFolder();
    expectNames(Io::createDirs(folder), folder);
    expectNames(Io::createRandomNamedFile(folder), folder);
    expectNames(Io::FileOutputStream::open(folder / "level0"), folder / "level0");
    // A regular file where a folder is asked for is not a folder.
    expectNames(Io::createDirs(mFolder / "blocker"), mFolder / "blocker");
}

TEST_F(IoTest, OnlyRegularFilesOpenAndAFifoDoesNotBlock) {
    // Opening a FIFO would wait for a writer forever; /dev/zero never ends.
    Io::Path const fifo = mFolder / "fifo.exr";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    fs::create_directories(mFolder / "folder.exr");
    for (Io::Path const& path : {fifo, mFolder / "folder.exr", Io::Path("/dev/zero")}) {
        auto const in = Io::FileInputStream::open(path);
        ASSERT_FALSE(in) << path;
        expectNames(in, path);
    }
    auto const out = Io::FileOutputStream::open(fifo);
    ASSERT_FALSE(out);
    EXPECT_NE(out.error().find("not a regular file"), String::npos) << out.error();
}

TEST_F(IoTest, RandomNamedFilesAreNewAndRemovable) {
    ASSERT_TRUE(Io::createDirs(mFolder / "a" / "b"));
    ASSERT_TRUE(Io::createDirs(mFolder / "a" / "b")) << "an existing folder is fine";
    auto const first = Io::createRandomNamedFile(mFolder / "a" / "b", "Ostrel_", ".tmp");
    auto const second = Io::createRandomNamedFile(mFolder / "a" / "b", "Ostrel_", ".tmp");
    ASSERT_TRUE(first && second && *first != *second);
    EXPECT_EQ(first->parent_path(), mFolder / "a" / "b");
    EXPECT_TRUE(first->filename().string().starts_with("Ostrel_") && first->extension() == ".tmp") << *first;
    EXPECT_EQ(*Io::getFileSize(*first), 0);
    ASSERT_TRUE(Io::removeFile(*first));
    EXPECT_FALSE(Io::fileExists(*first));
    EXPECT_TRUE(Io::fileExists(*second));
}

TEST_F(IoTest, SkyDataFolderFollowsTheEnvironmentElseTheExecutable) {
    Io::Path const exe = Io::StandardPaths::getExecutableFilePath();
    EXPECT_TRUE(exe.is_absolute() && Io::fileExists(exe)) << exe;
    Testing::ScopedEnv const dataDir("FERRIM_SKY_DATA_DIR", Io::pathToUtf8(mFolder).c_str());
    EXPECT_EQ(Io::StandardPaths::prgSkyModelData(), mFolder);
    dataDir.set(nullptr);
    EXPECT_EQ(Io::StandardPaths::prgSkyModelData(), exe.parent_path());
}

TEST_F(IoTest, TextFilesAreReadOnlyWhenRegularAndWithinTheLimit) {
    Io::Path const text = writeText("a.txt", "hello");
    EXPECT_EQ(Io::readTextFile(text, 5).value(), "hello");

    struct Case { Io::Path path; String problem; };
    // A device would be read forever and a folder cannot be read: both are
    // refused by what they are, before any byte is read.
    for (Case const& c : {Case{text, "larger than the limit of 4 bytes"},
                          Case{mFolder / "missing.txt", "cannot open the file"},
                          Case{mFolder, "not a regular file"},
                          Case{"/dev/zero", "not a regular file"}}) {
        auto const r = Io::readTextFile(c.path, 4);
        ASSERT_FALSE(r) << c.path;
        EXPECT_EQ(r.error().rfind(Io::pathToUtf8(c.path) + ": ", 0), 0u) << r.error();
        EXPECT_NE(r.error().find(c.problem), String::npos) << r.error();
    }
}

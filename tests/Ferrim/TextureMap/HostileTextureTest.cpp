// Damaged and hostile image files through the texture cache, from files and
// from memory: each is an error naming the file, never a hang, a crash or a
// texture made of whatever memory held.
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "Ferrim/TextureMap/MipGeneration.h"
#include "TextureMapTestSupport.h"

using namespace Quelin;
using namespace Quelin::TextureMapTest;
namespace fs = std::filesystem;

namespace {

String readBytes(Io::Path const& path) {
    std::ifstream in(path, std::ios::binary);
    return String(std::istreambuf_iterator<char>(in), {});
}

/// No pixels, no levels, and a one-line error naming `name`.
void expectRefused(ImageTexture const& texture, String const& name) {
    String const& e = texture.getError();
    EXPECT_FALSE(texture.hasPixels());
    EXPECT_EQ(texture.getLevelCount(), 0);
    EXPECT_TRUE(!e.empty() && std::all_of(e.begin(), e.end(), [](char c) { return c >= 0x20 && c < 0x7F; })) << e;
    EXPECT_NE(e.find(name), String::npos) << e;
}

struct FormatCase { char const* extension; PixelFormat format; };
FormatCase const FORMATS[] = {{"exr", PixelFormat::RgbaFloat}, {"hdr", PixelFormat::RgbFloat}, {"png", PixelFormat::Rgba8},
                              {"jpg", PixelFormat::Rgb8},      {"tif", PixelFormat::Rgba8},    {"tga", PixelFormat::Rgba8},
                              {"bmp", PixelFormat::Rgb8}};

class HostileTextureTest : public TextureMapFixture, public ::testing::WithParamInterface<FormatCase> {
  protected:
    Io::Path writeSample(String const& name) {
        std::mt19937 rng(3);
        std::uniform_real_distribution<float> value(0.f, 1.f);
        return write(name, imageOf(97, 61, GetParam().format, [&](int, int) {
                         return RgbAlpha(value(rng), value(rng), value(rng), 1.f);
                     }));
    }
    /// The texture of a file and of the same bytes in memory.
    static std::pair<SharedPtr<ImageTexture>, SharedPtr<ImageTexture>> loadBoth(Io::Path const& path) {
        return {ImageTextureCache::getOrCreate(FileDataSource::make(path)),
                ImageTextureCache::getOrCreate(MemoryDataSource::make(readBytes(path), GetParam().extension))};
    }
};

TEST_P(HostileTextureTest, TheFormatLoadsFromAFileAndFromMemory) {
    Io::Path const path = writeSample(String("sample.") + GetParam().extension);
    auto const [file, memory] = loadBoth(path);
    for (auto const* texture : {file.get(), memory.get()}) {
        ASSERT_TRUE(texture->hasPixels()) << texture->getError();
        EXPECT_EQ(texture->getDescriptor().resolution, (Pixel{97, 61}));
        EXPECT_EQ(texture->getLevelCount(), MipGeneration::getLevelCount({97, 61}));
    }
    EXPECT_TRUE(sameBytes(file->getLevel(0), memory->getLevel(0)));
}

TEST_P(HostileTextureTest, CopiesCutShortAreErrorsNamingTheFile) {
    String const bytes = readBytes(writeSample(String("whole.") + GetParam().extension));
    for (std::size_t keep : {bytes.size() / 10, bytes.size() / 2, bytes.size() * 99 / 100, bytes.size() - 1}) {
        SCOPED_TRACE(std::to_string(keep) + " of " + std::to_string(bytes.size()) + " bytes");
        String const name = "cut" + std::to_string(keep) + "." + GetParam().extension;
        Io::Path const path = writeText(name, bytes.substr(0, keep));
        auto const [file, memory] = loadBoth(path);
        expectRefused(*file, name);
        expectRefused(*memory, "memory");
    }
}

INSTANTIATE_TEST_SUITE_P(EveryListedFormat, HostileTextureTest, ::testing::ValuesIn(FORMATS),
                         [](auto const& info) { return String(info.param.extension); });

using HostileFileTest = TextureMapFixture;

void put16(String& s, std::size_t at, std::uint32_t v) { s[at] = char(v & 0xFF), s[at + 1] = char(v >> 8); }
void put32(String& s, std::size_t at, std::uint32_t v) { put16(s, at, v & 0xFFFF), put16(s, at + 2, v >> 16); }

/// An uncompressed 8-bit RGBA TIFF of the given size whose four strips lie
/// past the end of its few hundred bytes.
String tiffClaiming(std::uint32_t width, std::uint32_t height) {
    struct Tag { std::uint16_t id, type; std::uint32_t count, value; };
    std::uint32_t const rows = height / 4, n = 10, bits = 8 + 2 + 12 * n + 4, offsets = bits + 8, counts = bits + 24;
    Tag const tags[n] = {{256, 4, 1, width},      {257, 4, 1, height}, {258, 3, 4, bits}, {259, 3, 1, 1},
                         {262, 3, 1, 2},          {273, 4, 4, offsets}, {277, 3, 1, 4},   {278, 4, 1, rows},
                         {279, 4, 4, counts},     {338, 3, 1, 2}};  // the arrays follow the directory
    String s(counts + 16, '\0');
    s[0] = 'I', s[1] = 'I', put16(s, 2, 42), put32(s, 4, 8), put16(s, 8, std::uint16_t(n));
    for (std::size_t i = 0; i < n; ++i) {
        std::size_t const at = 10 + 12 * i;
        Tag const t = tags[i];
        put16(s, at, t.id), put16(s, at + 2, t.type), put32(s, at + 4, t.count);
        if (t.type == 3 && t.count == 1) put16(s, at + 8, std::uint16_t(t.value));
        else put32(s, at + 8, t.value);
    }
    for (int i = 0; i < 4; ++i) {
        put16(s, bits + 2 * i, 8);
        put32(s, offsets + 4 * i, 1000000u + std::uint32_t(i) * 4096u);
        put32(s, counts + 4 * i, width * rows * 4);
    }
    return s;
}

/// CRC-32 of PNG chunks (ISO 3309, as PNG defines it).
std::uint32_t crc32(String const& bytes, std::size_t begin, std::size_t end) {
    std::uint32_t c = 0xFFFFFFFFu;
    for (std::size_t i = begin; i < end; ++i) {
        c ^= std::uint8_t(bytes[i]);
        for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
    }
    return ~c;
}

/// A real PNG whose header is made to claim `side` x `side` pixels, with a valid checksum.
String pngClaiming(std::uint32_t side) {
    String s = readBytes(Io::Path(FERRIM_TESTDATA_DIR) / "png" / "basn6a08.png");
    auto const be32 = [&](std::size_t at, std::uint32_t v) {
        for (int i = 0; i < 4; ++i) s[at + std::size_t(i)] = char(v >> (24 - 8 * i));
    };
    be32(16, side), be32(20, side);      // IHDR data starts at 16
    be32(29, crc32(s, 12, 29));          // type and 13 data bytes
    return s;
}

TEST_F(HostileFileTest, HeadersClaimingHugeSizesAreRefusedFromTheirFewBytes) {
    std::pair<char const*, String> const cases[] = {{"claims-32768.tif", tiffClaiming(32768, 32768)},
                          {"claims-65536x16384.tif", tiffClaiming(65536, 16384)},
                          {"claims-40000.png", pngClaiming(40000)}};
    for (auto const& [name, bytes] : cases) {
        SCOPED_TRACE(name);
        auto const started = std::chrono::steady_clock::now();
        expectRefused(*ImageTextureCache::getOrCreate(FileDataSource::make(writeText(name, bytes))), name);
        // Refused from the header: no gigabytes were touched.
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
        expectRefused(*ImageTextureCache::getOrCreate(MemoryDataSource::make(bytes, fs::path(name).extension().string())), "memory");
    }
}

TEST_F(HostileFileTest, AFolderADeviceAndAFifoAreRefusedWithoutBlocking) {
    Io::Path const fifo = mFolder / "fifo.png";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    fs::create_directories(mFolder / "folder.png");
    fs::create_symlink("/dev/zero", mFolder / "zero.png");
    for (Io::Path const& path : {mFolder / "folder.png", mFolder / "zero.png", fifo}) {
        SCOPED_TRACE(path.string());
        auto source = FileDataSource::make(path);
        std::promise<SharedPtr<ImageTexture>> result;
        std::thread loader([&] { result.set_value(ImageTextureCache::getOrCreate(source, {}).getImageTexture()); });
        auto future = result.get_future();
        if (future.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
            // Release a reader blocked on the FIFO so that the test can end.
            int const fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
            if (fd >= 0) ::close(fd);
            loader.join();
            FAIL() << "opening blocked";
        }
        loader.join();
        expectRefused(*future.get(), path.filename().string());
    }
}

// The hostile cases again in a child process limited to 2 GiB of address
// space: a decoder that believed a header would fail there.
TEST(HostileMemoryLimitTest, TheHostileCasesPassWithinTwoGigabytes) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers reserve more address space than the limit";
#endif
    if (std::getenv("FERRIM_UNDER_MEMORY_LIMIT")) GTEST_SKIP() << "already the limited child";
    String const self = fs::read_symlink("/proc/self/exe").string();
    // Everything the child needs is made before the fork: it only sets the limit and runs.
    Stack<char const*> environment;
    for (char** e = environ; *e; ++e) environment.push_back(*e);
    environment.push_back("FERRIM_UNDER_MEMORY_LIMIT=1");
    environment.push_back(nullptr);
    char const* args[] = {self.c_str(), "--gtest_filter=*HostileTextureTest*:HostileFileTest.*", "--gtest_brief=1", nullptr};
    rlimit const limit{rlim_t(2) << 30, rlim_t(2) << 30};
    pid_t const child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::setrlimit(RLIMIT_AS, &limit);
        ::execve(self.c_str(), const_cast<char* const*>(args), const_cast<char* const*>(environment.data()));
        ::_exit(127);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "the child ended by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

} // namespace

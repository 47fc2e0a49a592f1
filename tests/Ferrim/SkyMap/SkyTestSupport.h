#pragma once
// What the sky data tests share: one folder of generated data files, a guard
// that points the data search at a folder, and a recording stream.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <span>
#include <unistd.h>

#include "QuelinLib/Io.h"
#include "SkyTestFiles.h"
#include "TestSupport/ScopedEnv.h"

namespace Quelin::Testing {

/// Points the installation's data folder at `folder` and keeps the
/// development workspace out of the search while it lives.
class SkyDataLocation : Noncopyable {
  public:
    explicit SkyDataLocation(Io::Path const& folder) { Io::StandardPaths::setPrgSkyModelData(folder); }
    ~SkyDataLocation() { Io::StandardPaths::setPrgSkyModelData({}); }

  private:
    ScopedEnv const mDevelopment{"QUELIN_DEVELOPMENT", nullptr};
};

/// The three data files with the slices the tests read, written once per run
/// (about 45 MB into sparse files) and removed at exit.
inline Io::Path const& sharedSkyDataFolder() {
    struct Folder {
        Io::Path path = Io::StandardPaths::temporary() / ("ferrim_sky_" + std::to_string(::getpid()));
        Folder() {
            std::filesystem::create_directories(path);
            SkyFiles::writeSkyFile(path / "PrgSkyModelData.dat",
                                   {{{0, 0, 0}, 2, 7}, {{1, 1, 1}, 5, 21}});
            SkyFiles::writeSunFile(path / "PrgSunModelData.dat", {{2, 7}, {5, 21}, {0, 0}, {1, 0}, {2, 0}, {3, 0}});
            SkyFiles::writeCloudsFile(path / "PrgCloudsModelData.dat");
        }
        ~Folder() {
            std::error_code ec;
            std::filesystem::remove_all(path, ec);
        }
    };
    static Folder const folder;
    return folder.path;
}

/// Whether `bytes` hold byteAt from `fileOffset` on.
inline bool holdsBytesFrom(std::span<std::byte const> bytes, std::int64_t fileOffset) {
    for (std::size_t i = 0; i < bytes.size(); ++i)
        if (std::to_integer<std::uint8_t>(bytes[i]) != SkyFiles::byteAt(fileOffset + std::int64_t(i))) return false;
    return true;
}

/// A file stream that records the reader's reads and seeks, and can claim a
/// size the file does not have (a file cut while it is read).
class RecordingStream final : public Io::InputStream {
  public:
    explicit RecordingStream(Io::Path const& path, std::optional<std::int64_t> claimedSize = {})
        : mFile(std::move(Io::FileInputStream::open(path).value())), mClaimedSize(claimedSize) {}

    std::size_t readSome(void* destination, std::size_t size) override {
        reads.push_back(mFile->readSome(destination, size));
        return reads.back();
    }
    Expected<void> seek(std::int64_t offset, Io::SeekOrigin origin) override {
        seeks.emplace_back(offset, origin);
        return mFile->seek(offset, origin);
    }
    std::int64_t tell() const override { return mFile->tell(); }
    Expected<std::int64_t> getSize() const override { return mClaimedSize ? Expected<std::int64_t>(*mClaimedSize) : mFile->getSize(); }
    String const& getName() const override { return mFile->getName(); }

    std::vector<std::size_t> reads;
    std::vector<std::pair<std::int64_t, Io::SeekOrigin>> seeks;

  private:
    std::unique_ptr<Io::FileInputStream> mFile;
    std::optional<std::int64_t> mClaimedSize;
};

} // namespace Quelin::Testing

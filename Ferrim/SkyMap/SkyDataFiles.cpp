#include "Ferrim/SkyMap/SkyDataFiles.h"
#include "QuelinLib/DebugLogger.h"
#include "QuelinLib/Lib.h"
#include <algorithm>
#include <chrono>

namespace Quelin {

namespace {
std::int64_t nowTicks() { return std::chrono::steady_clock::now().time_since_epoch().count(); }
} // namespace

Expected<Io::Path> locateSkyDataFile(StringView fileName) {
    Io::Path const name = Io::pathFromUtf8(fileName);
    Stack<Io::Path> candidates;
    if (isDevelopmentEnviro())
        candidates.push_back(Io::StandardPaths::quelinWorkspaceDir() / "resources" / "OstrelCommonInstallerResources" /
                             "prgSkyModel" / name);
    candidates.push_back(Io::StandardPaths::prgSkyModelData() / name);
    candidates.push_back(Io::StandardPaths::getExecutableFilePath().parent_path() / "resources" / name);
    String searched;
    for (auto const& path : candidates) {
        if (Io::fileExists(path))
            return path;
        searched += (searched.empty() ? "" : ", ") + Io::pathToUtf8(path.parent_path());
    }
    return makeError("Could not find data file " + String(fileName) + " (searched " + searched + ")");
}

namespace Detail {

void checkGridIndex(StringView configuration, StringView what, int value, int entries) {
    if (value < 0 || value >= entries)
        throw Exception(String(configuration) + ": " + String(what) + " is " + std::to_string(value) + ", outside 0.." +
                        std::to_string(entries - 1));
}

std::unique_ptr<Io::FileInputStream> openSkyDataFile(StringView fileName, StringView notFoundMessage,
                                                     std::int64_t expectedSize) {
    auto const path = locateSkyDataFile(fileName);
    if (!path)
        throw Exception(String(notFoundMessage));
    auto stream = Io::FileInputStream::open(*path);
    if (!stream)
        throw Exception(stream.error());
    checkSkyDataFileSize(**stream, expectedSize);
    return std::move(*stream);
}

void checkSkyDataFileSize(Io::InputStream& stream, std::int64_t expectedSize) {
    auto const size = stream.getSize();
    if (!size)
        throw Exception(size.error());
    if (*size != expectedSize)
        throw Exception("Could not load object from the stream. " + stream.getName() + " has " + std::to_string(*size) + " bytes where " +
                        std::to_string(expectedSize) + " are expected: the file is damaged or incomplete");
}

void logSkyDataException(StringView text) {
    if (!isDevelopmentEnviro())
        return;
    DebugLogger const logger("settings");
    logger("Exception:", text);
}

SkyDataReader::SkyDataReader(Io::InputStream& stream) : mStream(stream), mStartTicks(nowTicks()) {}

void SkyDataReader::read(void* destination, std::size_t size) {
    std::int64_t const start = mStream.tell();
    std::size_t const got = readUpTo(destination, size);
    if (got != size)
        throw Exception("Unexpected end of " + mStream.getName() + ": wanted " + std::to_string(size) +
                        " bytes at offset " + std::to_string(start) + ", got " + std::to_string(got));
}

std::size_t SkyDataReader::readUpTo(void* destination, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        std::size_t const got = mStream.readSome(static_cast<std::byte*>(destination) + done, size - done);
        ++mStats.reads;
        if (got == 0)
            break;
        done += got;
    }
    mStats.bytesRead += std::int64_t(done);
    return done;
}

void SkyDataReader::skip(std::int64_t bytes) {
    if (bytes == 0)
        return;
    if (auto r = mStream.skip(bytes); !r)
        throw Exception(r.error());
    ++mStats.seeks;
}

SkyDataLoadStats SkyDataReader::finish() const {
    SkyDataLoadStats stats = mStats;
    stats.seconds = double(nowTicks() - mStartTicks) *
                    double(std::chrono::steady_clock::period::num) / double(std::chrono::steady_clock::period::den);
    return stats;
}

GridTables::GridTables(std::int64_t gridEntryBytes, std::int64_t rowBytes)
    : mGridBytes(std::int64_t(GRID_ROWS) * GRID_COLUMNS * gridEntryBytes), mRowBytes(rowBytes) {}

void GridTables::read(SkyDataReader& reader, GridBracket a, GridBracket b) {
    constexpr int A_ENTRIES = 6, B_ENTRIES = 22;
    // Filled by the reads; what they leave out (a last entry's neighbour) is zero.
    mGrids = std::make_unique_for_overwrite<std::byte[]>(std::size_t(2 * mGridBytes));
    std::fill(mGrids.get() + b.count * mGridBytes, mGrids.get() + 2 * mGridBytes, std::byte{0});
    mRows = std::make_unique<std::byte[]>(std::size_t(4 * mRowBytes));
    // The loaded B entries of a dimension are neighbours in the file: one read each.
    reader.walk(b, B_ENTRIES, mGridBytes, [&] { reader.read(mGrids.get(), std::size_t(b.count * mGridBytes)); });
    reader.walk(a, A_ENTRIES, B_ENTRIES * mRowBytes, [&] {
        for (int slotA = 0; slotA < a.count; ++slotA) {
            reader.walk(b, B_ENTRIES, mRowBytes, [&] {
                reader.read(mRows.get() + std::size_t(2 * slotA * mRowBytes), std::size_t(b.count * mRowBytes));
            });
        }
    });
}

std::span<std::byte const> GridTables::getGrid(int slotB) const {
    return {mGrids.get() + std::size_t(slotB * mGridBytes), std::size_t(mGridBytes)};
}

std::span<std::byte const> GridTables::getRow(int slotA, int slotB) const {
    return {mRows.get() + std::size_t((2 * slotA + slotB) * mRowBytes), std::size_t(mRowBytes)};
}

} // namespace Detail
} // namespace Quelin

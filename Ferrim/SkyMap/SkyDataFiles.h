#pragma once
// What the sky, sun and clouds data readers share: finding a data file,
// opening it with its size checked against its layout, reading with every
// read and seek counted, and the bracketing rule of the grids' dimensions.
#include "Ferrim/Export.h"
#include "QuelinLib/Exception.h"
#include "QuelinLib/Io.h"
#include <span>

namespace Quelin {

inline constexpr StringView PRG_SKY_FILE_NAME = "PrgSkyModelData.dat";
inline constexpr StringView PRG_SUN_FILE_NAME = "PrgSunModelData.dat";
inline constexpr StringView CLOUDS_FILE_NAME = "PrgCloudsModelData.dat";

/// Finds a data file: in a development environment the workspace's copy first,
/// then the installation's sky-model data folder, then "resources" beside the
/// program. Fails with "Could not find data file ", the name and the folders
/// searched.
FERRIM_EXPORT Expected<Io::Path> locateSkyDataFile(StringView fileName);

/// How one load went: what the file gave and how long it took.
struct SkyDataLoadStats {
    std::int64_t bytesRead = 0;
    std::int64_t reads = 0;
    std::int64_t seeks = 0;
    double seconds = 0.0;
};

/// The two neighbouring entries of one grid dimension that bracket a value:
/// the lower index and the next, clamped to the last entry, so a lower index
/// at the last entry loads that entry alone.
struct GridBracket {
    int lower = 0;
    int count = 0; ///< 1 or 2 entries loaded

    static constexpr GridBracket of(int lower, int entries) { return {lower, lower + 1 < entries ? 2 : 1}; }
    constexpr int upper() const { return lower + count - 1; }
};

namespace Detail {

/// Throws unless 0 <= value < entries; `what` names the index in the message.
void checkGridIndex(StringView configuration, StringView what, int value, int entries);

/// Opens a located data file and checks its size, throwing the given
/// not-found message when it cannot be located.
std::unique_ptr<Io::FileInputStream> openSkyDataFile(StringView fileName, StringView notFoundMessage,
                                                     std::int64_t expectedSize);

/// Throws when the stream's size is not what the file's layout needs: a
/// damaged or incomplete installation would otherwise give half-read tables.
void checkSkyDataFileSize(Io::InputStream& stream, std::int64_t expectedSize);

/// Logs a failed load in a development environment ("settings" category).
FERRIM_EXPORT void logSkyDataException(StringView text);

/// Forward reading of a data file with every read and seek counted. Failures
/// throw the base library's Exception with a message naming the file.
class SkyDataReader : Noncopyable {
  public:
    explicit SkyDataReader(Io::InputStream& stream);

    void read(void* destination, std::size_t size);
    /// Reads until `size` bytes or the end of the file; returns how many came.
    std::size_t readUpTo(void* destination, std::size_t size);
    /// Moves forward relative to the current position; nothing for 0.
    void skip(std::int64_t bytes);
    /// Skips to the lower entry of a dimension, lets `readEntries` consume the
    /// loaded ones, then skips over the dimension's remaining entries.
    template <typename F> void walk(GridBracket bracket, int entries, std::int64_t stride, F&& readEntries) {
        skip(bracket.lower * stride);
        readEntries();
        skip((entries - 1 - bracket.upper()) * stride);
    }

    Io::InputStream& getStream() { return mStream; }
    /// The counts so far, with the time since the reader was made.
    SkyDataLoadStats finish() const;

  private:
    Io::InputStream& mStream;
    SkyDataLoadStats mStats;
    std::int64_t mStartTicks;
};

/// The two sections that end both the sky and the sun file, kept as stored:
/// per B entry a 202 x 172 grid of fixed-size entries, then per A entry and B
/// entry a short row of entries. Only the bracketing entries are read.
class FERRIM_EXPORT GridTables {
  public:
    static constexpr int GRID_ROWS = 202, GRID_COLUMNS = 172;

    GridTables(std::int64_t gridEntryBytes, std::int64_t rowBytes);
    /// Reads both sections from the start of the first; leaves the stream at
    /// the end of the second.
    void read(SkyDataReader& reader, GridBracket a, GridBracket b);

    std::span<std::byte const> getGrid(int slotB) const;
    std::span<std::byte const> getRow(int slotA, int slotB) const;
    std::int64_t getMemoryUsage() const { return 2 * mGridBytes + 4 * mRowBytes; }

  private:
    std::int64_t mGridBytes; // one B entry's grid
    std::int64_t mRowBytes;  // one (A, B) entry's row
    std::unique_ptr<std::byte[]> mGrids; // [slot B][grid]
    std::unique_ptr<std::byte[]> mRows;  // [slot A][slot B][row]
};

} // namespace Detail
} // namespace Quelin

#pragma once
// The sun's tables: from the sun data file only the B entries and (A, B)
// entries that bracket one sky's parameters are read, kept as stored.
#include "Ferrim/SkyMap/SkyDataFiles.h"

namespace Quelin {

template <typename Data> class ModelDataCache;

class FERRIM_EXPORT PrgSunModelData : Noncopyable {
  public:
    /// The lower indices of the bracketing entries (loaded with the next one,
    /// clamped to the last).
    struct Configuration {
        std::int32_t indexA = 0; ///< 0..5
        std::int32_t indexB = 0; ///< 0..21

        auto operator<=>(Configuration const&) const = default;
        /// "A,B", as the `ferrim sky` option takes it.
        String toString() const;
    };

    static constexpr int A_ENTRIES = 6, B_ENTRIES = 22;
    /// The grid section's entries and the row section's rows (11 entries), in bytes.
    static constexpr std::int64_t GRID_ENTRY_BYTES = 48, ROW_BYTES = 11 * 48;
    static constexpr std::int64_t FILE_SIZE = 36'759'360;

    /// Locates the sun data file and reads the slices of `configuration`.
    /// Throws the base library's Exception when the file is missing, damaged
    /// or cut, or an index is out of range.
    explicit PrgSunModelData(Configuration const& configuration);
    /// Reads from an open sun data file (positioned at its start).
    PrgSunModelData(Configuration const& configuration, Io::InputStream& stream);

    Configuration const& getConfiguration() const { return mConfiguration; }
    /// One B entry's 202 x 172 entries of 48 bytes, as stored; slot 0 is the
    /// lower entry, 1 the next (zeros when it was not loaded).
    std::span<std::byte const> getGrid(int slotB) const { return mTables.getGrid(slotB); }
    /// The eleven 48-byte entries of an A and B entry, as stored.
    std::span<std::byte const> getRow(int slotA, int slotB) const { return mTables.getRow(slotA, slotB); }

    SkyDataLoadStats const& getLoadStats() const { return mStats; }
    std::int64_t getMemoryUsage() const { return mTables.getMemoryUsage(); }

    /// The process-wide cache of loaded slices.
    static ModelDataCache<PrgSunModelData>& getCache();

  private:
    Configuration mConfiguration;
    Detail::GridTables mTables{GRID_ENTRY_BYTES, ROW_BYTES};
    SkyDataLoadStats mStats;
};

} // namespace Quelin

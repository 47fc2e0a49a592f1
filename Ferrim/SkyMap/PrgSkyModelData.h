#pragma once
// The sky's radiance tables: from the very large sky data file only the grid
// entries that bracket one sky's parameters are read, converted to floats and
// kept; the rest of the file is skipped by seeks.
#include "Ferrim/SkyMap/SkyDataFiles.h"
#include <span>

namespace Quelin {

template <typename Data> class ModelDataCache;

class FERRIM_EXPORT PrgSkyModelData : Noncopyable {
  public:
    /// The lower indices of the bracketing entries; each dimension loads the
    /// lower entry and the next (clamped to the last).
    struct Configuration {
        /// Lower index of the two-entry dimension, one per colour channel (0..1).
        StaticArray<std::int32_t, 3> channelIndex{};
        std::int32_t indexA = 0; ///< 0..5
        std::int32_t indexB = 0; ///< 0..21

        auto operator<=>(Configuration const&) const = default;
        /// "C0,C1,C2,A,B", as the `ferrim sky` option takes it.
        String toString() const;
    };

    static constexpr int CHANNELS = 3, TWO_ENTRIES = 2, A_ENTRIES = 6, B_ENTRIES = 22, RECORDS = 30;
    /// A record in memory: 9 passes of 275 values interleaved (value j of pass
    /// i at j * 9 + i), then 9 passes of 205 scaled values interleaved the same
    /// way, then 118 values.
    static constexpr int PASSES = 9, PASS_VALUES = 275, SCALED_VALUES = 205, TAIL_VALUES = 118;
    static constexpr int SCALED_OFFSET = PASSES * PASS_VALUES;                 // 2,475
    static constexpr int TAIL_OFFSET = SCALED_OFFSET + PASSES * SCALED_VALUES; // 4,320
    static constexpr int RECORD_FLOATS = TAIL_OFFSET + TAIL_VALUES;            // 4,438
    /// The grid section's entries and the row section's rows, in bytes.
    static constexpr std::int64_t GRID_ENTRY_BYTES = 32, ROW_BYTES = 3 * 32;
    static constexpr std::int64_t FILE_SIZE = 237'076'928;

    /// Locates the sky data file and reads the slices of `configuration`.
    /// Throws the base library's Exception when the file is missing, damaged
    /// or cut, or an index is out of range.
    explicit PrgSkyModelData(Configuration const& configuration);
    /// Reads from an open sky data file (positioned at its start).
    PrgSkyModelData(Configuration const& configuration, Io::InputStream& stream);

    Configuration const& getConfiguration() const { return mConfiguration; }
    /// One record; each slot is 0 for the lower entry of its dimension and 1
    /// for the next. A slot whose entry was not loaded holds zeros.
    std::span<float const, RECORD_FLOATS> getRecord(int channel, int slotTwo, int slotA, int slotB, int record) const;
    /// One B entry's 202 x 172 entries of 32 bytes, as stored.
    std::span<std::byte const> getGrid(int slotB) const { return mTables.getGrid(slotB); }
    /// The three 32-byte entries (one per colour channel) of an A and B entry, as stored.
    std::span<std::byte const> getRow(int slotA, int slotB) const { return mTables.getRow(slotA, slotB); }

    SkyDataLoadStats const& getLoadStats() const { return mStats; }
    std::int64_t getMemoryUsage() const;

    /// The process-wide cache of loaded slices.
    static ModelDataCache<PrgSkyModelData>& getCache();

  private:
    /// The file records of loaded B entries: neighbours in the file, read in one piece.
    struct Slab {
        std::int64_t fileOffset = 0;
        std::size_t firstRecord = 0; // where its records go in memory
        int records = 0;
    };
    class SlabPipeline;

    static void readSlab(Detail::SkyDataReader& reader, Slab const& slab, std::byte* bytes);
    void convertRecords(Slab const& slab, std::byte const* bytes, int begin, int end, String const& fileName);

    Configuration mConfiguration;
    std::unique_ptr<float[]> mRecords; // [channel][slot two][slot A][slot B][record][RECORD_FLOATS]
    Detail::GridTables mTables{GRID_ENTRY_BYTES, ROW_BYTES};
    SkyDataLoadStats mStats;
};

} // namespace Quelin

#pragma once
// The sky's radiance tables: from the very large sky data file only the grid
// entries that bracket one sky's parameters are read and kept; the rest of the
// file is skipped by seeks. Records stay in memory as the file stores them
// (halves) and convert to floats when read: loading is then one read straight
// into place per run of entries, and the tables take half the memory.
#include "Ferrim/SkyMap/SkyDataFiles.h"
#include "QuelinLib/Half.h"
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
    /// A record's values in float order: 9 passes of 275 values interleaved
    /// (value j of pass i at j * 9 + i), then 9 passes of 205 scaled values
    /// interleaved the same way, then 118 values.
    static constexpr int PASSES = 9, PASS_VALUES = 275, SCALED_VALUES = 205, TAIL_VALUES = 118;
    static constexpr int SCALED_OFFSET = PASSES * PASS_VALUES;                 // 2,475
    static constexpr int TAIL_OFFSET = SCALED_OFFSET + PASSES * SCALED_VALUES; // 4,320
    static constexpr int RECORD_FLOATS = TAIL_OFFSET + TAIL_VALUES;            // 4,438
    /// A record as stored: 9 passes of (275 halves, a double d, 205 halves
    /// scaled by 1 / d), then 118 halves.
    static constexpr std::int64_t PASS_BYTES = PASS_VALUES * 2 + 8 + SCALED_VALUES * 2; // 968
    static constexpr std::int64_t SCALE_BYTES_OFFSET = PASS_VALUES * 2;                 // in a pass
    static constexpr std::int64_t SCALED_BYTES_OFFSET = SCALE_BYTES_OFFSET + 8;         // in a pass
    static constexpr std::int64_t TAIL_BYTES_OFFSET = PASSES * PASS_BYTES;              // 8,712
    static constexpr std::int64_t RECORD_BYTES = TAIL_BYTES_OFFSET + TAIL_VALUES * 2;   // 8,948

    /// One loaded record: its stored halves with the reciprocals of its
    /// per-pass scales, read as RECORD_FLOATS floats. Each half converts
    /// exactly; scaled values are the half times the reciprocal, in float.
    class FERRIM_EXPORT Record {
      public:
        /// Value k (0 <= k < RECORD_FLOATS) in float order.
        float operator[](int k) const {
            if (k < SCALED_OFFSET)
                return halfAt((k % PASSES) * PASS_BYTES + (k / PASSES) * 2);
            if (k < TAIL_OFFSET) {
                int const i = (k - SCALED_OFFSET) % PASSES, j = (k - SCALED_OFFSET) / PASSES;
                return halfAt(i * PASS_BYTES + SCALED_BYTES_OFFSET + j * 2) * mReciprocalScales[i];
            }
            return halfAt(TAIL_BYTES_OFFSET + (k - TAIL_OFFSET) * 2);
        }
        static constexpr int size() { return RECORD_FLOATS; }
        /// The whole record in float order, eight values per instruction where
        /// the processor converts halves.
        void toFloats(std::span<float, RECORD_FLOATS> destination) const;

      private:
        friend class PrgSkyModelData;
        Record(std::byte const* bytes, float const* reciprocalScales)
            : mBytes(bytes), mReciprocalScales(reciprocalScales) {}
        float halfAt(std::int64_t byteOffset) const {
            auto const* b = reinterpret_cast<unsigned char const*>(mBytes + byteOffset);
            return halfToFloat(std::uint16_t(b[0] | b[1] << 8)); // little-endian in the file
        }

        std::byte const* mBytes;
        float const* mReciprocalScales; // one per pass
    };
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
    Record getRecord(int channel, int slotTwo, int slotA, int slotB, int record) const;
    /// One B entry's 202 x 172 entries of 32 bytes, as stored.
    std::span<std::byte const> getGrid(int slotB) const { return mTables.getGrid(slotB); }
    /// The three 32-byte entries (one per colour channel) of an A and B entry, as stored.
    std::span<std::byte const> getRow(int slotA, int slotB) const { return mTables.getRow(slotA, slotB); }

    SkyDataLoadStats const& getLoadStats() const { return mStats; }
    std::int64_t getMemoryUsage() const;

    /// The process-wide cache of loaded slices.
    static ModelDataCache<PrgSkyModelData>& getCache();

  private:
    /// Reads `records` records at `fileOffset` into memory record `firstRecord`
    /// onwards and checks their scales.
    void readRecords(Detail::SkyDataReader& reader, std::int64_t fileOffset, std::size_t firstRecord, int records);

    Configuration mConfiguration;
    std::unique_ptr<std::byte[]> mRecords;      // [channel][slot two][slot A][slot B][record][RECORD_BYTES]
    std::unique_ptr<float[]> mReciprocalScales; // [same record][PASSES]
    Detail::GridTables mTables{GRID_ENTRY_BYTES, ROW_BYTES};
    SkyDataLoadStats mStats;
};

} // namespace Quelin

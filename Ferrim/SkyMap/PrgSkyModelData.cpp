#include "Ferrim/SkyMap/PrgSkyModelData.h"
#include "Ferrim/SkyMap/HalfConversion.h"
#include "Ferrim/SkyMap/ModelDataCache.h"
#include <algorithm>
#include <cmath>
#include <cstring>

namespace Quelin {

namespace {
using Self = PrgSkyModelData;

constexpr StringView NOT_FOUND = "PRG Sky Model Data file not found in installation nor in resources directory.";

// The radiance section's layout in the file.
constexpr std::int64_t RECORD_BYTES = Self::RECORD_BYTES;
constexpr std::int64_t B_STRIDE = Self::RECORDS * RECORD_BYTES;         // 268,440
constexpr std::int64_t A_STRIDE = Self::B_ENTRIES * B_STRIDE;           // 5,905,680
constexpr std::int64_t TWO_STRIDE = Self::A_ENTRIES * A_STRIDE;         // 35,434,080
constexpr std::int64_t CHANNEL_STRIDE = Self::TWO_ENTRIES * TWO_STRIDE; // 70,868,160
// Where the last per-pass double of a record ends: a file cut before it
// leaves a double unread.
constexpr std::int64_t LAST_SCALE_END = (Self::PASSES - 1) * Self::PASS_BYTES + Self::SCALE_BYTES_OFFSET + 8;

static_assert(Self::PASS_BYTES == 968 && RECORD_BYTES == 8948 && CHANNEL_STRIDE == 70'868'160);
static_assert(Self::CHANNELS * CHANNEL_STRIDE +
                  Self::B_ENTRIES * (Detail::GridTables::GRID_ROWS * Detail::GridTables::GRID_COLUMNS *
                                     Self::GRID_ENTRY_BYTES) +
                  Self::A_ENTRIES * Self::B_ENTRIES * Self::ROW_BYTES ==
              Self::FILE_SIZE);

constexpr std::size_t RECORDS_IN_MEMORY = std::size_t(Self::CHANNELS) * 2 * 2 * 2 * Self::RECORDS;

std::size_t slotIndex(int channel, int slotTwo, int slotA, int slotB) {
    return ((std::size_t(channel) * 2 + std::size_t(slotTwo)) * 2 + std::size_t(slotA)) * 2 + std::size_t(slotB);
}
} // namespace

void PrgSkyModelData::Record::toFloats(std::span<float, RECORD_FLOATS> destination) const {
    convertHalvesInterleaved(mBytes, PASS_BYTES, PASSES, PASS_VALUES, nullptr, destination.data());
    convertHalvesInterleaved(mBytes + SCALED_BYTES_OFFSET, PASS_BYTES, PASSES, SCALED_VALUES, mReciprocalScales,
                             destination.data() + SCALED_OFFSET);
    convertHalvesToFloats(mBytes + TAIL_BYTES_OFFSET, destination.data() + TAIL_OFFSET, TAIL_VALUES);
}

String PrgSkyModelData::Configuration::toString() const {
    return std::to_string(channelIndex[0]) + "," + std::to_string(channelIndex[1]) + "," +
           std::to_string(channelIndex[2]) + "," + std::to_string(indexA) + "," + std::to_string(indexB);
}

PrgSkyModelData::PrgSkyModelData(Configuration const& configuration)
    : PrgSkyModelData(configuration, *Detail::openSkyDataFile(PRG_SKY_FILE_NAME, NOT_FOUND, FILE_SIZE)) {}

PrgSkyModelData::PrgSkyModelData(Configuration const& configuration, Io::InputStream& stream)
    : mConfiguration(configuration) {
    static constexpr StringView WHAT = "PRG sky configuration";
    for (int c = 0; c < CHANNELS; ++c)
        Detail::checkGridIndex(WHAT, "channel index " + std::to_string(c), mConfiguration.channelIndex[c], TWO_ENTRIES);
    Detail::checkGridIndex(WHAT, "index A", mConfiguration.indexA, A_ENTRIES);
    Detail::checkGridIndex(WHAT, "index B", mConfiguration.indexB, B_ENTRIES);
    Detail::checkSkyDataFileSize(stream, FILE_SIZE);

    GridBracket const a = GridBracket::of(mConfiguration.indexA, A_ENTRIES);
    GridBracket const b = GridBracket::of(mConfiguration.indexB, B_ENTRIES);
    // Filled by the reads, so not cleared first; slots without an entry are
    // zeroed below and read as zeros.
    mRecords = std::make_unique_for_overwrite<std::byte[]>(RECORDS_IN_MEMORY * std::size_t(RECORD_BYTES));
    mReciprocalScales = std::make_unique_for_overwrite<float[]>(RECORDS_IN_MEMORY * PASSES);
    auto const clear = [&](std::size_t firstRecord, std::size_t records) {
        std::fill_n(mRecords.get() + firstRecord * std::size_t(RECORD_BYTES), records * std::size_t(RECORD_BYTES),
                    std::byte{0});
        std::fill_n(mReciprocalScales.get() + firstRecord * PASSES, records * PASSES, 0.f);
    };

    Detail::SkyDataReader reader(stream);
    // In file order; the loaded B entries of a (channel, two, A) entry are
    // neighbours in both the file and memory: one read each.
    for (int c = 0; c < CHANNELS; ++c) {
        GridBracket const two = GridBracket::of(mConfiguration.channelIndex[c], TWO_ENTRIES);
        for (int slotTwo = 0; slotTwo < 2; ++slotTwo)
            for (int slotA = 0; slotA < 2; ++slotA) {
                std::size_t const first = slotIndex(c, slotTwo, slotA, 0) * RECORDS;
                if (slotTwo >= two.count || slotA >= a.count) {
                    clear(first, 2 * RECORDS);
                    continue;
                }
                if (b.count < 2)
                    clear(first + RECORDS, RECORDS);
                std::int64_t const offset = c * CHANNEL_STRIDE + (two.lower + slotTwo) * TWO_STRIDE +
                                            (a.lower + slotA) * A_STRIDE + b.lower * B_STRIDE;
                reader.skip(offset - stream.tell());
                readRecords(reader, offset, first, b.count * RECORDS);
            }
    }
    reader.skip(CHANNELS * CHANNEL_STRIDE - stream.tell());
    mTables.read(reader, a, b);
    mStats = reader.finish();
}

void PrgSkyModelData::readRecords(Detail::SkyDataReader& reader, std::int64_t fileOffset, std::size_t firstRecord,
                                  int records) {
    std::byte* const bytes = mRecords.get() + firstRecord * std::size_t(RECORD_BYTES);
    std::size_t const wanted = std::size_t(records * RECORD_BYTES);
    std::size_t const got = reader.readUpTo(bytes, wanted);
    if (got != wanted) {
        // The reading stops at the first value the file no longer holds.
        if (std::int64_t(got) % RECORD_BYTES < LAST_SCALE_END)
            throw Exception("Could not load object from the stream.");
        throw Exception("Unexpected end of " + reader.getStream().getName() + " at offset " +
                        std::to_string(fileOffset + std::int64_t(got)) + ", inside a record");
    }
    // Checked while the records are still in the cache from the read.
    float* reciprocals = mReciprocalScales.get() + firstRecord * PASSES;
    for (int r = 0; r < records; ++r)
        for (int pass = 0; pass < PASSES; ++pass) {
            std::int64_t const at = r * RECORD_BYTES + pass * PASS_BYTES + SCALE_BYTES_OFFSET;
            double d;
            std::memcpy(&d, bytes + at, sizeof d);
            d = Io::Detail::fromLittleEndian(d);
            // Values are scaled in float: the scale and its reciprocal must both
            // be ordinary floats (1e-300 is non-zero but becomes 0 and then infinity).
            float const reciprocal = float(1.0 / d);
            if (!std::isnormal(float(d)) || !std::isfinite(reciprocal))
                throw Exception(reader.getStream().getName() + ": the scale at offset " +
                                std::to_string(fileOffset + at) + " is " + std::to_string(d) +
                                ", not a normal float with a finite reciprocal: the file is damaged");
            *reciprocals++ = reciprocal;
        }
}

PrgSkyModelData::Record PrgSkyModelData::getRecord(int channel, int slotTwo, int slotA, int slotB, int record) const {
    std::size_t const index = slotIndex(channel, slotTwo, slotA, slotB) * RECORDS + std::size_t(record);
    return Record(mRecords.get() + index * std::size_t(RECORD_BYTES), mReciprocalScales.get() + index * PASSES);
}

std::int64_t PrgSkyModelData::getMemoryUsage() const {
    return std::int64_t(RECORDS_IN_MEMORY * (std::size_t(RECORD_BYTES) + PASSES * sizeof(float))) +
           mTables.getMemoryUsage();
}

ModelDataCache<PrgSkyModelData>& PrgSkyModelData::getCache() {
    // Four slices (about 35 MB) keep a sky whose sun moves across entries
    // from reloading the slices it just left.
    static ModelDataCache<PrgSkyModelData> sCache(4);
    return sCache;
}

} // namespace Quelin

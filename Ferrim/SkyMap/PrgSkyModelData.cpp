#include "Ferrim/SkyMap/PrgSkyModelData.h"
#include "Ferrim/SkyMap/HalfConversion.h"
#include "Ferrim/SkyMap/ModelDataCache.h"
#include "QuelinLib/TaskScheduler.h"
#include <algorithm>
#include <condition_variable>
#include <cmath>
#include <cstring>

namespace Quelin {

namespace {
using Self = PrgSkyModelData;

constexpr StringView NOT_FOUND = "PRG Sky Model Data file not found in installation nor in resources directory.";

// The radiance section's layout in the file.
constexpr std::int64_t PASS_BYTES = Self::PASS_VALUES * 2 + 8 + Self::SCALED_VALUES * 2; // 968
constexpr std::int64_t SCALE_OFFSET = Self::PASS_VALUES * 2;                            // the per-pass double
constexpr std::int64_t TAIL_BYTES_OFFSET = Self::PASSES * PASS_BYTES;                   // 8,712
constexpr std::int64_t RECORD_BYTES = TAIL_BYTES_OFFSET + Self::TAIL_VALUES * 2;         // 8,948
constexpr std::int64_t B_STRIDE = Self::RECORDS * RECORD_BYTES;                          // 268,440
constexpr std::int64_t A_STRIDE = Self::B_ENTRIES * B_STRIDE;                            // 5,905,680
constexpr std::int64_t TWO_STRIDE = Self::A_ENTRIES * A_STRIDE;                          // 35,434,080
constexpr std::int64_t CHANNEL_STRIDE = Self::TWO_ENTRIES * TWO_STRIDE;                  // 70,868,160
// Where the last per-pass double of a record ends: a file cut before it
// leaves a double unread.
constexpr std::int64_t LAST_SCALE_END = (Self::PASSES - 1) * PASS_BYTES + SCALE_OFFSET + 8;

static_assert(RECORD_BYTES == 8948 && CHANNEL_STRIDE == 70'868'160);
static_assert(Self::CHANNELS * CHANNEL_STRIDE +
                  Self::B_ENTRIES * (Detail::GridTables::GRID_ROWS * Detail::GridTables::GRID_COLUMNS *
                                     Self::GRID_ENTRY_BYTES) +
                  Self::A_ENTRIES * Self::B_ENTRIES * Self::ROW_BYTES ==
              Self::FILE_SIZE);

constexpr std::size_t RECORDS_IN_MEMORY = std::size_t(Self::CHANNELS) * 2 * 2 * 2 * Self::RECORDS;

std::size_t slotIndex(int channel, int slotTwo, int slotA, int slotB) {
    return ((std::size_t(channel) * 2 + std::size_t(slotTwo)) * 2 + std::size_t(slotA)) * 2 + std::size_t(slotB);
}

/// One record from its file form to its memory form.
void convertRecord(std::byte const* source, float* destination, String const& fileName, std::int64_t fileOffset) {
    float scales[Self::PASSES];
    for (int pass = 0; pass < Self::PASSES; ++pass) {
        double d;
        std::memcpy(&d, source + pass * PASS_BYTES + SCALE_OFFSET, sizeof d);
        d = Io::Detail::fromLittleEndian(d);
        if (!std::isfinite(d) || d == 0.0)
            throw Exception(fileName + ": the scale at offset " +
                            std::to_string(fileOffset + pass * PASS_BYTES + SCALE_OFFSET) + " is " + std::to_string(d) +
                            ", not a finite non-zero number: the file is damaged");
        scales[pass] = float(1.0 / d);
    }
    convertHalvesInterleaved(source, PASS_BYTES, Self::PASSES, Self::PASS_VALUES, nullptr, destination);
    convertHalvesInterleaved(source + SCALE_OFFSET + 8, PASS_BYTES, Self::PASSES, Self::SCALED_VALUES, scales,
                             destination + Self::SCALED_OFFSET);
    convertHalvesToFloats(source + TAIL_BYTES_OFFSET, destination + Self::TAIL_OFFSET, Self::TAIL_VALUES);
}
} // namespace

String PrgSkyModelData::Configuration::toString() const {
    return std::to_string(channelIndex[0]) + "," + std::to_string(channelIndex[1]) + "," +
           std::to_string(channelIndex[2]) + "," + std::to_string(indexA) + "," + std::to_string(indexB);
}

/// Reading and converting the slabs, shared by the threads that call work():
/// one thread at a time reads, in file order, on the one stream (forward seeks
/// only); the others convert the slabs already read. A thread waits only while
/// another holds the work it could take, so a single thread never waits.
class PrgSkyModelData::SlabPipeline : Noncopyable {
  public:
    SlabPipeline(PrgSkyModelData& data, Detail::SkyDataReader& reader, Stack<Slab> const& slabs,
                 Function<void()> readRest)
        : mData(data), mReader(reader), mSlabs(slabs), mReadRest(std::move(readRest)) {
        for (auto& buffer : mBuffers)
            buffer = std::make_unique_for_overwrite<std::byte[]>(std::size_t(2 * B_STRIDE));
        for (auto& buffer : mBuffers)
            mFree.push_back(buffer.get());
    }

    void work() {
        std::unique_lock lock(mMutex);
        while (!mError && (mConverted < mSlabs.size() || mNextRead <= mSlabs.size())) {
            try {
                if (!mReady.empty()) {
                    auto const [slab, bytes] = mReady.front();
                    mReady.erase(mReady.begin());
                    lock.unlock();
                    mData.convertRecords(*slab, bytes, mReader.getStream().getName());
                    lock.lock();
                    ++mConverted;
                    mFree.push_back(bytes);
                } else if (!mReading && mNextRead < mSlabs.size() && !mFree.empty()) {
                    Slab const& slab = mSlabs[mNextRead++];
                    std::byte* const bytes = mFree.back();
                    mFree.pop_back();
                    mReading = true;
                    lock.unlock();
                    mReader.skip(slab.fileOffset - mReader.getStream().tell());
                    readSlab(mReader, slab, bytes);
                    lock.lock();
                    mReading = false;
                    mReady.emplace_back(&slab, bytes);
                } else if (!mReading && mNextRead == mSlabs.size()) {
                    ++mNextRead; // the sections after the radiance records
                    mReading = true;
                    lock.unlock();
                    mReadRest();
                    lock.lock();
                    mReading = false;
                } else {
                    mChanged.wait(lock);
                    continue;
                }
            } catch (...) {
                if (!lock.owns_lock())
                    lock.lock();
                mError = std::current_exception();
            }
            mChanged.notify_all();
        }
    }

    void rethrow() const {
        if (mError)
            std::rethrow_exception(mError);
    }

  private:
    PrgSkyModelData& mData;
    Detail::SkyDataReader& mReader;
    Stack<Slab> const& mSlabs;
    Function<void()> mReadRest;
    StaticArray<std::unique_ptr<std::byte[]>, 3> mBuffers; // a third lets reading run ahead
    Mutex mMutex;
    std::condition_variable mChanged;
    Stack<std::byte*> mFree;
    Stack<std::pair<Slab const*, std::byte*>> mReady; // read, not yet taken for conversion
    std::size_t mNextRead = 0, mConverted = 0;
    bool mReading = false;
    std::exception_ptr mError;
};

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
    bool allPairs = a.count == 2 && b.count == 2;
    for (int c = 0; c < CHANNELS; ++c)
        allPairs = allPairs && GridBracket::of(mConfiguration.channelIndex[c], TWO_ENTRIES).count == 2;
    std::size_t const floats = RECORDS_IN_MEMORY * RECORD_FLOATS;
    mRecords = std::make_unique_for_overwrite<float[]>(floats);
    if (!allPairs)
        std::fill_n(mRecords.get(), floats, 0.f); // slots without an entry stay zero

    // The slabs of loaded B entries, in file order.
    Stack<Slab> slabs;
    for (int c = 0; c < CHANNELS; ++c) {
        GridBracket const two = GridBracket::of(mConfiguration.channelIndex[c], TWO_ENTRIES);
        for (int slotTwo = 0; slotTwo < two.count; ++slotTwo)
            for (int slotA = 0; slotA < a.count; ++slotA)
                slabs.push_back({c * CHANNEL_STRIDE + (two.lower + slotTwo) * TWO_STRIDE +
                                     (a.lower + slotA) * A_STRIDE + b.lower * B_STRIDE,
                                 slotIndex(c, slotTwo, slotA, 0) * RECORDS, b.count * RECORDS});
    }
    Detail::SkyDataReader reader(stream);
    SlabPipeline pipeline(*this, reader, slabs, [&] {
        reader.skip(CHANNELS * CHANNEL_STRIDE - stream.tell());
        mTables.read(reader, a, b);
    });
    // Two threads share the work when the scheduler has a second one free;
    // one alone does it all in the same order.
    parallelFor(0, 2, 1, [&](std::int64_t, std::int64_t) { pipeline.work(); });
    pipeline.rethrow();
    mStats = reader.finish();
}

void PrgSkyModelData::readSlab(Detail::SkyDataReader& reader, Slab const& slab, std::byte* bytes) {
    std::size_t const wanted = std::size_t(slab.records * RECORD_BYTES);
    std::size_t const got = reader.readUpTo(bytes, wanted);
    if (got != wanted) {
        // The reading stops at the first value the file no longer holds.
        if (std::int64_t(got) % RECORD_BYTES < LAST_SCALE_END)
            throw Exception("Could not load object from the stream.");
        throw Exception("Unexpected end of " + reader.getStream().getName() + " at offset " +
                        std::to_string(slab.fileOffset + std::int64_t(got)) + ", inside a record");
    }
}

void PrgSkyModelData::convertRecords(Slab const& slab, std::byte const* bytes, String const& fileName) {
    // The loaded B entries are neighbours in both the file and memory.
    for (int r = 0; r < slab.records; ++r)
        convertRecord(bytes + r * RECORD_BYTES, mRecords.get() + (slab.firstRecord + std::size_t(r)) * RECORD_FLOATS,
                      fileName, slab.fileOffset + r * RECORD_BYTES);
}

std::span<float const, PrgSkyModelData::RECORD_FLOATS> PrgSkyModelData::getRecord(int channel, int slotTwo, int slotA,
                                                                                   int slotB, int record) const {
    std::size_t const index = slotIndex(channel, slotTwo, slotA, slotB) * RECORDS + std::size_t(record);
    return std::span<float const, RECORD_FLOATS>(mRecords.get() + index * RECORD_FLOATS, RECORD_FLOATS);
}

std::int64_t PrgSkyModelData::getMemoryUsage() const {
    return std::int64_t(RECORDS_IN_MEMORY * RECORD_FLOATS * sizeof(float)) + mTables.getMemoryUsage();
}

ModelDataCache<PrgSkyModelData>& PrgSkyModelData::getCache() {
    // Four slices (about 60 MB) keep a sky whose sun moves across entries
    // from reloading the slices it just left.
    static ModelDataCache<PrgSkyModelData> sCache(4);
    return sCache;
}

} // namespace Quelin

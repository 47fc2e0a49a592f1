#include "Ferrim/SkyMap/PrgSkyModelData.h"
#include "Ferrim/SkyMap/HalfConversion.h"
#include "Ferrim/SkyMap/ModelDataCache.h"
#include "QuelinLib/TaskScheduler.h"
#include <algorithm>
#include <condition_variable>
#include <cmath>
#include <cstring>
#include <deque>

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
        // Values are scaled in float: the scale and its reciprocal must both
        // be ordinary floats (1e-300 is non-zero but becomes 0 and then infinity).
        float const scale = float(d);
        float const reciprocal = float(1.0 / d);
        if (!std::isnormal(scale) || !std::isfinite(reciprocal))
            throw Exception(fileName + ": the scale at offset " +
                            std::to_string(fileOffset + pass * PASS_BYTES + SCALE_OFFSET) + " is " + std::to_string(d) +
                            ", not a normal float with a finite reciprocal: the file is damaged");
        scales[pass] = reciprocal;
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

/// Reading and converting the slabs, shared by the threads that call work().
/// The first thread in reads, in file order on the one stream (forward seeks
/// only), and never waits for the others: when every buffer awaits
/// conversion it converts a piece itself. Later threads convert pieces of the
/// slabs already read, and wait while there are none.
class PrgSkyModelData::SlabPipeline : Noncopyable {
  public:
    SlabPipeline(PrgSkyModelData& data, Detail::SkyDataReader& reader, Stack<Slab> const& slabs,
                 Function<void()> readRest)
        : mData(data), mReader(reader), mSlabs(slabs), mReadRest(std::move(readRest)) {
        for (auto& buffer : mBuffers) {
            buffer.bytes = std::make_unique_for_overwrite<std::byte[]>(std::size_t(2 * B_STRIDE));
            mFree.push_back(&buffer);
        }
    }

    void work() {
        std::unique_lock lock(mMutex);
        bool const reader = !std::exchange(mReaderTaken, true);
        try {
            if (reader) {
                for (Slab const& slab : mSlabs) {
                    while (mFree.empty() && !mError) { // every buffer holds a slab not yet converted
                        if (mPieces.empty())
                            mChanged.wait(lock); // their last pieces are with the other threads
                        else
                            convertOne(lock);
                    }
                    if (mError)
                        return;
                    Buffer* const buffer = mFree.back();
                    mFree.pop_back();
                    lock.unlock();
                    mReader.skip(slab.fileOffset - mReader.getStream().tell());
                    readSlab(mReader, slab, buffer->bytes.get());
                    lock.lock();
                    for (int first = 0; first < slab.records; first += RECORDS_PER_PIECE, ++buffer->pieces)
                        mPieces.push_back({&slab, buffer, first, std::min(first + RECORDS_PER_PIECE, slab.records)});
                    mChanged.notify_all();
                }
                lock.unlock();
                mReadRest();
                lock.lock();
                mReadingDone = true;
                mChanged.notify_all();
            }
            while (!mError && (!mPieces.empty() || !mReadingDone)) {
                if (mPieces.empty())
                    mChanged.wait(lock);
                else
                    convertOne(lock);
            }
        } catch (...) {
            if (!lock.owns_lock())
                lock.lock();
            mError = std::current_exception();
            mChanged.notify_all();
        }
    }

    void rethrow() const {
        if (mError)
            std::rethrow_exception(mError);
    }

  private:
    // A slab of two B entries makes four pieces: small enough that no thread
    // holds work long, large enough to keep the locking rare.
    static constexpr int RECORDS_PER_PIECE = 15;

    struct Buffer {
        std::unique_ptr<std::byte[]> bytes;
        int pieces = 0; // not yet converted
    };
    struct Piece {
        Slab const* slab;
        Buffer* buffer;
        int begin, end;
    };

    /// Converts the first queued piece; called with the lock held and a piece queued.
    void convertOne(std::unique_lock<Mutex>& lock) {
        Piece const piece = mPieces.front();
        mPieces.pop_front();
        lock.unlock();
        mData.convertRecords(*piece.slab, piece.buffer->bytes.get(), piece.begin, piece.end,
                             mReader.getStream().getName());
        lock.lock();
        if (--piece.buffer->pieces == 0) {
            mFree.push_back(piece.buffer);
            mChanged.notify_all();
        }
    }

    PrgSkyModelData& mData;
    Detail::SkyDataReader& mReader;
    Stack<Slab> const& mSlabs;
    Function<void()> mReadRest;
    StaticArray<Buffer, 3> mBuffers; // a third lets the reader run ahead
    Mutex mMutex;
    std::condition_variable mChanged;
    Stack<Buffer*> mFree;
    std::deque<Piece> mPieces; // read, not yet taken for conversion
    bool mReaderTaken = false, mReadingDone = false;
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

void PrgSkyModelData::convertRecords(Slab const& slab, std::byte const* bytes, int begin, int end,
                                     String const& fileName) {
    // The loaded B entries are neighbours in both the file and memory.
    for (int r = begin; r < end; ++r)
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

// Reading the bracketing slices of the sky and sun data files: values from
// the right places, only the bytes the layout needs, forward seeks only.
#include <array>
#include <cmath>
#include <fstream>
#include <limits>
#include <gtest/gtest.h>

#include "Ferrim/SkyMap/PrgSkyModelData.h"
#include "Ferrim/SkyMap/PrgSunModelData.h"
#include "SkyTestSupport.h"
#include "TestSupport/ErrorOf.h"
#include "TestSupport/TempFolderTest.h"

using namespace Quelin;
using namespace Quelin::Testing;
namespace Files = Quelin::Testing::SkyFiles;

namespace {

/// A configuration with the bytes its slices take (worked out by hand from
/// the layout) and its reads (one per contiguous run of loaded entries).
template <typename Data> struct LoadCase {
    typename Data::Configuration configuration;
    std::int64_t bytes, reads;
    friend void PrintTo(LoadCase const& c, std::ostream* os) { *os << c.configuration.toString(); }
};
using SkyCase = LoadCase<PrgSkyModelData>;
using SunCase = LoadCase<PrgSunModelData>;

/// Loads a case through a recording stream and checks what the load read:
/// the bytes and reads, relative forward seeks only, ending at the file's end.
template <typename Data> std::unique_ptr<Data const> loadChecked(LoadCase<Data> const& c, char const* fileName) {
    RecordingStream stream(sharedSkyDataFolder() / fileName);
    auto data = std::make_unique<Data const>(c.configuration, stream);
    EXPECT_EQ(data->getLoadStats().bytesRead, c.bytes);
    EXPECT_EQ(data->getLoadStats().reads, c.reads);
    EXPECT_EQ(std::int64_t(stream.reads.size()), c.reads);
    for (auto const& [offset, origin] : stream.seeks)
        EXPECT_TRUE(offset > 0 && origin == Io::SeekOrigin::Current) << offset;
    EXPECT_EQ(stream.tell(), Data::FILE_SIZE);
    return data;
}

/// The grid and row sections as stored, for the loaded A and B entries.
template <typename Data>
void expectGridTables(Data const& data, std::int64_t gridStart, std::int64_t gridB, std::int64_t rowsStart,
                      std::int64_t rowA, std::int64_t rowB) {
    auto const as = Files::bracketOf(data.getConfiguration().indexA, 6);
    auto const bs = Files::bracketOf(data.getConfiguration().indexB, 22);
    for (int sb = 0; sb < int(bs.size()); ++sb) {
        EXPECT_TRUE(holdsBytesFrom(data.getGrid(sb), gridStart + bs[sb] * gridB)) << sb;
        for (int sa = 0; sa < int(as.size()); ++sa)
            EXPECT_TRUE(holdsBytesFrom(data.getRow(sa, sb), rowsStart + as[sa] * rowA + bs[sb] * rowB)) << sa << sb;
    }
}

class PrgSkyModelDataTest : public testing::TestWithParam<SkyCase> {};

TEST_P(PrgSkyModelDataTest, ReadsTheBracketingEntriesAndNothingElse) {
    auto const data = loadChecked(GetParam(), "PrgSkyModelData.dat");
    auto const& cfg = GetParam().configuration;
    auto const as = Files::bracketOf(cfg.indexA, 6), bs = Files::bracketOf(cfg.indexB, 22);
    // Both ways of reading a record, value by value and whole; first: the flat
    // index of the first wrong float.
    std::int64_t mismatches[2] = {}, first[2] = {-1, -1};
    std::array<float, PrgSkyModelData::RECORD_FLOATS> whole;
    for (int c = 0; c < 3; ++c) {
        auto const twos = Files::bracketOf(cfg.channelIndex[std::size_t(c)], 2);
        for (int slot = 0; slot < 8 * 30; ++slot) {
            int const st = slot / 120, sa = slot / 60 % 2, sb = slot / 30 % 2, r = slot % 30;
            bool const loaded = st < int(twos.size()) && sa < int(as.size()) && sb < int(bs.size());
            auto const record = data->getRecord(c, st, sa, sb, r);
            whole.fill(std::numeric_limits<float>::quiet_NaN());
            record.toFloats(whole);
            for (int k = 0; k < PrgSkyModelData::RECORD_FLOATS; ++k) {
                // Slots without an entry stay zero.
                float const expected =
                    loaded ? Files::expectedRecordValue(Files::skyRecordOffset(c, twos[st], as[sa], bs[sb], r), k)
                           : 0.f;
                for (int way = 0; way < 2; ++way) {
                    float const got = way == 0 ? record[k] : whole[std::size_t(k)];
                    if (std::bit_cast<std::uint32_t>(got) != std::bit_cast<std::uint32_t>(expected) &&
                        !mismatches[way]++)
                        first[way] = (c * 240 + slot) * PrgSkyModelData::RECORD_FLOATS + k;
                }
            }
        }
    }
    EXPECT_EQ(mismatches[0], 0) << "value by value, first at " << first[0];
    EXPECT_EQ(mismatches[1], 0) << "whole records, first at " << first[1];
    expectGridTables(*data, Files::SKY_GRID_START, Files::SKY_GRID_B, Files::SKY_ROWS_START, Files::SKY_ROW_A,
                     Files::SKY_ROW_B);
}

INSTANTIATE_TEST_SUITE_P(
    Configurations, PrgSkyModelDataTest,
    testing::Values(
        // Every index inside: 24 slabs of 2 x 268,440 + 2 grids of 1,111,808 + 4 rows of 96.
        SkyCase{{{0, 0, 0}, 2, 7}, 8'666'560, 15},
        // The channels bracketing differently: channel 1 at its last entry.
        SkyCase{{{0, 1, 0}, 2, 7}, 5'368'800 + 2'223'616 + 384, 13},
        // Every index at its last entry: one entry per dimension.
        SkyCase{{{1, 1, 1}, 5, 21}, 805'320 + 1'111'808 + 96, 5}));

class PrgSkyModelDataFaults : public TempFolderTest {};

TEST_F(PrgSkyModelDataFaults, AFileCutBeforeAPerPassScaleIsTheStreamError) {
    for (auto const& [cut, message] : {std::pair{550 + 3, "Could not load object from the stream."}, // in a scale
                                       std::pair{8'712 + 10, "Unexpected end of \""}}) { // after the last scale
        Io::Path const path = mFolder / "cut.dat";
        Files::SparseFile(path, 2 * Files::SKY_RECORD).writeSkyRecords(0, 2);
        std::filesystem::resize_file(path, std::uintmax_t(cut));
        RecordingStream stream(path, Files::SKY_SIZE); // the file shrank after its size was checked
        String const error = errorOf([&] { PrgSkyModelData const data({{0, 0, 0}, 0, 0}, stream); });
        EXPECT_EQ(error.rfind(message, 0), 0u) << "a cut at " << cut << ": " << error;
    }
}

TEST_F(PrgSkyModelDataFaults, ScalesThatAreNotNormalFloatsWithFiniteReciprocalsAreRefused) {
    // 1e-300 is finite and non-zero as a double, but 0 as a float and infinite once inverted.
    Io::Path const path = mFolder / "scaled.dat";
    Files::writeSkyFile(path, {{{0, 0, 0}, 0, 0}});
    std::int64_t const offset = Files::skyRecordOffset(0, 0, 0, 0, 0) + 550;
    for (double scale : {1e-300, 1e-40, 0.0, 1e39, std::numeric_limits<double>::infinity(), std::nan("")}) {
        {
            std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
            file.seekp(offset);
            file.write(reinterpret_cast<char const*>(&scale), sizeof scale);
        }
        RecordingStream stream(path);
        String const error = errorOf([&] { PrgSkyModelData const data({{0, 0, 0}, 0, 0}, stream); });
        EXPECT_NE(error.find("the scale at offset " + std::to_string(offset)), String::npos) << "a scale of " << scale << ": " << error;
    }
}

TEST_F(PrgSkyModelDataFaults, IndicesOutsideTheirRangesAreRefusedBeforeReading) {
    RecordingStream sky(sharedSkyDataFolder() / "PrgSkyModelData.dat");
    using Config = PrgSkyModelData::Configuration;
    for (Config const& c : std::initializer_list<Config>{{{0, 2, 0}, 0, 0}, {{0, 0, -1}, 0, 0}, {{0, 0, 0}, 6, 0},
                                                          {{0, 0, 0}, 0, 22}})
        EXPECT_THROW(PrgSkyModelData(c, sky), Exception) << c.toString();
    RecordingStream sun(sharedSkyDataFolder() / "PrgSunModelData.dat");
    EXPECT_THROW(PrgSunModelData({-1, 0}, sun), Exception);
    EXPECT_THROW(PrgSunModelData({0, 22}, sun), Exception);
    EXPECT_TRUE(sky.reads.empty() && sun.reads.empty());
}

TEST(PrgSunModelDataTest, ReadsTheBracketingEntriesAsStored) {
    // Two grids and four rows; at the last entries one of each.
    for (SunCase const& c : {SunCase{{2, 7}, 3'337'536, 3}, SunCase{{5, 21}, 1'667'712 + 528, 2}}) {
        SCOPED_TRACE(c.configuration.toString());
        expectGridTables(*loadChecked(c, "PrgSunModelData.dat"), 0, Files::SUN_GRID_B, Files::SUN_ROWS_START,
                         Files::SUN_ROW_A, Files::SUN_ROW_B);
    }
}

} // namespace

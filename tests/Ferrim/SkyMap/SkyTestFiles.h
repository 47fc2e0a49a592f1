#pragma once
// Sparse, full-size sky, sun and clouds data files for tests and benchmarks.
// Each stored value is a function of its file offset, so a read from a wrong
// place gives a wrong value (or, from a hole, a zero scale that is refused).
// The offsets come from the documented layout, not from the library.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "QuelinLib/Half.h"

namespace Quelin::Testing::SkyFiles {

constexpr std::int64_t SKY_SIZE = 237'076'928, SUN_SIZE = 36'759'360, CLOUDS_SIZE = 6'356'992;
// Sky: radiance records by channel, two-entry dimension, A, B; then a grid per B; then rows per A and B.
constexpr std::int64_t SKY_RECORD = 8'948, SKY_B = 268'440, SKY_A = 5'905'680, SKY_TWO = 35'434'080,
                       SKY_CHANNEL = 70'868'160, SKY_GRID_START = 212'604'480, SKY_GRID_B = 1'111'808,
                       SKY_ROWS_START = SKY_GRID_START + 22 * SKY_GRID_B, SKY_ROW_A = 2'112, SKY_ROW_B = 96;
// Sun: a grid per B, then rows per A and B.
constexpr std::int64_t SUN_GRID_B = 1'667'712, SUN_ROWS_START = 22 * SUN_GRID_B, SUN_ROW_A = 11'616, SUN_ROW_B = 528;

inline std::uint64_t mix(std::uint64_t x) { // splitmix64
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}
/// The half stored at `offset`: finite, either sign, subnormals included.
inline std::uint16_t halfAt(std::int64_t offset) {
    std::uint64_t const h = mix(std::uint64_t(offset));
    return std::uint16_t((h % 0x7C00u) | ((h >> 32) & 0x8000u));
}
/// The per-pass scale at `offset`: +-2^k with k in -3..3 but never 0 (so that
/// dividing is exact and a forgotten division shows).
inline double scaleAt(std::int64_t offset) {
    std::uint64_t const h = mix(std::uint64_t(offset) ^ 0x5CA1Eull);
    int const k = int(h % 6) - 3;
    return std::ldexp((h >> 8) & 1 ? -1.0 : 1.0, k >= 0 ? k + 1 : k);
}
inline std::uint8_t byteAt(std::int64_t offset) { return std::uint8_t(mix(std::uint64_t(offset)) >> 56); }

inline std::int64_t skyRecordOffset(int channel, int two, int a, int b, int record) {
    return channel * SKY_CHANNEL + two * SKY_TWO + a * SKY_A + b * SKY_B + record * SKY_RECORD;
}
/// What a loaded record holds at float `k`: 9 passes of 968 bytes (275 halves,
/// a scale, 205 halves divided by it) interleaved pass-fastest, then 118 halves.
inline float expectedRecordValue(std::int64_t record, int k) {
    if (k < 2475) return halfToFloat(halfAt(record + (k % 9) * 968 + (k / 9) * 2));
    if (k < 4320) {
        std::int64_t const pass = record + ((k - 2475) % 9) * 968;
        return float(double(halfToFloat(halfAt(pass + 558 + ((k - 2475) / 9) * 2))) / scaleAt(pass + 550));
    }
    return halfToFloat(halfAt(record + 8712 + (k - 4320) * 2));
}

/// The entries a lower index brackets.
inline std::vector<int> bracketOf(int lower, int entries) {
    return lower + 1 < entries ? std::vector<int>{lower, lower + 1} : std::vector<int>{lower};
}

/// A file of a given size, written only where asked.
class SparseFile {
  public:
    SparseFile(std::filesystem::path const& path, std::int64_t size) {
        std::ofstream(path, std::ios::binary | std::ios::trunc).close();
        std::filesystem::resize_file(path, std::uintmax_t(size));
        mFile.open(path, std::ios::binary | std::ios::in | std::ios::out);
        if (!mFile) throw std::runtime_error("cannot write " + path.string());
    }
    /// `size` bytes of byteAt.
    void writeBytes(std::int64_t offset, std::int64_t size) {
        std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
        for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = byteAt(offset + std::int64_t(i));
        write(offset, bytes);
    }
    /// `count` sky records of halfAt and scaleAt.
    void writeSkyRecords(std::int64_t offset, int count) {
        std::vector<std::uint8_t> bytes(static_cast<std::size_t>(count * SKY_RECORD));
        for (std::int64_t at = 0; at < count * SKY_RECORD; at += 2) {
            std::int64_t const inPass = at % SKY_RECORD < 8712 ? at % SKY_RECORD % 968 : 0;
            if (inPass == 550) {
                double const d = scaleAt(offset + at);
                std::memcpy(&bytes[std::size_t(at)], &d, 8);
                at += 6;
            } else {
                std::uint16_t const h = halfAt(offset + at);
                std::memcpy(&bytes[std::size_t(at)], &h, 2);
            }
        }
        write(offset, bytes);
    }

  private:
    void write(std::int64_t offset, std::vector<std::uint8_t> const& bytes) {
        mFile.seekp(offset);
        if (!mFile.write(reinterpret_cast<char const*>(bytes.data()), std::streamsize(bytes.size())))
            throw std::runtime_error("write failed");
    }
    std::fstream mFile;
};

struct SkySlice { int channelIndex[3]; int a, b; };

inline void writeSkyFile(std::filesystem::path const& path, std::vector<SkySlice> const& slices) {
    SparseFile file(path, SKY_SIZE);
    for (SkySlice const& s : slices)
        for (int b : bracketOf(s.b, 22)) {
            for (int a : bracketOf(s.a, 6)) {
                for (int c = 0; c < 3; ++c)
                    for (int two : bracketOf(s.channelIndex[c], 2))
                        file.writeSkyRecords(skyRecordOffset(c, two, a, b, 0), 30);
                file.writeBytes(SKY_ROWS_START + a * SKY_ROW_A + b * SKY_ROW_B, SKY_ROW_B);
            }
            file.writeBytes(SKY_GRID_START + b * SKY_GRID_B, SKY_GRID_B);
        }
}

inline void writeSunFile(std::filesystem::path const& path, std::vector<std::pair<int, int>> const& slices) {
    SparseFile file(path, SUN_SIZE);
    for (auto const& [lowerA, lowerB] : slices)
        for (int b : bracketOf(lowerB, 22)) {
            file.writeBytes(b * SUN_GRID_B, SUN_GRID_B);
            for (int a : bracketOf(lowerA, 6))
                file.writeBytes(SUN_ROWS_START + a * SUN_ROW_A + b * SUN_ROW_B, SUN_ROW_B);
        }
}

inline void writeCloudsFile(std::filesystem::path const& path) { SparseFile(path, CLOUDS_SIZE).writeBytes(0, CLOUDS_SIZE); }

} // namespace Quelin::Testing::SkyFiles

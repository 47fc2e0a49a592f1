#pragma once
// The clouds' source data, read whole from the clouds data file: three colour
// images, two tables kept as stored and a density volume.
#include "Ferrim/SkyMap/SkyDataFiles.h"
#include "QuelinLib/Types.h"

namespace Quelin {

class FERRIM_EXPORT CloudsData : Noncopyable {
  public:
    /// A square colour image, rows one after the other.
    struct ColorImage {
        int size = 0;
        Stack<Rgb> texels;
        Rgb const& at(int x, int y) const { return texels[std::size_t(y) * std::size_t(size) + std::size_t(x)]; }
    };

    static constexpr int IMAGE_COUNT = 3;
    static constexpr StaticArray<int, IMAGE_COUNT> IMAGE_SIZES{512, 128, 1024};
    /// Entries of 16 bytes: 256 x 64 in the first table, 64 x 16 in the second.
    static constexpr StaticArray<std::int64_t, 2> TABLE_BYTES{256 * 64 * 16, 64 * 16 * 16};
    static constexpr int VOLUME_SIZE = 128;
    static constexpr std::int64_t FILE_SIZE = 6'356'992;

    /// Locates and reads the clouds data file. Throws the base library's
    /// Exception when it is missing or damaged.
    CloudsData();
    /// Reads from an open clouds data file (positioned at its start).
    explicit CloudsData(Io::InputStream& stream);

    /// Colours are the stored bytes (blue, green, red) scaled to [0, 1].
    ColorImage const& getImage(int index) const { return mImages[std::size_t(index)]; }
    std::span<std::byte const> getTable(int index) const { return mTables[std::size_t(index)]; }
    /// 128 x 128 x 128 densities in [0, 1], x fastest.
    std::span<float const> getVolume() const { return mVolume; }
    float volumeAt(int x, int y, int z) const {
        return mVolume[(std::size_t(z) * VOLUME_SIZE + std::size_t(y)) * VOLUME_SIZE + std::size_t(x)];
    }

    SkyDataLoadStats const& getLoadStats() const { return mStats; }
    std::int64_t getMemoryUsage() const;

  private:
    StaticArray<ColorImage, IMAGE_COUNT> mImages;
    StaticArray<Stack<std::byte>, 2> mTables;
    Stack<float> mVolume;
    SkyDataLoadStats mStats;
};

} // namespace Quelin

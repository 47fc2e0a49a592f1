#include "Ferrim/SkyMap/Clouds/CloudsData.h"

namespace Quelin {

namespace {
// Bytes of colour and density data scale to [0, 1] by 1/255.
constexpr float BYTE_SCALE = 0.003921569f;

constexpr std::int64_t imageBytes(int size) { return std::int64_t(size) * size * 3; }

static_assert(imageBytes(512) + imageBytes(128) + imageBytes(1024) + 256 * 64 * 16 + 64 * 16 * 16 + 128 * 128 * 128 ==
              CloudsData::FILE_SIZE);
} // namespace

CloudsData::CloudsData()
    : CloudsData(*Detail::openSkyDataFile(
          CLOUDS_FILE_NAME, "Clouds data file not found in installation nor in resources directory.", FILE_SIZE)) {}

CloudsData::CloudsData(Io::InputStream& stream) {
    Detail::checkSkyDataFileSize(stream, FILE_SIZE);
    Detail::SkyDataReader reader(stream);
    Stack<std::uint8_t> bytes(std::size_t(imageBytes(IMAGE_SIZES[2])));
    for (int i = 0; i < IMAGE_COUNT; ++i) {
        ColorImage& image = mImages[std::size_t(i)];
        image.size = IMAGE_SIZES[std::size_t(i)];
        image.texels.resize(std::size_t(image.size) * std::size_t(image.size));
        reader.read(bytes.data(), image.texels.size() * 3);
        for (std::size_t t = 0; t < image.texels.size(); ++t) {
            std::uint8_t const* const bgr = bytes.data() + 3 * t;
            image.texels[t] = Rgb(float(bgr[2]) * BYTE_SCALE, float(bgr[1]) * BYTE_SCALE, float(bgr[0]) * BYTE_SCALE);
        }
    }
    for (std::size_t t = 0; t < mTables.size(); ++t) {
        mTables[t].resize(std::size_t(TABLE_BYTES[t]));
        reader.read(mTables[t].data(), mTables[t].size());
    }
    mVolume.resize(std::size_t(VOLUME_SIZE) * VOLUME_SIZE * VOLUME_SIZE);
    reader.read(bytes.data(), mVolume.size());
    for (std::size_t v = 0; v < mVolume.size(); ++v)
        mVolume[v] = float(bytes[v]) * BYTE_SCALE;
    mStats = reader.finish();
}

std::int64_t CloudsData::getMemoryUsage() const {
    std::int64_t bytes = std::int64_t(mVolume.size() * sizeof(float));
    for (auto const& image : mImages)
        bytes += std::int64_t(image.texels.size() * sizeof(Rgb));
    for (auto const& table : mTables)
        bytes += std::int64_t(table.size());
    return bytes;
}

} // namespace Quelin

#include "QuelinLibImage/Image.h"
#include "QuelinLibImage/ImageLevelsWrite.h"
#include "QuelinLibImage/OiioPixelFormats.h"
#include "QuelinLib/MessageText.h"
#include <OpenImageIO/imageio.h>
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <new>
#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace Quelin {

// ------------------------------------------------------------ pixel formats

namespace {
struct FormatInfo {
    char const* name;
    int channels;
    ChannelType type;
    int bytes;
    bool alpha;
};

// clang-format off
constexpr FormatInfo FORMATS[PIXEL_FORMAT_COUNT] = {
    {"Mono8",          1, ChannelType::UInt8,          1,  false},
    {"Mono16",         1, ChannelType::UInt16,         2,  false},
    {"MonoFloat",      1, ChannelType::Float,          4,  false},
    {"MonoAlpha8",     2, ChannelType::UInt8,          2,  true},
    {"MonoAlpha16",    2, ChannelType::UInt16,         4,  true},
    {"MonoAlphaFloat", 2, ChannelType::Float,          8,  true},
    {"Rgb8",           3, ChannelType::UInt8,          3,  false},
    {"Rgb16",          3, ChannelType::UInt16,         6,  false},
    {"RgbFloat",       3, ChannelType::Float,          12, false},
    {"Rgba8",          4, ChannelType::UInt8,          4,  true},
    {"Rgba16",         4, ChannelType::UInt16,         8,  true},
    {"RgbaFloat",      4, ChannelType::Float,          16, true},
    {"Rgbe",           3, ChannelType::SharedExponent, 4,  false},
    {"MonoWithExp",    1, ChannelType::SharedExponent, 2,  false},
    {"MonoHalf",       1, ChannelType::Half,           2,  false},
    {"MonoAlphaHalf",  2, ChannelType::Half,           4,  true},
    {"RgbHalf",        3, ChannelType::Half,           6,  false},
    {"RgbaHalf",       4, ChannelType::Half,           8,  true},
};
// clang-format on

FormatInfo const& info(PixelFormat format) {
    auto const index = std::size_t(format);
    if (index >= std::size(FORMATS))
        Detail::throwStopException("QuelinLibImage/Image", __LINE__);
    return FORMATS[index];
}

float channelToFloat(std::byte const* p, ChannelType type) {
    switch (type) {
    case ChannelType::UInt8:
        return float(std::uint8_t(*p)) * (1.f / 255.f);
    case ChannelType::UInt16: {
        std::uint16_t v;
        std::memcpy(&v, p, 2);
        return float(v) * (1.f / 65535.f);
    }
    case ChannelType::Half: {
        std::uint16_t h;
        std::memcpy(&h, p, 2);
        return halfToFloat(h);
    }
    default: {
        float v;
        std::memcpy(&v, p, 4);
        return v;
    }
    }
}

void floatToChannel(float value, std::byte* p, ChannelType type) {
    // Integer channels: clamp to [0, 1], round to nearest; NaN stores 0.
    // Half: rounded to nearest, beyond its range infinite, NaN kept.
    if (type == ChannelType::Half) {
        std::uint16_t const h = floatToHalf(value);
        std::memcpy(p, &h, 2);
        return;
    }
    float const unit = value > 0.f ? std::min(value, 1.f) : 0.f;
    switch (type) {
    case ChannelType::UInt8:
        *p = std::byte(std::uint8_t(unit * 255.f + 0.5f));
        break;
    case ChannelType::UInt16: {
        auto const v = std::uint16_t(unit * 65535.f + 0.5f);
        std::memcpy(p, &v, 2);
        break;
    }
    default:
        std::memcpy(p, &value, 4);
        break;
    }
}
} // namespace

int getChannelCount(PixelFormat format) { return info(format).channels; }
ChannelType getChannelType(PixelFormat format) { return info(format).type; }
int getPixelBytes(PixelFormat format) { return info(format).bytes; }
bool hasAlpha(PixelFormat format) { return info(format).alpha; }
char const* getPixelFormatName(PixelFormat format) { return info(format).name; }

// ------------------------------------------------------------ pixel memory

namespace Detail {

namespace {
#if defined(__linux__)
constexpr std::size_t HUGE_PAGE = std::size_t(2) << 20;
/// From here up a block is mapped on its own: rounding up to whole huge pages wastes under a quarter of it.
constexpr std::size_t MAPPED_FROM = 4 * HUGE_PAGE;

std::size_t mappedBytes(std::size_t bytes) { return (bytes + HUGE_PAGE - 1) / HUGE_PAGE * HUGE_PAGE; }
#endif
} // namespace

void* allocatePixelMemory(std::size_t bytes) {
#if defined(__linux__)
    if (bytes >= MAPPED_FROM) {
        // Over-map by one huge page so that the block can start on a huge-page boundary.
        std::size_t const size = mappedBytes(bytes);
        void* const mapped = ::mmap(nullptr, size + HUGE_PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED)
            throw std::bad_alloc();
        auto const address = reinterpret_cast<std::uintptr_t>(mapped);
        std::uintptr_t const aligned = (address + HUGE_PAGE - 1) & ~(HUGE_PAGE - 1);
        if (aligned > address)
            ::munmap(mapped, aligned - address);
        if (std::size_t const tail = HUGE_PAGE - (aligned - address); tail > 0)
            ::munmap(reinterpret_cast<void*>(aligned + size), tail);
        // Only advice: without huge pages the block works the same.
        (void)::madvise(reinterpret_cast<void*>(aligned), size, MADV_HUGEPAGE);
        return reinterpret_cast<void*>(aligned);
    }
#endif
    return ::operator new(bytes);
}

void freePixelMemory(void* pointer, std::size_t bytes) noexcept {
#if defined(__linux__)
    if (bytes >= MAPPED_FROM) {
        ::munmap(pointer, mappedBytes(bytes));
        return;
    }
#endif
    ::operator delete(pointer);
}

} // namespace Detail

// ------------------------------------------------------------ image

Image::Image(Descriptor const& descriptor) : mDescriptor(descriptor) {
    if (descriptor.resolution.x < 0 || descriptor.resolution.y < 0) {
        throw Exception("Invalid image resolution " + std::to_string(descriptor.resolution.x) + " x " +
                        std::to_string(descriptor.resolution.y));
    }
    (void)info(descriptor.format);
    allocatePixels();
}

Image Image::makeForOverwrite(Descriptor const& descriptor) {
    if (descriptor.resolution.x < 0 || descriptor.resolution.y < 0)
        return Image(descriptor); // its error
    Image image;
    (void)info(descriptor.format);
    image.mDescriptor = descriptor;
    image.allocatePixelsForOverwrite();
    return image;
}

Image Image::clone() const {
    Image copy;
    copy.mDescriptor = mDescriptor;
    copy.mPixels = mPixels;
    return copy;
}

void Image::releasePixels() { decltype(mPixels)().swap(mPixels); }

void Image::allocatePixelsForOverwrite() {
    if (mPixels.empty())
        mPixels.resize(std::size_t(mDescriptor.getByteSize()));
}

void Image::allocatePixels() {
    if (mPixels.empty())
        mPixels.assign(std::size_t(mDescriptor.getByteSize()), std::byte{0});
}

RgbAlpha Image::getRgbAlpha(int x, int y) const {
    PixelFormat const format = getFormat();
    checkFormat(format);
    std::byte const* const p =
        mPixels.data() + std::int64_t(y) * getRowBytes() + std::int64_t(x) * getPixelBytes(format);
    if (format == PixelFormat::Rgbe) {
        PixelRgbe e;
        std::memcpy(&e, p, sizeof e);
        return RgbAlpha(e.toRgb(), 1.f);
    }
    if (format == PixelFormat::MonoWithExp) {
        PixelMonoWithExp e;
        std::memcpy(&e, p, sizeof e);
        float const v = e.toFloat();
        return {v, v, v, 1.f};
    }
    FormatInfo const& f = info(format);
    int const step = f.bytes / f.channels;
    float c[4] = {0.f, 0.f, 0.f, 1.f};
    for (int i = 0; i < f.channels; ++i)
        c[i] = channelToFloat(p + i * step, f.type);
    switch (f.channels) {
    case 1:
        return {c[0], c[0], c[0], 1.f};
    case 2:
        return {c[0], c[0], c[0], c[1]};
    default:
        return {c[0], c[1], c[2], c[3]};
    }
}

void Image::setRgbAlpha(int x, int y, RgbAlpha const& value) {
    PixelFormat const format = getFormat();
    checkFormat(format);
    std::byte* const p = mPixels.data() + std::int64_t(y) * getRowBytes() + std::int64_t(x) * getPixelBytes(format);
    float const mono = channelMean(value.r, value.g, value.b);
    if (format == PixelFormat::Rgbe) {
        auto const e = PixelRgbe::fromRgb(value.rgb());
        std::memcpy(p, &e, sizeof e);
        return;
    }
    if (format == PixelFormat::MonoWithExp) {
        auto const e = PixelMonoWithExp::fromFloat(mono);
        std::memcpy(p, &e, sizeof e);
        return;
    }
    FormatInfo const& f = info(format);
    int const step = f.bytes / f.channels;
    float c[4];
    switch (f.channels) {
    case 1:
        c[0] = mono;
        break;
    case 2:
        c[0] = mono;
        c[1] = value.alpha;
        break;
    default:
        c[0] = value.r;
        c[1] = value.g;
        c[2] = value.b;
        c[3] = value.alpha;
        break;
    }
    for (int i = 0; i < f.channels; ++i)
        floatToChannel(c[i], p + i * step, f.type);
}

Image Image::convertedTo(PixelFormat format) const {
    if (format == getFormat())
        return clone();
    Image result(Descriptor(getResolution(), format));
    for (int y = 0; y < getHeight(); ++y)
        for (int x = 0; x < getWidth(); ++x)
            result.setRgbAlpha(x, y, getRgbAlpha(x, y));
    return result;
}

// ------------------------------------------------------------ writing

namespace {
String lowerExtension(Io::Path const& path) {
    String ext = Io::pathToUtf8(path.extension());
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return ext;
}

FileChannelType autoChannelType(ChannelType source, String const& ext) {
    if (ext == ".exr")
        return source == ChannelType::Float || source == ChannelType::SharedExponent ? FileChannelType::Float
                                                                                     : FileChannelType::Half;
    // Halves stay where the writer stores them (OpenImageIO 2.4's TIFF writer
    // widens them to float on its own).
    if (source == ChannelType::Half && ext != ".png")
        return FileChannelType::Half;
    if (source == ChannelType::UInt8)
        return FileChannelType::UInt8;
    if (source == ChannelType::UInt16 || ext == ".png")
        return FileChannelType::UInt16;
    return FileChannelType::Float;
}

OIIO::TypeDesc toTypeDesc(FileChannelType type) {
    switch (type) {
    case FileChannelType::UInt8:
        return OIIO::TypeDesc::UINT8;
    case FileChannelType::UInt16:
        return OIIO::TypeDesc::UINT16;
    case FileChannelType::Half:
        return OIIO::TypeDesc::HALF;
    default:
        return OIIO::TypeDesc::FLOAT;
    }
}

} // namespace

Expected<void> writeImage(Image const& image, Io::Path const& path, ImageWriteOptions const& options) {
    return writeImageLevels(std::span<Image const>(&image, 1), path, options, 0);
}

Expected<void> writeImageLevels(std::span<Image const> levels, Io::Path const& path, ImageWriteOptions const& options, int tileSize) {
    String const name = Io::pathToUtf8(path);
    // The codec library's messages may span lines; errors are one line each.
    auto const fail = [&](String const& why) { return makeError("Could not write image \"" + name + "\": " + singleLine(why)); };
    if (levels.empty() || levels.front().isEmpty())
        return fail("the image is empty");
    for (Image const& level : levels)
        if (!level.hasPixels())
            return fail("the image's pixels are not in memory");
    if (tileSize < 0 || tileSize > 4096 || tileSize % 16 != 0)
        return fail("a tile side must be a multiple of 16 up to 4096, not " + std::to_string(tileSize));

    String const ext = lowerExtension(path);
    ChannelType const sourceType = getChannelType(levels.front().getFormat());
    FileChannelType const fileType =
        options.channelType == FileChannelType::Auto ? autoChannelType(sourceType, ext) : options.channelType;
    bool const integerType = fileType == FileChannelType::UInt8 || fileType == FileChannelType::UInt16;
    if (ext == ".png" && !integerType)
        return fail("PNG stores 8- or 16-bit channels only");
    if (ext == ".exr" && integerType)
        return fail("EXR stores half or float channels only");

    auto out = OIIO::ImageOutput::create(name);
    if (!out) {
        String const why = OIIO::geterror();
        return fail(why.empty() ? String("unknown file type") : why);
    }
    // TIFF keeps levels as subimages, which readers take as levels of a file
    // marked as a texture.
    bool const mipmap = out->supports("mipmap");
    if (levels.size() > 1 && !mipmap && !out->supports("appendsubimage"))
        return fail("the format stores no mip levels (EXR and TIFF do)");
    if (tileSize > 0 && !out->supports("tiles"))
        return fail("the format stores no tiles (EXR and TIFF do)");

    for (std::size_t i = 0; i < levels.size(); ++i) {
        // Shared-exponent pixels have no file counterpart: write them as float.
        Image const& level = levels[i];
        Image converted;
        Image const* source = &level;
        if (level.getFormat() == PixelFormat::Rgbe)
            source = &(converted = level.convertedTo(PixelFormat::RgbFloat));
        if (level.getFormat() == PixelFormat::MonoWithExp)
            source = &(converted = level.convertedTo(PixelFormat::MonoFloat));

        int const channels = getChannelCount(source->getFormat());
        OIIO::ImageSpec spec(source->getWidth(), source->getHeight(), channels, toTypeDesc(fileType));
        switch (channels) {
        case 1:
            spec.channelnames = {"Y"};
            spec.alpha_channel = -1;
            break;
        case 2:
            spec.channelnames = {"Y", "A"};
            spec.alpha_channel = 1;
            break;
        case 3:
            spec.channelnames = {"R", "G", "B"};
            spec.alpha_channel = -1;
            break;
        default:
            spec.channelnames = {"R", "G", "B", "A"};
            spec.alpha_channel = 3;
            break;
        }
        if (tileSize > 0)
            spec.tile_width = spec.tile_height = tileSize;
        // Readers that know textures (ours, and the codec library's texture
        // system) take a file with levels as a ready mip chain.
        if (levels.size() > 1)
            spec.attribute("textureformat", "Plain Texture");
        // Our pixels carry straight alpha: formats that store it straight (PNG)
        // must not divide it out once more.
        spec.attribute("oiio:UnassociatedAlpha", 1);
        if (!options.compression.empty())
            spec.attribute("compression", options.compression);
        if (!options.colorSpace.empty()) {
            spec.attribute("oiio:ColorSpace", options.colorSpace);
            if (options.colorSpace == "Gamma2.2")
                spec.attribute("oiio:Gamma", 2.2f);
            // EXIF: 1 is sRGB, 0xFFFF uncalibrated.
            spec.attribute("Exif:ColorSpace", options.colorSpace == "sRGB" ? 1 : 0xFFFF);
        }
        if (options.chromaticities)
            spec.attribute("chromaticities", OIIO::TypeDesc(OIIO::TypeDesc::FLOAT, 8), options.chromaticities->data());

        if (!out->open(name, spec, i == 0   ? OIIO::ImageOutput::Create
                                : mipmap ? OIIO::ImageOutput::AppendMIPLevel
                                         : OIIO::ImageOutput::AppendSubimage))
            return fail(out->geterror());
        OIIO::TypeDesc const memoryType = typeDescOf(getChannelType(source->getFormat()));
        if (!out->write_image(memoryType, source->getData())) {
            String const why = out->geterror();
            out->close();
            return fail(why);
        }
    }
    if (!out->close())
        return fail(out->geterror());
    return {};
}

} // namespace Quelin

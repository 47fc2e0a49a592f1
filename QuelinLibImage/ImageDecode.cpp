#include "QuelinLibImage/ImageDecode.h"
#include "QuelinLibImage/OiioPixelFormats.h"

#include "QuelinLibImage/ImageLimits.h"

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>
#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <new>

namespace Quelin {

namespace {

struct FormatEntry {
    ImageFormat format;
    char const* name;       // for messages
    char const* pluginName; // the codec library's reader
};
constexpr FormatEntry FORMATS[] = {
    {ImageFormat::Exr, "EXR", "openexr"},  {ImageFormat::Hdr, "HDR", "hdr"},   {ImageFormat::Png, "PNG", "png"},
    {ImageFormat::Jpeg, "JPEG", "jpeg"},   {ImageFormat::Tiff, "TIFF", "tiff"}, {ImageFormat::Tga, "TGA", "targa"},
    {ImageFormat::Bmp, "BMP", "bmp"},
};

FormatEntry const& entry(ImageFormat format) {
    for (auto const& e : FORMATS)
        if (e.format == format)
            return e;
    Detail::throwStopException("QuelinLibImage/ImageDecode", __LINE__);
}

struct ContentType {
    char const* text;
    ImageFormat format;
};
// MIME types (registered and the common unregistered x- forms) and extensions.
constexpr ContentType CONTENT_TYPES[] = {
    {"image/x-exr", ImageFormat::Exr},       {"image/exr", ImageFormat::Exr},       {"exr", ImageFormat::Exr},
    {"image/vnd.radiance", ImageFormat::Hdr}, {"image/x-hdr", ImageFormat::Hdr},     {"image/hdr", ImageFormat::Hdr},
    {"hdr", ImageFormat::Hdr},                {"rgbe", ImageFormat::Hdr},            {"pic", ImageFormat::Hdr},
    {"image/png", ImageFormat::Png},          {"png", ImageFormat::Png},             {"image/jpeg", ImageFormat::Jpeg},
    {"image/jpg", ImageFormat::Jpeg},         {"image/pjpeg", ImageFormat::Jpeg},    {"jpg", ImageFormat::Jpeg},
    {"jpeg", ImageFormat::Jpeg},              {"jpe", ImageFormat::Jpeg},            {"image/tiff", ImageFormat::Tiff},
    {"image/tif", ImageFormat::Tiff},         {"tif", ImageFormat::Tiff},            {"tiff", ImageFormat::Tiff},
    {"tx", ImageFormat::Tiff},                {"image/x-tga", ImageFormat::Tga},     {"image/x-targa", ImageFormat::Tga},
    {"image/tga", ImageFormat::Tga},          {"image/targa", ImageFormat::Tga},     {"tga", ImageFormat::Tga},
    {"targa", ImageFormat::Tga},              {"image/bmp", ImageFormat::Bmp},       {"image/x-bmp", ImageFormat::Bmp},
    {"image/x-ms-bmp", ImageFormat::Bmp},     {"bmp", ImageFormat::Bmp},             {"dib", ImageFormat::Bmp},
};

/// Error texts of the codec library span lines and may quote bytes of the
/// file: one line of printable text, of a readable length.
String toOneLine(StringView text) {
    constexpr std::size_t MAX_LENGTH = 300;
    String out;
    bool space = false;
    for (char c : text) {
        auto const u = static_cast<unsigned char>(c);
        if (u == '\n' || u == '\r' || u == '\t' || u == ' ') {
            space = !out.empty();
            continue;
        }
        if (space)
            out.push_back(' ');
        space = false;
        out.push_back(u >= 0x20 && u < 0x7F ? c : '?');
        if (out.size() >= MAX_LENGTH) {
            out += "...";
            break;
        }
    }
    return out;
}

/// The codec library reads our streams through this proxy: files and memory alike.
class StreamProxy final : public OIIO::Filesystem::IOProxy {
  public:
    explicit StreamProxy(Io::InputStream& stream) : IOProxy(stream.getName(), Read), mStream(stream) {
        auto size = stream.getSize();
        mSize = size ? std::size_t(std::max<std::int64_t>(*size, 0)) : 0;
    }
    char const* proxytype() const override { return "quelin-stream"; }
    bool seek(std::int64_t offset) override {
        if (offset < 0)
            return false;
        m_pos = offset;
        return true;
    }
    std::size_t read(void* buffer, std::size_t size) override {
        std::size_t const n = pread(buffer, size, m_pos);
        m_pos += std::int64_t(n);
        return n;
    }
    std::size_t pread(void* buffer, std::size_t size, std::int64_t offset) override {
        std::lock_guard lock(mMutex);
        if (offset < 0 || std::size_t(offset) >= mSize)
            return 0;
        // Readers mostly read on: seek only when they jump (a seek drops the file stream's buffer).
        if (mStream.tell() != offset && !mStream.seek(offset, Io::SeekOrigin::Begin))
            return 0;
        std::size_t done = 0;
        while (done < size) {
            std::size_t const n = mStream.readSome(static_cast<char*>(buffer) + done, size - done);
            if (n == 0)
                break;
            done += n;
        }
        return done;
    }
    std::size_t size() const override { return mSize; }

  private:
    Io::InputStream& mStream;
    std::size_t mSize = 0;
    Mutex mMutex;
};

/// Bytes `[offset, offset + size)` of the stream; fewer at its end.
std::size_t readAt(Io::InputStream& stream, std::int64_t offset, void* buffer, std::size_t size) {
    // Sequential reads go on without a seek (a seek drops the file stream's buffer).
    if (stream.tell() != offset && !stream.seek(offset, Io::SeekOrigin::Begin))
        return 0;
    std::size_t done = 0;
    while (done < size) {
        std::size_t const n = stream.readSome(static_cast<char*>(buffer) + done, size - done);
        if (n == 0)
            break;
        done += n;
    }
    return done;
}

/// CRC-32 as PNG chunks carry it (ISO 3309, as in PNG's published sample code).
struct Crc32 {
    std::array<std::uint32_t, 256> table{};
    Crc32() {
        for (std::uint32_t n = 0; n < 256; ++n) {
            std::uint32_t c = n;
            for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            table[n] = c;
        }
    }
    std::uint32_t update(std::uint32_t crc, unsigned char const* data, std::size_t size) const {
        for (std::size_t i = 0; i < size; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
        return crc;
    }
};

/// Where a container tells its own end, a file cut short is found before the
/// codec meets it (some codecs read past a missing tail, some print to the
/// console when they do). PNG chunks are also checked against their CRCs, so
/// that the codec, which prints its complaints, meets only intact chunks.
/// Null when the file is sound as far as the container goes; the codec's own
/// errors cover the rest.
Optional<String> findTruncation(Io::InputStream& stream, ImageFormat format, std::int64_t size) {
    if (format == ImageFormat::Png) {
        static Crc32 const crc;
        // Chunks: length (big-endian), type, data, CRC; the last is IEND.
        Stack<unsigned char> block(std::size_t(1) << 16);
        auto const be32 = [](unsigned char const* p) {
            return (std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) | (std::uint32_t(p[2]) << 8) | p[3];
        };
        std::int64_t offset = 8;
        for (;;) {
            unsigned char header[8];
            if (readAt(stream, offset, header, 8) != 8)
                return String("the file ends early: no IEND chunk");
            std::int64_t const length = be32(header);
            std::int64_t const end = offset + 12 + length;
            if (end > size)
                return "the file ends early: a chunk of " + std::to_string(length) + " bytes at offset " +
                       std::to_string(offset) + " runs past its end";
            // The CRC covers the type and the data; the stream is at the data now.
            std::uint32_t sum = crc.update(0xFFFFFFFFu, header + 4, 4);
            for (std::int64_t left = length; left > 0;) {
                std::size_t const n = std::size_t(std::min<std::int64_t>(left, std::int64_t(block.size())));
                if (readAt(stream, end - 4 - left, block.data(), n) != n)
                    return String("the file ends early");
                sum = crc.update(sum, block.data(), n);
                left -= std::int64_t(n);
            }
            unsigned char stored[4];
            if (readAt(stream, end - 4, stored, 4) != 4)
                return String("the file ends early");
            if ((sum ^ 0xFFFFFFFFu) != be32(stored))
                return "the chunk at offset " + std::to_string(offset) + " is damaged (CRC mismatch)";
            if (std::memcmp(header + 4, "IEND", 4) == 0)
                return std::nullopt;
            offset = end;
        }
    }
    if (format == ImageFormat::Tga && size >= 26) {
        // A version 2 file ends with an 18-byte signature; a tail of one that
        // stops inside it was cut.
        std::array<char, 26> tail{};
        if (readAt(stream, size - 26, tail.data(), tail.size()) != tail.size())
            return String("the file ends early");
        static constexpr char SIGNATURE[] = "TRUEVISION-XFILE";
        bool const complete = std::memcmp(tail.data() + 8, SIGNATURE, 16) == 0 && tail[24] == '.' && tail[25] == '\0';
        if (!complete) {
            for (std::size_t i = 9; i + 16 <= tail.size(); ++i)
                if (std::memcmp(tail.data() + i, SIGNATURE, 16) == 0)
                    return String("the file ends early: its footer is cut");
            // Uncompressed pixels have a known end; the version 2 extension
            // area that follows them starts with its size, 495. Found there
            // without the footer, the file lost its tail.
            unsigned char h[18];
            if (readAt(stream, 0, h, 18) == 18 && (h[2] == 1 || h[2] == 2 || h[2] == 3)) {
                std::int64_t const mapBytes = h[1] ? std::int64_t(h[5] | (h[6] << 8)) * ((h[7] + 7) / 8) : 0;
                std::int64_t const pixelEnd = 18 + h[0] + mapBytes +
                                              std::int64_t(h[12] | (h[13] << 8)) * std::int64_t(h[14] | (h[15] << 8)) *
                                                  ((h[16] + 7) / 8);
                unsigned char area[2];
                if (pixelEnd + 2 <= size && readAt(stream, pixelEnd, area, 2) == 2 && area[0] == 0xEF && area[1] == 0x01)
                    return String("the file ends early: its extension area and footer are cut");
            }
        }
    }
    return std::nullopt;
}

/// One decode: the reader, opened on the stream, with the texts for errors.
class Decoder {
  public:
    Decoder(Io::InputStream& stream, ImageFormat format, TaskProgress& progress, ImageDecodeOptions const& options)
        : mProxy(stream), mFormat(format), mProgress(progress), mName(stream.getName()) {
        mFileBytes = std::int64_t(mProxy.size());
        if (!stream.getSize())
            fail("cannot tell the size of the data");
        if (auto cut = findTruncation(stream, format, mFileBytes))
            fail(*cut);
        mInput = OIIO::ImageInput::create(entry(format).pluginName);
        if (!mInput)
            fail("no " + String(entry(format).name) + " reader: " + OIIO::geterror());
        // An error another reader of this thread left unread must not become this one's.
        (void)mInput->geterror();
        OIIO::ImageSpec config;
        // Textures keep alpha as stored; the reader would otherwise premultiply.
        if (!options.associateAlpha)
            config.attribute("oiio:UnassociatedAlpha", 1);
        if (format == ImageFormat::Jpeg) {
            // The JPEG reader takes files and memory only: it reads a copy of
            // the bytes (compressed, so a fraction of the decoded size).
            mBytes = readAllBytes(stream);
            mMemory = std::make_unique<OIIO::Filesystem::IOMemReader>(mBytes.data(), mBytes.size());
            mInput->set_ioproxy(mMemory.get());
        } else {
            mInput->set_ioproxy(&mProxy);
        }
        OIIO::ImageSpec spec;
        if (!mInput->open(mName, spec, config))
            fail("not a readable " + String(entry(format).name) + " image: " + mInput->geterror());
    }
    ~Decoder() {
        if (mInput)
            mInput->close();
    }

    void seekFirst() { mInput->seek_subimage(0, 0); }

    ImageColorTag colorTag() const {
        OIIO::ImageSpec const& spec = mInput->spec();
        return {String(spec.get_string_attribute("oiio:ColorSpace")), spec.get_float_attribute("oiio:Gamma", 0.f)};
    }

    [[noreturn]] void fail(String const& reason) const { throw Exception(toOneLine(mName + ": " + reason)); }

    Stack<Image> readLevels(bool allLevels) {
        Stack<Image> levels;
        for (int level = 0; allLevels || level == 0; ++level) {
            if (!mInput->seek_subimage(0, level)) {
                // The end of the chain, not a fault: the error it left is dropped
                // (OpenImageIO keeps errors per thread and would show it to a later reader).
                (void)mInput->geterror();
                break;
            }
            OIIO::ImageSpec const& spec = mInput->spec();
            PixelFormat format;
            if (level == 0) {
                checkSpec(spec);
                format = mFormat == ImageFormat::Hdr ? PixelFormat::Rgbe : pixelFormatFor(spec);
            } else {
                Pixel const finer = levels.back().getResolution();
                // A level that is not smaller than the one before is not a mip chain.
                if (spec.nchannels != mChannels || spec.width > finer.x || spec.height > finer.y ||
                    (spec.width == finer.x && spec.height == finer.y) || spec.width < 1 || spec.height < 1 || spec.depth != 1)
                    break;
                format = levels.front().getFormat();
            }
            levels.push_back(format == PixelFormat::Rgbe ? readRgbe(spec) : read(level, spec, format));
        }
        return levels;
    }

  private:
    Stack<unsigned char> readAllBytes(Io::InputStream& stream) {
        Stack<unsigned char> bytes;
        try {
            bytes.resize(std::size_t(mFileBytes));
        } catch (std::bad_alloc const&) {
            fail("not enough memory to read its " + std::to_string(mFileBytes) + " bytes");
        }
        if (readAt(stream, 0, bytes.data(), bytes.size()) != bytes.size())
            fail("the data ends early");
        return bytes;
    }

    /// An image of `format`, or an error naming the file and the size.
    Image allocate(OIIO::ImageSpec const& spec, PixelFormat format) {
        Image::Descriptor const descriptor({spec.width, spec.height}, format);
        try {
            return Image::makeForOverwrite(descriptor);
        } catch (std::bad_alloc const&) {
            fail("not enough memory for " + std::to_string(spec.width) + " x " + std::to_string(spec.height) + " " +
                 getPixelFormatName(format) + " pixels (" + std::to_string(descriptor.getByteSize() >> 20) + " MiB)");
        }
    }

    /// A codec that read to the end but met missing or damaged data says so
    /// as an error left pending, not as a failed read.
    void checkPendingError() {
        if (mInput->has_error())
            fail("decoding failed: " + mInput->geterror());
    }

    void checkSpec(OIIO::ImageSpec const& spec) {
        if (spec.deep)
            fail("deep images are not supported");
        if (spec.depth != 1)
            fail("volume images are not supported");
        if (spec.nchannels < 1)
            fail("the image has no channels");
        mChannels = spec.nchannels;
        // What the header declares against the limits and against what the
        // file's bytes can hold, before any pixel memory is asked for.
        DeclaredImageSize declared;
        declared.width = spec.width;
        declared.height = spec.height;
        declared.channels = spec.nchannels;
        for (int c = 0; c < spec.nchannels; ++c)
            declared.bytesPerChannel = std::max(declared.bytesPerChannel, int(spec.channelformat(c).size()));
        declared.fileBytes = mFileBytes;
        if (auto ok = checkDeclaredImageSize(mName, declared); !ok)
            throw Exception(toOneLine(ok.error()));
        PixelFormat const format = mFormat == ImageFormat::Hdr ? PixelFormat::Rgbe : pixelFormatFor(spec);
        if (auto ok = checkImageSize(spec.width, spec.height, format, mName); !ok)
            throw Exception(ok.error());
    }

    static bool onProgress(void* opaque, float portionDone) {
        auto* self = static_cast<Decoder*>(opaque);
        std::int64_t const done = std::int64_t(double(portionDone) * double(self->mRows));
        if (done > self->mRowsReported) {
            self->mProgress.addDone(done - self->mRowsReported);
            self->mRowsReported = done;
        }
        return self->mProgress.isCancelled(); // true stops the reader
    }

    Image read(int level, OIIO::ImageSpec const& spec, PixelFormat format) {
        Image image = allocate(spec, format);
        mRows = spec.height;
        mRowsReported = 0;
        mProgress.addTotal(mRows);
        int const channels = getChannelCount(format);
        // Read in the format's own channel type: 8 bits, 16 bits and half stay as stored.
        bool const ok = mInput->read_image(0, level, 0, channels, typeDescOf(getChannelType(format)), image.getData(),
                                           OIIO::AutoStride, OIIO::AutoStride, OIIO::AutoStride, &Decoder::onProgress,
                                           this);
        if (!ok)
            fail(mProgress.isCancelled() ? String("decoding cancelled") : "decoding failed: " + mInput->geterror());
        checkPendingError();
        mProgress.addDone(mRows - mRowsReported);
        return image;
    }

    /// Radiance files decode to float; they are kept in their own shared-exponent
    /// form, a quarter of the memory, converted a band of rows at a time.
    Image readRgbe(OIIO::ImageSpec const& spec) {
        Image image = allocate(spec, PixelFormat::Rgbe);
        constexpr int BAND = 64;
        Stack<float> band(std::size_t(spec.width) * BAND * 3);
        mProgress.addTotal(spec.height);
        for (int y0 = 0; y0 < spec.height; y0 += BAND) {
            int const y1 = std::min(spec.height, y0 + BAND);
            if (!mInput->read_scanlines(0, 0, spec.y + y0, spec.y + y1, 0, 0, 3, OIIO::TypeDesc::FLOAT, band.data()))
                fail("decoding failed: " + mInput->geterror());
            for (int y = y0; y < y1; ++y) {
                float const* src = band.data() + std::size_t(y - y0) * std::size_t(spec.width) * 3;
                PixelRgbe* row = image.getRow<PixelRgbe>(y);
                for (int x = 0; x < spec.width; ++x, src += 3)
                    row[x] = PixelRgbe::fromRgb({src[0], src[1], src[2]});
            }
            mProgress.addDone(y1 - y0);
            if (mProgress.isCancelled())
                fail("decoding cancelled");
        }
        checkPendingError();
        return image;
    }

    StreamProxy mProxy;
    std::int64_t mFileBytes = 0;
    Stack<unsigned char> mBytes;
    std::unique_ptr<OIIO::Filesystem::IOMemReader> mMemory;
    ImageFormat mFormat;
    TaskProgress& mProgress;
    String mName;
    std::unique_ptr<OIIO::ImageInput> mInput;
    int mChannels = 0;
    std::int64_t mRows = 0;
    std::int64_t mRowsReported = 0;
};

} // namespace

char const* getImageFormatName(ImageFormat format) { return entry(format).name; }

ImageFormat getImageFormatFromContentType(StringView contentType, StringView sourceName) {
    String type;
    for (char c : contentType.substr(0, contentType.find(';')))
        if (!std::isspace(static_cast<unsigned char>(c)))
            type.push_back(char(std::tolower(static_cast<unsigned char>(c))));
    if (!type.empty() && type.front() == '.')
        type.erase(0, 1);
    for (auto const& c : CONTENT_TYPES)
        if (type == c.text)
            return c.format;
    String const prefix = sourceName.empty() ? String() : String(sourceName) + ": ";
    if (type.empty())
        throw Exception(prefix + "no image content type given");
    throw Exception(toOneLine(prefix + "unknown image content type \"" + String(contentType) + "\""));
}

Expected<void> checkImageSize(std::int64_t width, std::int64_t height, PixelFormat format, StringView sourceName) {
    String const size = std::to_string(width) + " x " + std::to_string(height);
    if (width < 1 || height < 1)
        return makeError(String(sourceName) + ": invalid image size " + size);
    if (width > MAX_IMAGE_SIDE || height > MAX_IMAGE_SIDE)
        return makeError(String(sourceName) + ": image size " + size + " exceeds the limit of " +
                         std::to_string(MAX_IMAGE_SIDE) + " pixels per side");
    // Both sides are at most 2^16, so the product cannot overflow.
    std::int64_t const bytes = width * height * getPixelBytes(format);
    if (bytes > MAX_IMAGE_BYTES)
        return makeError(String(sourceName) + ": image size " + size + " (" + getPixelFormatName(format) +
                         ") needs " + std::to_string(bytes >> 20) + " MiB, more than the limit of " +
                         std::to_string(MAX_IMAGE_BYTES >> 20) + " MiB");
    return {};
}

namespace {
Stack<Image> decode(Io::InputStream& stream, ImageFormat format, TaskProgress& progress, bool allLevels,
                    ImageDecodeOptions const& options = {}, ImageColorTag* tag = nullptr) {
    try {
        Decoder decoder(stream, format, progress, options);
        Stack<Image> levels = decoder.readLevels(allLevels);
        if (levels.empty())
            decoder.fail("the file holds no image");
        if (!tag) tag = options.colorTag;
        if (tag) {
            // Of the finest level: reading the chain may have moved the reader on.
            decoder.seekFirst();
            *tag = decoder.colorTag();
        }
        return levels;
    } catch (std::bad_alloc const&) {
        // The codec's own buffers: the size it wanted is not known here.
        throw Exception(toOneLine(stream.getName() + ": not enough memory to decode the image"));
    }
}
} // namespace

Image makeImage(Io::InputStream& stream, ImageFormat format, TaskProgress& progress) {
    return std::move(decode(stream, format, progress, false).front());
}

Image makeImage(Io::InputStream& stream, ImageFormat format, TaskProgress& progress, ImageDecodeOptions const& options) {
    return std::move(decode(stream, format, progress, false, options).front());
}

Stack<Image> makeImageLevels(Io::InputStream& stream, ImageFormat format, TaskProgress& progress) {
    return decode(stream, format, progress, true);
}

Stack<Image> makeImageLevels(Io::InputStream& stream, ImageFormat format, TaskProgress& progress, ImageColorTag& tag) {
    return decode(stream, format, progress, true, {}, &tag);
}

} // namespace Quelin

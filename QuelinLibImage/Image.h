#pragma once
// A decoded image: a resolution, a pixel format and tightly packed rows, top row first.
#include "QuelinLib/Base.h"
#include "QuelinLib/Exception.h"
#include "QuelinLib/Io.h"
#include "QuelinLib/Types.h"
#include "QuelinLibImage/Pixel.h"
#include <span>

namespace Quelin {

namespace Detail {
/// Pixel memory. Blocks of several MiB are mapped on their own and, where the
/// system offers it (Linux transparent huge pages), backed by 2 MiB pages: a
/// texture level then costs a few page faults and TLB entries instead of
/// thousands, which shows in random texel lookups and in how fast an
/// offloaded level's memory is returned. Smaller blocks come from the heap.
void* allocatePixelMemory(std::size_t bytes);
void freePixelMemory(void* pointer, std::size_t bytes) noexcept;

/// Leaves new elements uninitialised, so that a buffer about to be overwritten
/// (decoded, filtered, read from disk) is not written twice.
template <typename T> struct DefaultInitAllocator : std::allocator<T> {
    template <typename U> struct rebind {
        using other = DefaultInitAllocator<U>;
    };
    DefaultInitAllocator() = default;
    template <typename U> DefaultInitAllocator(DefaultInitAllocator<U> const&) noexcept {}
    T* allocate(std::size_t n) { return static_cast<T*>(allocatePixelMemory(n * sizeof(T))); }
    void deallocate(T* p, std::size_t n) noexcept { freePixelMemory(p, n * sizeof(T)); }
    template <typename U, typename... Args> void construct(U* p, Args&&... args) {
        if constexpr (sizeof...(Args) == 0)
            ::new (static_cast<void*>(p)) U;
        else
            ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }
};
} // namespace Detail

class Image {
  public:
    struct Descriptor {
        Pixel resolution{0, 0};
        PixelFormat format = PixelFormat::Rgba8;

        constexpr Descriptor() = default;
        constexpr Descriptor(Pixel resolution_, PixelFormat format_) : resolution(resolution_), format(format_) {}
        bool operator==(Descriptor const&) const = default;
        std::int64_t getRowBytes() const { return std::int64_t(resolution.x) * getPixelBytes(format); }
        std::int64_t getByteSize() const { return getRowBytes() * resolution.y; }
        bool isEmpty() const { return resolution.x <= 0 || resolution.y <= 0; }
    };

    Image() = default;
    /// Pixels start at zero. A negative resolution is an Exception.
    explicit Image(Descriptor const& descriptor);
    /// Pixels left uninitialised, for an image whose every pixel is written next.
    static Image makeForOverwrite(Descriptor const& descriptor);
    Image(Image&&) noexcept = default;
    Image& operator=(Image&&) noexcept = default;
    /// Images are big: copies are explicit.
    Image clone() const;

    Descriptor const& getDescriptor() const { return mDescriptor; }
    Pixel getResolution() const { return mDescriptor.resolution; }
    int getWidth() const { return mDescriptor.resolution.x; }
    int getHeight() const { return mDescriptor.resolution.y; }
    PixelFormat getFormat() const { return mDescriptor.format; }
    bool isEmpty() const { return mDescriptor.isEmpty(); }

    /// Whether the pixel memory is held; it can be released (offloaded to disk)
    /// and allocated again while the descriptor stays.
    bool hasPixels() const { return !mPixels.empty() || mDescriptor.getByteSize() == 0; }
    void releasePixels();
    void allocatePixels();
    /// Like `allocatePixels`, without zeroing: the caller writes every byte.
    void allocatePixelsForOverwrite();
    /// Bytes of pixel memory held now.
    std::int64_t getMemoryUsage() const { return std::int64_t(mPixels.capacity()); }

    std::byte* getData() { return mPixels.data(); }
    std::byte const* getData() const { return mPixels.data(); }
    std::int64_t getByteSize() const { return mDescriptor.getByteSize(); }
    std::int64_t getRowBytes() const { return mDescriptor.getRowBytes(); }

    /// Typed access; asking with a type of another format is a fatal stop.
    template <typename P> P* getRow(int y) {
        checkFormat(PixelFormatOf<P>::VALUE);
        return reinterpret_cast<P*>(mPixels.data() + std::int64_t(y) * getRowBytes());
    }
    template <typename P> P const* getRow(int y) const { return const_cast<Image*>(this)->getRow<P>(y); }
    template <typename P> P& getPixel(int x, int y) { return getRow<P>(y)[x]; }
    template <typename P> P const& getPixel(int x, int y) const { return getRow<P>(y)[x]; }
    template <typename P> std::span<P> getPixels() {
        checkFormat(PixelFormatOf<P>::VALUE);
        return {reinterpret_cast<P*>(mPixels.data()), std::size_t(getWidth()) * std::size_t(getHeight())};
    }
    template <typename P> std::span<P const> getPixels() const { return const_cast<Image*>(this)->getPixels<P>(); }

    /// Any format as float colour with alpha: integer channels scaled to [0, 1],
    /// mono spread to grey, missing alpha 1. Not for per-sample loops.
    RgbAlpha getRgbAlpha(int x, int y) const;
    /// Stores with rounding and clamping to the channel type; mono formats keep
    /// the channel mean.
    void setRgbAlpha(int x, int y, RgbAlpha const& value);
    /// A copy in another format.
    Image convertedTo(PixelFormat format) const;

  private:
    void checkFormat(PixelFormat requested) const {
        if (requested != mDescriptor.format || !hasPixels())
            Detail::throwStopException("QuelinLibImage/Image", __LINE__);
    }

    Descriptor mDescriptor;
    std::vector<std::byte, Detail::DefaultInitAllocator<std::byte>> mPixels;
};

/// Channel type of a written file. Auto keeps the image's depth: 8 and 16 bits
/// stay (PNG) or become half (EXR); float and half become 16 bits (PNG) or stay.
enum class FileChannelType { Auto, UInt8, UInt16, Half, Float };

struct ImageWriteOptions {
    FileChannelType channelType = FileChannelType::Auto;
    /// Compression name of the format ("zip", "piz", "none" for EXR); empty: its default.
    String compression;
    /// What the values are in, as OpenImageIO names it ("sRGB", "Gamma2.2",
    /// "Linear" or a config's space): PNG sRGB and gAMA chunks, the EXIF colour
    /// space of JPEG and TIFF. Empty: no tag.
    String colorSpace;
    /// CIE xy of red, green, blue and white (EXR chromaticities), when known.
    Optional<StaticArray<float, 8>> chromaticities;
};

/// Writes by the path's extension: PNG (8 or 16 bits), EXR (half or float) and
/// the other formats the codec library knows. Alpha is written as stored.
Expected<void> writeImage(Image const& image, Io::Path const& path, ImageWriteOptions const& options = {});

} // namespace Quelin

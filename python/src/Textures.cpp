// Image textures from Python: what a texture map's image is (or why it has
// none), and textures made from numpy arrays without a file on disk.
#include <bit>
#include <cstdio>
#include <cstring>
#include <limits>

#include "Bindings.h"
#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "Ferrim/TextureMap/TextureMap.h"
#include "QuelinLib/DataSource.h"
#include "QuelinLibImage/ImageDecode.h"

namespace FerrimPython {

using namespace Quelin;

namespace {

py::dict textureInfo(IMap const& map) {
    auto const* texture = dynamic_cast<TextureMap const*>(&map);
    if (!texture)
        throw py::type_error("info() describes a texture map's image; \"" + map.getClassName() + "\" has none");
    SharedPtr<IMapEvaluator> evaluator;
    Expected<TextureMap::TextureInfo, String> info = makeError(String());
    {
        py::gil_scoped_release release; // waits for the loader thread
        evaluator = texture->getEvaluatorImpl().evaluator;
        info = texture->getTextureInfo();
    }
    py::dict d;
    auto const* e = dynamic_cast<TextureMap::Evaluator const*>(evaluator.get());
    d["name"] = e ? py::object(py::str(e->getTexture().getName())) : py::object(py::none());
    if (!info) {
        for (char const* key : {"resolution", "pixel_type", "levels", "color_space", "gamma", "udim_tiles"}) d[key] = py::none();
        d["error"] = info.error();
        return d;
    }
    Image::Descriptor const& desc = info->descriptor;
    d["name"] = info->name;
    d["resolution"] = py::make_tuple(desc.resolution.x, desc.resolution.y);
    d["pixel_type"] = getPixelFormatName(desc.format);
    d["levels"] = e ? e->getTexture().getLevelCount() : 0;
    // The space the map's "colorSpace" read the file in; without one, the
    // gamma rule: integer texels are decoded with a gamma, float ones are linear.
    char gamma[32];
    std::snprintf(gamma, sizeof gamma, "gamma %g", double(info->gamma));
    d["color_space"] = !info->colorSpace.empty() ? info->colorSpace : info->gamma == 1.f ? String("linear") : String(gamma);
    d["gamma"] = info->gamma;
    d["udim_tiles"] = info->tileCount;
    d["error"] = py::none();
    return d;
}

// ---------------------------------------------------------- arrays as TIFF

/// An uncompressed baseline TIFF of one strip, in the machine's byte order
/// (the array's bytes go in as they are): the one file
/// form the texture decoder reads that holds every array type as it is
/// (8- and 16-bit integers, half and float samples, 1 to 4 channels).
class TiffWriter {
  public:
    TiffWriter(std::uint32_t width, std::uint32_t height, std::uint16_t channels, std::uint16_t bits, bool isFloat,
               std::size_t pixelBytes)
        : mChannels(channels) {
        std::uint16_t const entries = channels == 2 || channels == 4 ? 12 : 11;
        std::uint32_t const ifdBytes = 2 + 12u * entries + 4;
        std::uint32_t const arraysAt = 8 + ifdBytes;            // BitsPerSample, SampleFormat when > 2 values
        std::uint32_t const pixelsAt = arraysAt + 2 * 2 * 4;     // room for two arrays of four shorts
        mBytes.reserve(pixelsAt + pixelBytes);
        mBytes += std::endian::native == std::endian::little ? "II" : "MM";
        put16(42);
        put32(8);
        put16(entries);
        tag(256, LONG, 1, width);
        tag(257, LONG, 1, height);
        shorts(258, bits, arraysAt);
        tag(259, SHORT, 1, 1);                      // no compression
        tag(262, SHORT, 1, channels >= 3 ? 2 : 1);  // RGB or grey, black is zero
        tag(273, LONG, 1, pixelsAt);
        tag(277, SHORT, 1, channels);
        tag(278, LONG, 1, height);
        tag(279, LONG, 1, std::uint32_t(pixelBytes));
        tag(284, SHORT, 1, 1);  // interleaved
        // Integer arrays carry straight alpha, as PNG files do; float ones
        // premultiplied, as EXR files do.
        if (entries == 12) tag(338, SHORT, 1, isFloat ? 1 : 2);
        shorts(339, isFloat ? 3 : 1, arraysAt + 8);
        put32(0);  // no further image
        for (std::uint16_t value : {bits, std::uint16_t(isFloat ? 3 : 1)})
            for (int i = 0; i < 4; ++i) put16(value);
    }
    String take(void const* pixels, std::size_t bytes) {
        mBytes.append(static_cast<char const*>(pixels), bytes);
        return std::move(mBytes);
    }

  private:
    static constexpr std::uint16_t SHORT = 3, LONG = 4;
    template <typename T> void put(T v) { mBytes.append(reinterpret_cast<char const*>(&v), sizeof v); }
    void put16(std::uint16_t v) { put(v); }
    void put32(std::uint32_t v) { put(v); }
    void tag(std::uint16_t id, std::uint16_t type, std::uint32_t count, std::uint32_t value) {
        put16(id), put16(type), put32(count);
        if (type == SHORT) put16(std::uint16_t(value)), put16(0);  // left-justified in the value field
        else put32(value);
    }
    /// One short per channel: inline up to two, else at `offset`.
    void shorts(std::uint16_t id, std::uint16_t value, std::uint32_t offset) {
        put16(id), put16(SHORT), put32(mChannels);
        if (mChannels <= 2) put16(value), put16(mChannels == 2 ? value : 0);
        else put32(offset);
    }
    std::uint16_t mChannels;
    String mBytes;
};

SharedPtr<Entity> textureFromArray(py::handle value) {
    if (!py::isinstance<py::array>(value))
        throw py::type_error("texture_from_array takes a numpy array, not " +
                             py::str(py::type::handle_of(value).attr("__name__")).cast<String>());
    auto const a = py::array::ensure(value, py::array::c_style);  // a contiguous copy only when needed
    if (!a)
        throw py::error_already_set();
    struct Kind {
        char code;  ///< numpy's kind
        std::uint16_t bits;
        bool isFloat;
    };
    Optional<Kind> kind;
    py::dtype const dtype = a.dtype();
    if (dtype.attr("isnative").cast<bool>())
        for (Kind const k : {Kind{'u', 8, false}, Kind{'u', 16, false}, Kind{'f', 16, true}, Kind{'f', 32, true}})
            if (dtype.kind() == k.code && dtype.itemsize() * 8 == k.bits) kind = k;
    if (!kind)
        throw py::type_error("texture_from_array takes uint8, uint16, float16 or float32 values, not " +
                             py::str(py::handle(dtype)).cast<String>());
    py::ssize_t const channels = a.ndim() == 3 ? a.shape(2) : 1;
    if ((a.ndim() != 2 && a.ndim() != 3) || channels < 1 || channels > 4 || a.shape(0) < 1 || a.shape(1) < 1)
        throw py::value_error("texture_from_array takes an array of shape (H, W) or (H, W, 1 to 4), not " +
                              py::str(py::tuple(py::cast(Stack<py::ssize_t>(a.shape(), a.shape() + a.ndim())))).cast<String>());
    std::int64_t const width = a.shape(1), height = a.shape(0);
    // The decoder's own limits, checked before the copy is made.
    // The texture keeps the array's type: 8 bits, 16 bits, half or float.
    int const layout = channels == 1 ? 0 : channels == 2 ? 1 : channels == 3 ? 2 : 3;
    PixelFormat const decoded = kind->isFloat && kind->bits == 16
                                    ? PixelFormat(int(PixelFormat::MonoHalf) + layout)
                                    : PixelFormat(3 * layout + (kind->isFloat ? 2 : kind->bits == 16 ? 1 : 0));
    if (auto ok = checkImageSize(width, height, decoded, "the array"); !ok)
        throw py::value_error(ok.error());
    std::size_t const bytes = std::size_t(a.nbytes());
    if (bytes > 0xffff0000u)
        throw py::value_error("the array holds " + std::to_string(bytes) + " bytes; a texture from an array holds at most 4 GiB");
    TiffWriter writer(std::uint32_t(width), std::uint32_t(height), std::uint16_t(channels), kind->bits, kind->isFloat, bytes);
    String file;
    {
        py::gil_scoped_release release;
        file = writer.take(a.data(), bytes);
    }
    return MemoryDataSource::make(std::move(file), "image/tiff");
}

void setTextureMemory(py::handle value) {
    if (!PyFloat_Check(value.ptr()) && !PyLong_Check(value.ptr()))
        throw py::type_error("set_texture_memory takes a number of MiB, not " +
                             py::str(py::type::handle_of(value).attr("__name__")).cast<String>());
    double mib = PyFloat_AsDouble(value.ptr());
    if (mib == -1.0 && PyErr_Occurred()) {
        // An int beyond a double's range: as infinite, refused below.
        PyErr_Clear();
        mib = std::numeric_limits<double>::infinity();
    }
    if (auto set = ImageTextureCache::setTileMemoryCap(mib); !set)
        throw py::value_error(set.error());
}

py::dict tileStatsDict(TileStats const& s) {
    py::dict d;
    d["hits"] = s.hits;
    d["misses"] = s.misses;
    d["bytes_read"] = s.bytesRead;
    d["bytes_reread"] = s.bytesReread;
    return d;
}

py::dict textureStats() {
    TileCache const& cache = ImageTextureCache::getTileCache();
    py::dict d = tileStatsDict(cache.getStats());
    d["cap_mib"] = ImageTextureCache::getTileMemoryCap();
    d["memory"] = cache.getMemoryUsage();
    d["peak_memory"] = cache.getPeakMemoryUsage();
    d["total_memory"] = ImageTextureCache::getMemoryUsage();
    py::list textures;
    Stack<SharedPtr<ImageTexture>> ready;
    {
        py::gil_scoped_release release;
        ready = ImageTextureCache::getReadyTextures();
    }
    for (auto const& t : ready) {
        py::dict e = tileStatsDict(t->getTileStats());
        e["name"] = t->getName();
        e["tiled"] = t->getTiledFile() != nullptr;
        e["memory"] = t->getMemoryUsage();
        e["peak_memory"] = t->getPeakTileMemory();
        String const error = t->getError();
        e["error"] = error.empty() ? py::object(py::none()) : py::object(py::str(error));
        textures.append(e);
    }
    d["textures"] = textures;
    return d;
}

} // namespace

void bindTextures(py::module_& m) {
    auto map = py::reinterpret_borrow<py::class_<IMap, Entity, SharedPtr<IMap>>>(m.attr("Map"));
    map.def("info", &textureInfo,
            R"(What a texture map's image is, after waiting for it to load: a dict of "name", "resolution"
(width, height), "pixel_type", "levels" (mip levels), "color_space" (the colour space of the map's
"colorSpace" the file was read in; without one "linear", or the gamma its texels are decoded with),
"gamma", "udim_tiles" (files of a UDIM set, 1 otherwise; the rest describes its first tile) and
"error" (None, or the texture's error text, the other entries then None). TypeError for maps
without an image.)");
    m.def(
        "texture_from_array", [](py::handle a) { return wrapEntity(textureFromArray(a)); }, py::arg("array"),
        R"(An image source holding a numpy array, for a texture map's "imageSource": no file is written.

array: uint8, uint16, float16 or float32 values, shape (H, W) or (H, W, C) with C = 1 (grey),
2 (grey, alpha), 3 (RGB) or 4 (RGBA); row 0 is the image's top. The texture is cached and
mip-mapped as a file's is, and read as a file of that type would be: integer values are
display-encoded (gamma 2.2) with straight alpha, float values linear and premultiplied.
The array is copied; later changes to it are not seen.)");
    m.def("set_texture_memory", &setTextureMemory, py::arg("mib"),
          R"(Sets the memory the tiles of tiled, mip-mapped texture files (as `ferrim maketx` writes them) may
hold, in MiB (fractions allowed; default 1024). Such files are read a tile at a time when a lookup
first needs it; the least recently used tiles give way. ValueError for NaN, infinities, 0,
negative values and more than 1048576 MiB (nothing changes); TypeError for non-numbers.)");
    m.def("texture_memory", &ImageTextureCache::getTileMemoryCap, "The tile memory cap in MiB (see set_texture_memory).");
    m.def("texture_stats", &textureStats,
          R"(The textures' memory and tile statistics: "cap_mib", "memory" (bytes the tiles hold now),
"peak_memory", "total_memory" (all textures' bytes, decoded ones included), "hits", "misses",
"bytes_read", "bytes_reread" (read again after eviction), and "textures": one dict per loaded
texture with "name", "tiled", "memory", "peak_memory", the four counts and "error" (None, or the
texture's error text: for a tiled file, the first tile that could not be read).)");
}

} // namespace FerrimPython

#pragma once
// Colour spaces by name, converted by OpenColorIO.
//
// The config is the file named by the OCIO environment variable when it is set
// and not empty, otherwise Ferrim's own (ferrim.ocio, built into the library
// and installed beside it under share/ferrim). Ferrim's config names the
// scene-linear "Linear Rec.709 (sRGB)" (its reference), "ACEScg",
// "ACES2065-1", "sRGB - Texture", "Gamma 2.2 Rec.709 - Texture" and "Raw";
// displays "sRGB - Display" and "Gamma 2.2 Rec.709 - Display", each with the
// views "Standard" and "Raw"; and the look "One Stop Up".
//
// Every error names the config (its path, or "Ferrim's built-in config") and
// what it does not know. Processors are immutable and may be used by many
// threads at once.
#include <cstddef>
#include <optional>

#include "Ferrim/Export.h"
#include "QuelinLib/Base.h"
#include "QuelinLib/ColorMath.h"
#include "QuelinLibImage/Pixel.h"

namespace Quelin::ColorSpaces {

/// What "auto" asks for: the file's own colour-space tag, else by channel type.
inline constexpr StringView AUTO = "auto";

/// The config in use as named in messages: $OCIO's path or "Ferrim's built-in config (ferrim.ocio)".
FERRIM_EXPORT String configName();
/// The text of Ferrim's own config (what share/ferrim/ferrim.ocio holds).
FERRIM_EXPORT StringView builtinConfigText();
/// The colour spaces of the config, or why it could not be read.
FERRIM_EXPORT Expected<Stack<String>, String> colorSpaceNames();
/// The config's scene-linear space (its "scene_linear" role), what textures
/// and renders are converted to.
FERRIM_EXPORT Expected<String, String> sceneLinearSpace();

/// One operation of a processor in plain terms, for code that compiles
/// conversions into its own kernels. Only the kinds below are described.
struct ProcessorStep {
    enum class Kind {
        Matrix,              ///< c = M c + t: rows of M in matrix[0..8], t in matrix[9..11]
        Range,               ///< c * scale + offset, clamped to [low, high] (infinite where open)
        ExponentWithLinear,  ///< the power with a linear segment (see Processor::steps)
        Exponent,            ///< c^exponent
    };
    enum class Negative { Clamp, Mirror, PassThrough, Linear };
    Kind kind = Kind::Matrix;
    double matrix[12] = {};
    double scale = 1.0, offset = 0.0, low = 0.0, high = 0.0;
    double exponent[3] = {1.0, 1.0, 1.0};
    /// ExponentWithLinear: the offset of the encoding, per channel.
    double linearOffset[3] = {0.0, 0.0, 0.0};
    /// Whether the curve runs from linear to encoded values (the display direction).
    bool encode = false;
    Negative negative = Negative::Clamp;
};

/// A conversion compiled by OpenColorIO for 32-bit float pixels.
class FERRIM_EXPORT Processor {
public:
    Processor() = default;
    /// Maps every colour to itself.
    bool isNoOp() const;
    /// Each channel's result depends on that channel alone (a transfer curve, no matrix).
    bool isPerChannel() const;
    /// OpenColorIO's cache identity of the conversion: equal ids convert alike.
    String const& getId() const;

    /// Packed RGB, `count` pixels, in place.
    void applyRgb(float* rgb, std::size_t count) const;
    /// Packed RGBA, `count` pixels, in place; alpha is passed through.
    void applyRgba(float* rgba, std::size_t count) const;
    /// Three planes of `count` values, in place.
    void applyPlanes(float* r, float* g, float* b, std::size_t count) const;
    Rgb apply(Rgb color) const;
    /// OpenColorIO's optimized form of the conversion as plain steps, when it
    /// consists only of matrices, ranges and exponents (with or without a
    /// linear segment) of colour channels; nothing otherwise. An exponent of
    /// value g (gamma) decodes as c^g and encodes as c^(1/g); one with a
    /// linear segment and offset o as OpenColorIO's monitor curve: decoded,
    /// ((c + o) / (1 + o))^g above o / (g - 1) and a straight line below.
    std::optional<Stack<ProcessorStep>> steps() const;

private:
    friend struct ProcessorAccess;
    struct Impl;
    SharedPtr<Impl const> mImpl;
};

/// From one colour space (or role) of the config to another.
FERRIM_EXPORT Expected<Processor, String> makeConversion(StringView from, StringView to);

/// A display transform: from `input` through `looks` (comma-separated, may be
/// empty) to `display` as `view` sees it.
struct DisplayView {
    String input;
    String display;
    String view;
    String looks;
};
/// The forward transform, or with `inverse` its inverse (from display values
/// back to `input`); an inverse the config cannot build is an error.
FERRIM_EXPORT Expected<Processor, String> makeDisplayView(DisplayView const& displayView, bool inverse = false);
/// The colour space a display's view ends in (what the output file holds).
FERRIM_EXPORT Expected<String, String> displayViewSpace(StringView display, StringView view);

/// The space "auto" picks for a file: its OpenImageIO "oiio:ColorSpace" tag
/// when the config has a space of that name or the tag is one of
/// OpenImageIO's own ("sRGB", "Linear", "Gamma2.2", "Rec709"), otherwise
/// "sRGB - Texture" for 8- and 16-bit integer channels and the scene-linear
/// space for float and shared-exponent ones. `fileGamma` is OpenImageIO's
/// "oiio:Gamma" (0 when absent).
FERRIM_EXPORT String spaceForFile(StringView fileTag, float fileGamma, PixelFormat format);

/// How an image in a colour space is to be tagged in its file.
struct FileEncoding {
    enum class Curve { Linear, Srgb, Gamma22, Other };
    Curve curve = Curve::Other;
    /// CIE xy of red, green, blue and white, when the space's primaries are known.
    Optional<StaticArray<float, 8>> chromaticities;
};
/// The encoding of a space by its name in Ferrim's config or OpenImageIO's:
/// linear spaces, the sRGB curve, a pure 2.2 power; anything else is Other
/// (tagged with the space's name only).
FERRIM_EXPORT FileEncoding fileEncodingOf(StringView space);
/// OpenImageIO's name for what a file in `space` holds: "sRGB", "Gamma2.2",
/// "Linear", else the space's own name.
FERRIM_EXPORT String fileTagOf(StringView space);

} // namespace Quelin::ColorSpaces

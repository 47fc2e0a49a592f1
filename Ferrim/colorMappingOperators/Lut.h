#pragma once
// Colour look-up tables: 1D and 3D tables with an input domain, the readers of
// the two exchange formats in common use (".cube" and ".3dl"), and their
// interpolation.
//
// Storage: a 3D table keeps its entries red-fastest (index r + g*N + b*N*N),
// four floats per entry (the fourth is padding) so that one entry is one
// four-lane load on the hot path. A 1D table keeps three floats per entry.
#include "Ferrim/Export.h"
#include "QuelinLib/Base.h"
#include "QuelinLib/Types.h"

namespace Quelin {

/// How a 3D table is sampled between its grid points.
enum class LutInterpolation : int {
    Trilinear = 0,   ///< eight corners, blended along each axis
    Tetrahedral = 1, ///< four corners of one of the six tetrahedra of the cell: cheaper, keeps greys grey
};

/// A table of the form out = f(in) per channel: `size` entries spread evenly
/// over [domainMin, domainMax] of each channel.
struct FERRIM_EXPORT Lut1D {
    int size = 0;
    Rgb domainMin{0.f, 0.f, 0.f};
    Rgb domainMax{1.f, 1.f, 1.f};
    Stack<float> values; ///< size * 3 floats: r, g, b of entry 0, then entry 1, ...

    Rgb indexScale{0.f, 0.f, 0.f}, indexOffset{0.f, 0.f, 0.f}; ///< set by prepare()

    Rgb entry(int i) const { return {values[3 * i], values[3 * i + 1], values[3 * i + 2]}; }
    /// Derives the input-to-index mapping from the domain; call after any change.
    void prepare();
    /// Linear interpolation per channel; inputs outside the domain take the end values.
    Rgb apply(Rgb const& c) const;
};

/// A lattice of size^3 colours over the box [domainMin, domainMax].
struct FERRIM_EXPORT Lut3D {
    int size = 0;
    Rgb domainMin{0.f, 0.f, 0.f};
    Rgb domainMax{1.f, 1.f, 1.f};
    Stack<float> values; ///< size^3 * 4 floats, red fastest; the fourth float is 0
    Rgb indexScale{0.f, 0.f, 0.f}, indexOffset{0.f, 0.f, 0.f}; ///< set by prepare()

    /// Allocates `n`^3 entries, all black.
    void resize(int n);
    /// Derives the input-to-index mapping from the domain; call after any change.
    void prepare();

    Rgb entry(int r, int g, int b) const {
        float const* p = &values[4 * (std::size_t(r) + std::size_t(size) * (std::size_t(g) + std::size_t(size) * std::size_t(b)))];
        return {p[0], p[1], p[2]};
    }
    void setEntry(int r, int g, int b, Rgb const& c);
    /// Inputs outside the domain are clamped onto it.
    Rgb applyTrilinear(Rgb const& c) const;
    Rgb applyTetrahedral(Rgb const& c) const;
    Rgb apply(Rgb const& c, LutInterpolation interpolation) const {
        return interpolation == LutInterpolation::Tetrahedral ? applyTetrahedral(c) : applyTrilinear(c);
    }
    /// Whole rows of RGB floats (three per pixel), in place.
    void applyTetrahedral(float* rgb, std::size_t pixelCount) const;
    void applyTrilinear(float* rgb, std::size_t pixelCount) const;
};

/// The contents of one LUT file: an optional 1D table applied first (a shaper)
/// and an optional 3D table; at least one of them is present.
struct FERRIM_EXPORT Lut {
    String title;
    Optional<Lut1D> lut1d;
    Optional<Lut3D> lut3d;

    Rgb apply(Rgb const& c, LutInterpolation interpolation) const {
        Rgb r = lut1d ? lut1d->apply(c) : c;
        return lut3d ? lut3d->apply(r, interpolation) : r;
    }
};

/// Largest LUT file read, far above the 65^3 and 129^3 tables in use (about
/// 10 and 80 MB as text); larger files are refused before they are read.
inline constexpr std::int64_t MAX_LUT_FILE_BYTES = std::int64_t(512) << 20;
/// Most input mesh points of a ".3dl" file (its lattice size).
inline constexpr int MAX_3DL_MESH_POINTS = 256;

/// Reads a ".cube" file: "TITLE", "LUT_1D_SIZE", "LUT_3D_SIZE", "DOMAIN_MIN",
/// "DOMAIN_MAX" (and the "LUT_1D_INPUT_RANGE"/"LUT_3D_INPUT_RANGE" variant),
/// '#' comments, blank lines and CR-LF line ends. Other keywords before the
/// table (capitals, digits and underscores) are skipped; any other line that
/// does not start with a number is an error. Errors read
/// "<path>:<line>: <problem>".
FERRIM_EXPORT Expected<Lut> readCubeLut(String const& path);
/// The same for text already in memory; `name` stands for the path in errors.
FERRIM_EXPORT Expected<Lut> parseCubeLut(StringView text, StringView name);

/// Reads a ".3dl" file: an optional line of input mesh points (integers, their
/// largest value giving the input bit depth), then N^3 lines of three integers,
/// blue fastest. The output bit depth is inferred from the largest value
/// (8, 10, 12, 14 or 16 bits).
FERRIM_EXPORT Expected<Lut> read3dlLut(String const& path);
FERRIM_EXPORT Expected<Lut> parse3dlLut(StringView text, StringView name);

/// Reads a LUT file by its extension (".cube" or ".3dl", any case).
FERRIM_EXPORT Expected<Lut> readLutFile(String const& path);

/// Writes a LUT (3D part, with its domain; 1D part when there is no 3D part)
/// in ".cube" form.
FERRIM_EXPORT String formatCubeLut(Lut const& lut);

/// The library's own look: a gentle film-like contrast with warm highlights
/// and slightly cool shadows, as a 33^3 table over [0, 1]. Built in code.
FERRIM_EXPORT Lut const& getDefaultLutData();
/// Path of the default look as a ".cube" file; the file is written on first
/// use into the temporary folder ("ferrim/FerrimDefaultLook.cube") and
/// rewritten when it is missing.
FERRIM_EXPORT String getDefaultLut();

} // namespace Quelin

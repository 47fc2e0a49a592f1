#pragma once
// LUT: applies a colour look-up table from a file, the usual way of carrying
// a grade or a film emulation from one program to another.
//
// What it does
//   Reads a ".cube" (1D or 3D, with its input domain) or ".3dl" file and sends
//   every colour through it, interpolating between the table's grid points.
//   Most looks are made for display values, so by default the colour is
//   encoded with the display gamma before the table and decoded after it;
//   tables made for linear values are applied as they are when "lut_applyInSrgb"
//   is off. Colours outside the table's domain are clamped onto it.
//
// Parameters
//   "enabled"          off leaves the image untouched.
//   "path"             the LUT file. A relative path is looked up in the
//                      renderer's resource folder. The library ships its own
//                      gentle film look (see getDefaultLut()).
//   "lut_opacity"      0 to 1: how much of the table's result is used; 0 leaves
//                      the image untouched, 1 applies the table fully.
//   "lut_interpolation" "Tetrahedral" (default; cheaper and keeps greys grey)
//                      or "Trilinear".
//   "lut_applyInSrgb"  on (default): the table gets display-encoded values.
//
// When the file cannot be read
//   The operator leaves the image untouched, and the reason ("<path>:<line>:
//   <problem>") is kept: getLoadError() returns it until a good file is
//   prepared. Nothing else in the pipeline is affected.
//
// Undoing
//   A table has no formula to invert, so `unmap` searches for the input that
//   gives the wanted colour (Newton steps on the interpolated table, within its
//   domain). For tables that are invertible (no two inputs giving one output)
//   this is accurate to about 1e-5; for a table that folds colours together it
//   finds one of the inputs. Exclusion bit: ColorMappingExclude::Lut (0x80).
#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"
#include "Ferrim/colorMappingOperators/Lut.h"

namespace Quelin {

class FERRIM_EXPORT LutOperator : public UnaryColorMappingOperator {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };
    LutOperator();
    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<LutOperator>(); }
    void compileMapping(ColorProgramBuilder& builder) const override;

    /// Why the last preparation could not use the file; empty when it could
    /// (or when no file is set).
    String const& getLoadError() const { return mLoadError; }
    /// The table in use, or null when the operator is neutral.
    SharedPtr<Lut const> const& getLut() const { return mLut; }

protected:
    Rgb mapImpl(Rgb const& color, Pixel pixel) const override;
    void mapImpl(std::span<Rgb> pixels, Pixel origin, Pixel extent) const override;
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    /// Encoding, table and opacity blend, without the neutral check.
    Rgb apply(Rgb const& color) const;

    SharedPtr<Lut const> mLut;
    LutInterpolation mInterpolation = LutInterpolation::Tetrahedral;
    float mOpacity = 1.f;
    bool mInSrgb = true;
    float mEncode = 1.f / 2.2f, mDecode = 2.2f;
    Rgb mDomainMin{0.f}, mDomainMax{1.f};  ///< in the table's own encoding
    String mLoadError;
    // The file last read and its time stamp, so preparing again does not re-read it.
    String mLoadedPath;
    std::int64_t mLoadedTime = 0;
};

} // namespace Quelin

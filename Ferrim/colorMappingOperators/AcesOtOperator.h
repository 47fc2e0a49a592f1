#pragma once
// Approximate ACES output transform (reference rendering transform followed by
// an output device transform), fitted as one rational curve between two 3x3
// colour matrices. Maps scene-linear colour into [0, 1], fades against the
// untouched colour by an opacity, and is undone exactly (to float precision)
// at opacity 1 and through a table of the faded curve's inverse otherwise.
#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"

namespace Quelin {

class FERRIM_EXPORT AcesOtOperator : public LaneColorMappingOperator<AcesOtOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_NAME = "ACES OT";
        static constexpr StringView UI_DESCRIPTION =
            "Applies approximate ACES Output Transform which consists of Reference Rendering Transform (RRT) and "
            "Output Device Transform (ODT). Note that when the opacity is different than 1.0, the unmapping of the "
            "operator's effect is not precise.";
    };

    /// The constant matrices (rows) and their inverses, made at library load.
    static Matrix33 const& inputMatrix();
    static Matrix33 const& outputMatrix();
    static Matrix33 const& inverseInputMatrix();
    static Matrix33 const& inverseOutputMatrix();
    /// Scene values of the faded curve: entry [i * 16 + j] maps to display
    /// value i / 15 at opacity j / 15.
    static StaticArray<float, 256> const& unmappingTable();
    /// Where the curve's input is bounded: there it equals its limit to float
    /// precision, and x^2 is far from overflowing.
    static constexpr float CURVE_INPUT_MAX = 1152921504606846976.f;  // 2^60
    /// The fitted tone curve of one channel.
    static float curve(float x);

    AcesOtOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    Float4 mapLanes(Float4 c) const;
    /// The same for four pixels given as colour planes (bit for bit equal).
    void mapPlanes(Float4& r, Float4& g, Float4& b) const;

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    bool mActive = true;
    float mOpacity = 1.f;
};

} // namespace Quelin

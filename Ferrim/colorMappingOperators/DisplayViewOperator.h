#pragma once
// A display transform of the colour-management config by name (see
// Ferrim/ColorSpaces.h): scene values in "inputSpace" go through the looks
// "looks" (comma-separated, optional) to the display "display" as its view
// "view" shows it. OpenColorIO compiles the transform when the operator is
// prepared. Compiled programs run its matrices, ranges and powers as their
// own steps; a transform with other operations (LUTs, log curves) is mapped
// by OpenColorIO's processor, a whole bucket or chunk of planes at a time.
// Unmapping goes through the inverse transform where the config can build
// one and leaves colours as they are where it cannot.
//
// A NaN channel maps as 0, infinities as +-1e30 (the displays of Ferrim's
// config clip them: +inf to 1, -inf to 0).
//
// A name the config does not know makes the operator neutral, with the error
// (naming the config and the name) in `getError`.
#include "Ferrim/ColorSpaces.h"
#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"

namespace Quelin {

class FERRIM_EXPORT DisplayViewOperator : public UnaryColorMappingOperator {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_DESCRIPTION =
            "Maps scene colours to a display through a view (and optional looks) of the colour-management config.";
    };
    DisplayViewOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;

    /// Why the last preparation left the operator neutral; empty when it did not.
    String const& getError() const { return mError; }
    /// Whether unmapping has an inverse transform to go through.
    bool hasInverse() const { return mHasInverse; }

protected:
    Rgb mapImpl(Rgb const& color, Pixel pixel) const override;
    void mapImpl(std::span<Rgb> pixels, Pixel origin, Pixel extent) const override;
    void mapImpl(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const override;
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    static void mapPlanes(void const* self, float* r, float* g, float* b, int count);
    static void mapPacked(void const* self, float* pixels, int stride, std::size_t count);

    ColorSpaces::Processor mForward;
    ColorSpaces::Processor mInverse;
    bool mHasInverse = false;
    String mError;
    String mPreparedKey;  ///< the names and config the processors were made for
};

} // namespace Quelin

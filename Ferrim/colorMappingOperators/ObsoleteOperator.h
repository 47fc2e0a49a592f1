#pragma once
// Stand-in for legacy operator types that old scenes may still hold
// ("Zatho.AcesRrtOperator", "Zatho.AcesOtOperator2"). They load, so that the
// pipeline can find and remove them, but are never offered by the factory and
// must never map: mapping or unmapping one is an internal error.
#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"

namespace Quelin {

class FERRIM_EXPORT ObsoleteUnaryColorMappingOperator : public UnaryColorMappingOperator {
public:
    /// The legacy type names, in registration order.
    static StaticArray<StringView, 2> const OBSOLETE_TYPE_NAMES;
    /// The record of a legacy type (the common operator properties), or null
    /// for a name that is not a legacy operator.
    static SharedPtr<DataObjectDefinition const> findDefinition(StringView typeName);
    /// Whether `typeName` names a legacy operator.
    static bool isObsoleteType(StringView typeName) { return findDefinition(typeName) != nullptr; }

    explicit ObsoleteUnaryColorMappingOperator(SharedPtr<DataObjectDefinition const> definition);
    SharedPtr<Entity> createNewInstance() const override;

protected:
    Rgb mapImpl(Rgb const& color, Pixel pixel) const override;
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;
};

} // namespace Quelin

#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"

#include <atomic>

namespace Quelin {

StringView getOperatorGroupCaption(OperatorGroup group) {
    switch (group) {
    case OperatorGroup::Basic: return "Basic";
    case OperatorGroup::CurveControl: return "Curve Control";
    case OperatorGroup::HighlightControl: return "Highlight Control";
    case OperatorGroup::FinalLook: return "Final Look";
    case OperatorGroup::Hidden: return {};
    }
    return {};
}

namespace {
UniqueIdGenerator& operatorIds() {
    static UniqueIdGenerator sIds;
    return sIds;
}
} // namespace

int UnaryColorMappingOperator::generateId() { return int(operatorIds().next() & 0x7FFFFFFFu); }

void addCommonOperatorProperties(ShadingDataObjectBuilder& builder) {
    auto id = builder.addProperty("id", TypeDefinition::makeInt(), PropertyKind::Hidden);
    id->setDefault(0);
    id->setMetadata(Metadata::UI_NAME, String("Id"));
    id->setMetadata(Metadata::UI_DESCRIPTION, String("Tells operators apart when two versions of a pipeline are compared."));
    auto pred = builder.addProperty(
        "predecessor", TypeDefinition::makeEntityRef<IColorMappingOperator>("Zatho.IColorMappingOperator"),
        PropertyKind::Hidden);
    pred->setMetadata(Metadata::UI_NAME, String("Predecessor"));
    pred->setMetadata(Metadata::UI_DESCRIPTION, String("The operator whose result this operator transforms."));
    builder.addBool("enabled", true, "Enabled", "When off, the operator leaves colours unchanged.");
}

UnaryColorMappingOperator::UnaryColorMappingOperator(SharedPtr<DataObjectDefinition const> definition,
                                                     OperatorColorEncoding input, OperatorColorEncoding output,
                                                     OperatorGroup group)
    : IColorMappingOperator(std::move(definition)), mInputEncoding(input), mOutputEncoding(output), mGroup(group) {
    editData().set("id", generateId());
}

void UnaryColorMappingOperator::map(std::span<Rgb> pixels, Pixel origin, Pixel extent) const {
    if (mPredecessor) mPredecessor->map(pixels, origin, extent);
    mapImpl(pixels, origin, extent);
}

void UnaryColorMappingOperator::map(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const {
    if (mPredecessor) mPredecessor->map(pixels, origin, extent);
    mapImpl(pixels, origin, extent);
}

Rgb UnaryColorMappingOperator::map(Rgb const& color, Pixel pixel) const {
    return mapImpl(mPredecessor ? mPredecessor->map(color, pixel) : color, pixel);
}

Rgb UnaryColorMappingOperator::unmap(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    Rgb const c = unmapImpl(color, exclude);
    return mPredecessor ? mPredecessor->unmap(c, exclude) : c;
}

void UnaryColorMappingOperator::mapImpl(std::span<Rgb> pixels, Pixel origin, Pixel extent) const {
    std::size_t const n = bucketSize(pixels.size(), extent);
    for (std::size_t k = 0; k < n; ++k) {
        Pixel const p(origin.x + std::int32_t(k % std::size_t(extent.x)), origin.y + std::int32_t(k / std::size_t(extent.x)));
        pixels[k] = mapImpl(pixels[k], p);
    }
}

void UnaryColorMappingOperator::mapImpl(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const {
    std::size_t const n = bucketSize(pixels.size(), extent);
    for (std::size_t k = 0; k < n; ++k) {
        Pixel const p(origin.x + std::int32_t(k % std::size_t(extent.x)), origin.y + std::int32_t(k / std::size_t(extent.x)));
        RgbAlpha& c = pixels[k];
        Rgb const m = mapImpl(c.rgb(), p);
        c.r = m.r;
        c.g = m.g;
        c.b = m.b;
    }
}

void UnaryColorMappingOperator::refreshPredecessor() {
    mPredecessor = getData().get<EntityHolder<UnaryColorMappingOperator>>("predecessor");
}

void UnaryColorMappingOperator::onDataChanged(StringView propertyName) {
    if (propertyName.empty() || propertyName == "predecessor") refreshPredecessor();
}

void UnaryColorMappingOperator::setPredecessor(EntityHolder<IColorMappingOperator> predecessor) {
    if (auto r = setValue("predecessor", EntityHolder<Entity>(predecessor)); !r) throw Exception(r.error());
}

void UnaryColorMappingOperator::update(GenericDataObject const& data) {
    if (auto r = setData(data); !r) throw Exception(r.error());
    auto const source = data.get<EntityHolder<UnaryColorMappingOperator>>("predecessor");
    if (!source) return;
    // Rebuild the chain below from the records so that this operator owns its
    // own copy; a type the factory does not know (a legacy operator) is kept
    // as it is, for the pipeline's clean-up to find.
    auto rebuilt = ColorMappingOperatorFactory::getInstance().createOperator(source->getData());
    if (rebuilt) setPredecessor(rebuilt);
}

void UnaryColorMappingOperator::prepareForApplication(ColorMappingContext const& context) {
    refreshPredecessor();
    if (mPredecessor) mPredecessor->prepareForApplication(context);
    prepareForApplicationImpl(context);
}

void UnaryColorMappingOperator::applyOverrides(std::span<ToneMappingPropertyOverride const> overrides,
                                               String& errorInfo) {
    if (mPredecessor) mPredecessor->applyOverrides(overrides, errorInfo);
    applyOverridesImpl(overrides, errorInfo);
}

void UnaryColorMappingOperator::applyOverridesImpl(std::span<ToneMappingPropertyOverride const> overrides,
                                                   String& errorInfo) {
    for (auto const& o : overrides) {
        if (o.operatorType != getClassName()) continue;
        if (!getData().has(o.property) || o.property == "predecessor" || o.property == "id") {
            errorInfo += "\"" + getClassName() + "\" has no overridable property \"" + o.property + "\"\n";
            continue;
        }
        if (std::holds_alternative<std::monostate>(o.value)) continue;  // nothing stored to restore
        if (auto r = setValue(o.property, o.value); !r) errorInfo += r.error() + "\n";
    }
}

// ---------------------------------------------------------------- factory

namespace {
Stack<Function<void(ColorMappingOperatorFactory&)>>& pendingRegistrations() {
    static Stack<Function<void(ColorMappingOperatorFactory&)>> sList;
    return sList;
}
} // namespace

namespace Detail {
void addColorOperatorRegistration(Function<void(ColorMappingOperatorFactory&)> registration) {
    pendingRegistrations().push_back(std::move(registration));
}
} // namespace Detail

ColorMappingOperatorFactory& ColorMappingOperatorFactory::getInstance() {
    static ColorMappingOperatorFactory sInstance;
    static std::once_flag sBuilt;
    std::call_once(sBuilt, [] {
        for (auto const& r : pendingRegistrations()) r(sInstance);
    });
    return sInstance;
}

void ColorMappingOperatorFactory::registerDescriptor(String typeName, ColorMappingOperatorDescriptor&& descriptor) {
    mDescriptors.insertOrAssign(std::move(typeName), std::move(descriptor));
}

ColorMappingOperatorDescriptor const* ColorMappingOperatorFactory::findDescriptor(StringView typeName) const {
    auto it = mDescriptors.find(typeName);
    return it == mDescriptors.end() ? nullptr : &it->second;
}

EntityHolder<UnaryColorMappingOperator> ColorMappingOperatorFactory::createOperator(GenericDataObject const& data) const {
    auto const* d = findDescriptor(data.getName());
    return d ? d->creator(data) : EntityHolder<UnaryColorMappingOperator>();
}

EntityHolder<UnaryColorMappingOperator> ColorMappingOperatorFactory::createOperator(StringView typeName) const {
    auto const* d = findDescriptor(typeName);
    if (!d) return {};
    GenericDataObject data(d->definition);
    data.set("id", UnaryColorMappingOperator::generateId());
    return d->creator(data);
}

} // namespace Quelin

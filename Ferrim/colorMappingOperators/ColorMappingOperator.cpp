#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"

#include <atomic>
#include <unordered_set>

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

namespace {
/// The operators of a chain, first first. Chains are walked with loops, not
/// recursion, since they can be long; a chain of up to INLINE operators (any
/// chain a user builds) needs no heap, so mapping one colour stays arithmetic.
template <typename Op> class ChainOrder {
public:
    /// From `last` back to the first operator.
    explicit ChainOrder(Op* last) {
        for (Op* op = last; op; op = op->getPredecessorPointer()) push(op);
    }
    template <typename F> void forEachFirstToLast(F&& f) const {
        Op* const* ops = mHeap.empty() ? mInline.data() : mHeap.data();
        for (std::size_t i = mCount; i-- > 0;) f(ops[i]);
    }

private:
    void push(Op* op) {
        if (mCount < INLINE) {
            mInline[mCount] = op;
        } else {
            if (mHeap.empty()) mHeap.assign(mInline.begin(), mInline.end());
            mHeap.push_back(op);
        }
        ++mCount;
    }
    static constexpr std::size_t INLINE = 32;
    std::array<Op*, INLINE> mInline;  // only the first mCount are set
    Stack<Op*> mHeap;
    std::size_t mCount = 0;
};
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

namespace {
/// NaN channels of a bucket as 0: what each operator reads, and what a chain
/// gives where an operator made NaN of an infinity.
template <typename P> void zeroNaNs(std::span<P> pixels, Pixel extent) {
    if (extent.x <= 0 || extent.y <= 0) return;
    std::size_t const n = std::min(pixels.size(), std::size_t(extent.x) * std::size_t(extent.y));
    for (std::size_t k = 0; k < n; ++k)
        for (float* c : {&pixels[k].r, &pixels[k].g, &pixels[k].b})
            if (*c != *c) *c = 0.f;
}
} // namespace

void UnaryColorMappingOperator::map(std::span<Rgb> pixels, Pixel origin, Pixel extent) const {
    ChainOrder<UnaryColorMappingOperator const>(this).forEachFirstToLast([&](UnaryColorMappingOperator const* op) {
        zeroNaNs(pixels, extent);
        op->mapImpl(pixels, origin, extent);
    });
    zeroNaNs(pixels, extent);
}

void UnaryColorMappingOperator::map(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const {
    ChainOrder<UnaryColorMappingOperator const>(this).forEachFirstToLast([&](UnaryColorMappingOperator const* op) {
        zeroNaNs(pixels, extent);
        op->mapImpl(pixels, origin, extent);
    });
    zeroNaNs(pixels, extent);
}

Rgb UnaryColorMappingOperator::map(Rgb const& color, Pixel pixel) const {
    Rgb c = color;
    ChainOrder<UnaryColorMappingOperator const>(this).forEachFirstToLast(
        [&](UnaryColorMappingOperator const* op) { c = op->mapImpl(zeroNaN(c), pixel); });
    // An operator can make NaN of an infinity (0 times infinity): 0 as well.
    return zeroNaN(c);
}

Rgb UnaryColorMappingOperator::unmap(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    Rgb c = color;
    for (UnaryColorMappingOperator const* op = this; op; op = op->getPredecessorPointer())
        c = op->unmapImpl(zeroNaN(c), exclude);
    return zeroNaN(c);
}

void UnaryColorMappingOperator::mapImpl(std::span<Rgb> pixels, Pixel origin, Pixel extent) const {
    std::size_t const n = bucketSize(pixels.size(), extent);
    for (std::size_t k = 0; k < n; ++k) {
        Pixel const p(origin.x + std::int32_t(k % std::size_t(extent.x)), origin.y + std::int32_t(k / std::size_t(extent.x)));
        pixels[k] = mapImpl(zeroNaN(pixels[k]), p);
    }
}

void UnaryColorMappingOperator::mapImpl(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const {
    std::size_t const n = bucketSize(pixels.size(), extent);
    for (std::size_t k = 0; k < n; ++k) {
        Pixel const p(origin.x + std::int32_t(k % std::size_t(extent.x)), origin.y + std::int32_t(k / std::size_t(extent.x)));
        RgbAlpha& c = pixels[k];
        Rgb const m = mapImpl(zeroNaN(c.rgb()), p);
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
    // Rebuild the chain below from the records so that this operator owns its
    // own copy, first operator first; a type the factory does not know (a
    // legacy operator) is kept as it is, with what lies below it, for the
    // pipeline's clean-up to find.
    auto const& factory = ColorMappingOperatorFactory::getInstance();
    Stack<EntityHolder<UnaryColorMappingOperator>> sources;  // nearest first
    EntityHolder<UnaryColorMappingOperator> below;
    for (auto source = data.get<EntityHolder<UnaryColorMappingOperator>>("predecessor"); source;
         source = source->getData().get<EntityHolder<UnaryColorMappingOperator>>("predecessor")) {
        if (!factory.containsDescriptor(source->getClassName())) {
            below = source;
            break;
        }
        sources.push_back(source);
    }
    for (auto it = sources.rbegin(); it != sources.rend(); ++it) {
        GenericDataObject record = (*it)->getData();
        if (auto r = record.setValue("predecessor", EntityHolder<Entity>()); !r) throw Exception(r.error());
        auto copy = factory.createOperator(record);
        if (below) copy->setPredecessor(below);
        below = std::move(copy);
    }
    GenericDataObject own = data;
    if (!sources.empty()) {
        if (auto r = own.setValue("predecessor", EntityHolder<Entity>(below)); !r) throw Exception(r.error());
    }
    if (auto r = setData(own); !r) throw Exception(r.error());
}

void UnaryColorMappingOperator::prepareForApplication(ColorMappingContext const& context) {
    // The records may have been edited: take the links from them, and refuse
    // a chain edited into a loop, which would never end.
    std::unordered_set<UnaryColorMappingOperator const*> seen;
    for (UnaryColorMappingOperator* op = this; op; op = op->getPredecessorPointer()) {
        if (!seen.insert(op).second)
            throw Exception("The colour-mapping chain of \"" + getClassName() + "\" loops back on itself");
        op->refreshPredecessor();
    }
    ChainOrder<UnaryColorMappingOperator>(this).forEachFirstToLast(
        [&](UnaryColorMappingOperator* op) { op->prepareForApplicationImpl(context); });
}

void UnaryColorMappingOperator::applyOverrides(std::span<ToneMappingPropertyOverride const> overrides,
                                               String& errorInfo) {
    ChainOrder<UnaryColorMappingOperator>(this).forEachFirstToLast(
        [&](UnaryColorMappingOperator* op) { op->applyOverridesImpl(overrides, errorInfo); });
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

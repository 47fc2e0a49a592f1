#pragma once
// Small pieces shared by the procedural maps when they build their evaluators.
#include "Ferrim/MaterialMapSlot.h"
#include "Ferrim/UvMapper.h"

namespace Quelin::MapsDetail {

/// A frozen copy of the record's mapper, or a default mapper when the record holds none.
inline SharedPtr<UvMapper const> evaluatorUvMapper(GenericDataObject const& data, StringView name = "uvMapper") {
    auto const holder = data.get<EntityHolder<UvMapper>>(name);
    if (holder) return holder->snapshot();
    return makeSharedPtr<UvMapper>();
}

/// The channel a map reads through its own mapper; empty when it maps by position or screen.
inline Optional<int> ownUvChannel(GenericDataObject const& data, StringView name = "uvMapper") {
    auto const holder = data.get<EntityHolder<UvMapper>>(name);
    if (!holder || holder->getMappingMode() != UvMappingMode::UvChannel) return std::nullopt;
    return holder->getChannel();
}

/// The evaluator of a colour-or-map property.
inline ColorOrMap::Evaluator colorOrMapEvaluator(GenericDataObject const& data, StringView name) {
    return ColorOrMap::Evaluator(ColorOrMap::fromData(data.get<GenericDataObject>(name)));
}

/// (1 - t) a + t b, channel by channel, alpha included.
inline RgbAlpha mix(RgbAlpha const& a, RgbAlpha const& b, float t) {
    float const s = 1.f - t;
    return {s * a.r + t * b.r, s * a.g + t * b.g, s * a.b + t * b.b, s * a.alpha + t * b.alpha};
}
inline MonoAlpha mix(MonoAlpha const& a, MonoAlpha const& b, float t) {
    float const s = 1.f - t;
    return {s * a.value + t * b.value, s * a.alpha + t * b.alpha};
}
inline Dir mix(Dir const& a, Dir const& b, float t) {
    float const s = 1.f - t;
    return {s * a.x + t * b.x, s * a.y + t * b.y, s * a.z + t * b.z};
}

} // namespace Quelin::MapsDetail

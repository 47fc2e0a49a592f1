#include "QuelinLib/DataObjects.h"

#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <cstdio>
#include <set>
#include <shared_mutex>

namespace Quelin {

// ---------------------------------------------------------------- lists, types

void ListPropertyValue::push_back(GenericDataObject item) { mItems.emplace_back(std::move(item)); }
void ListPropertyValue::erase(std::size_t i) { mItems.erase(mItems.begin() + std::ptrdiff_t(i)); }
void ListPropertyValue::clear() { mItems.clear(); }
bool ListPropertyValue::operator==(ListPropertyValue const& o) const { return mItems == o.mItems; }

StringView valueTypeName(ValueType t) {
    switch (t) {
    case ValueType::Bool: return "bool";
    case ValueType::Int: return "int";
    case ValueType::Float: return "float";
    case ValueType::Color: return "color";
    case ValueType::Vector2: return "vector2";
    case ValueType::Vector3: return "vector3";
    case ValueType::Transform: return "transform";
    case ValueType::String: return "string";
    case ValueType::Path: return "path";
    case ValueType::Enum: return "enum";
    case ValueType::EntityRef: return "entity";
    case ValueType::Group: return "group";
    case ValueType::List: return "list";
    }
    return "unknown";
}

#define QUELIN_SIMPLE_TYPE(fn, vt)                                                                                     \
    SharedPtr<TypeDefinition const> TypeDefinition::fn() {                                                             \
        static SharedPtr<TypeDefinition const> const sType = [] {                                                      \
            auto d = makeSharedPtr<TypeDefinition>();                                                                   \
            d->mValueType = ValueType::vt;                                                                             \
            d->mName = String(valueTypeName(ValueType::vt));                                                           \
            return SharedPtr<TypeDefinition const>(d);                                                                 \
        }();                                                                                                           \
        return sType;                                                                                                  \
    }
QUELIN_SIMPLE_TYPE(makeBool, Bool)
QUELIN_SIMPLE_TYPE(makeInt, Int)
QUELIN_SIMPLE_TYPE(makeFloat, Float)
QUELIN_SIMPLE_TYPE(makeColor, Color)
QUELIN_SIMPLE_TYPE(makeVector2, Vector2)
QUELIN_SIMPLE_TYPE(makeVector3, Vector3)
QUELIN_SIMPLE_TYPE(makeTransform, Transform)
QUELIN_SIMPLE_TYPE(makeString, String)
QUELIN_SIMPLE_TYPE(makePath, Path)
#undef QUELIN_SIMPLE_TYPE

SharedPtr<TypeDefinition const> TypeDefinition::makeEnum(String typeName, Stack<EnumEntry> entries) {
    auto d = makeSharedPtr<TypeDefinition>();
    d->mValueType = ValueType::Enum;
    d->mName = std::move(typeName);
    d->mEnumEntries = std::move(entries);
    return d;
}

SharedPtr<TypeDefinition const> TypeDefinition::makeEntityRef(String className, Function<bool(Entity const&)> accepts) {
    auto d = makeSharedPtr<TypeDefinition>();
    d->mValueType = ValueType::EntityRef;
    d->mName = std::move(className);
    d->mAccepts = std::move(accepts);
    return d;
}

SharedPtr<TypeDefinition const> TypeDefinition::makeGroup(SharedPtr<DataObjectDefinition const> group) {
    auto d = makeSharedPtr<TypeDefinition>();
    d->mValueType = ValueType::Group;
    d->mName = group->getName();
    d->mGroup = std::move(group);
    return d;
}

SharedPtr<TypeDefinition const> TypeDefinition::makeList(SharedPtr<DataObjectDefinition const> itemGroup) {
    auto d = makeSharedPtr<TypeDefinition>();
    d->mValueType = ValueType::List;
    d->mName = itemGroup->getName();
    d->mGroup = std::move(itemGroup);
    return d;
}

Optional<StringView> TypeDefinition::findEnumLabel(int value) const {
    for (auto const& e : mEnumEntries)
        if (e.value == value) return StringView(e.label);
    return std::nullopt;
}

Optional<int> TypeDefinition::findEnumValue(StringView label) const {
    for (auto const& e : mEnumEntries)
        if (e.label == label) return e.value;
    return std::nullopt;
}

PropertyValue TypeDefinition::makeDefaultValue() const {
    switch (mValueType) {
    case ValueType::Bool: return false;
    case ValueType::Int: return 0;
    case ValueType::Float: return 0.f;
    case ValueType::Color: return Rgb();
    case ValueType::Vector2: return Vector2();
    case ValueType::Vector3: return Pos();
    case ValueType::Transform: return AffineTm();
    case ValueType::String:
    case ValueType::Path: return String();
    case ValueType::Enum: return mEnumEntries.empty() ? 0 : mEnumEntries.front().value;
    case ValueType::EntityRef: return EntityHolder<Entity>();
    case ValueType::Group: return Box<GenericDataObject>(GenericDataObject(mGroup));
    case ValueType::List: return ListPropertyValue();
    }
    return std::monostate();
}

bool TypeDefinition::holdsType(PropertyValue const& v) const {
    switch (mValueType) {
    case ValueType::Bool: return std::holds_alternative<bool>(v);
    case ValueType::Int: return std::holds_alternative<int>(v);
    case ValueType::Float: return std::holds_alternative<float>(v);
    case ValueType::Color: return std::holds_alternative<Rgb>(v);
    case ValueType::Vector2: return std::holds_alternative<Vector2>(v);
    case ValueType::Vector3: return std::holds_alternative<Pos>(v);
    case ValueType::Transform: return std::holds_alternative<AffineTm>(v);
    case ValueType::String:
    case ValueType::Path: return std::holds_alternative<String>(v);
    case ValueType::Enum: return std::holds_alternative<int>(v);
    case ValueType::EntityRef: return std::holds_alternative<EntityHolder<Entity>>(v);
    case ValueType::Group: {
        auto const* b = std::get_if<Box<GenericDataObject>>(&v);
        return b && *b && (*b)->getName() == mGroup->getName();
    }
    case ValueType::List: {
        auto const* l = std::get_if<ListPropertyValue>(&v);
        if (!l) return false;
        for (std::size_t i = 0; i < l->size(); ++i)
            if ((*l)[i].getName() != mGroup->getName()) return false;
        return true;
    }
    }
    return false;
}

// ---------------------------------------------------------------- validators

namespace {
template <typename T> String numberText(T v) {
    std::ostringstream s;
    s << v;
    return s.str();
}

/// Applies `f` to each scalar component of a numeric value; other kinds pass.
template <typename F> Expected<PropertyValue> forEachComponent(PropertyValue v, F&& f) {
    auto apply = [&](float& x) -> Expected<void> {
        auto r = f(x);
        if (!r) return makeError(r.error());
        x = *r;
        return {};
    };
    if (auto* p = std::get_if<float>(&v)) {
        if (auto r = apply(*p); !r) return makeError(r.error());
    } else if (auto* i = std::get_if<int>(&v)) {
        float x = float(*i);
        auto r = f(x);
        if (!r) return makeError(r.error());
        *i = int(std::lround(*r));
    } else if (auto* c = std::get_if<Rgb>(&v)) {
        for (int k = 0; k < 3; ++k)
            if (auto r = apply((*c)[k]); !r) return makeError(r.error());
    } else if (auto* q = std::get_if<Pos>(&v)) {
        for (int k = 0; k < 3; ++k)
            if (auto r = apply((*q)[k]); !r) return makeError(r.error());
    } else if (auto* w = std::get_if<Vector2>(&v)) {
        if (auto r = apply(w->x); !r) return makeError(r.error());
        if (auto r = apply(w->y); !r) return makeError(r.error());
    }
    return v;
}
} // namespace

template <typename T> Expected<PropertyValue> MinimumValueValidator<T>::validate(PropertyValue const& value) const {
    float const minimum = float(mMinimum);
    return forEachComponent(value, [&](float x) -> Expected<float> {
        if (!(x >= minimum)) return makeError("value " + numberText(x) + " is below the minimum " + numberText(mMinimum));
        return x;
    });
}
template <typename T> nlohmann::json MinimumValueValidator<T>::describe() const {
    return {{"kind", "minimum"}, {"minimum", mMinimum}};
}

template <typename T> Expected<PropertyValue> ClampValueToRangeValidator<T>::validate(PropertyValue const& value) const {
    float const lo = float(mMinimum), hi = float(mMaximum);
    return forEachComponent(value, [&](float x) -> Expected<float> {
        if (std::isnan(x)) return makeError("value is not a number");
        return clamp(x, lo, hi);
    });
}
template <typename T> nlohmann::json ClampValueToRangeValidator<T>::describe() const {
    return {{"kind", "clamp"}, {"minimum", mMinimum}, {"maximum", mMaximum}};
}

template class MinimumValueValidator<float>;
template class MinimumValueValidator<int>;
template class ClampValueToRangeValidator<float>;
template class ClampValueToRangeValidator<int>;

Expected<PropertyValue> CompoundPropertyValidator::validate(PropertyValue const& value) const {
    PropertyValue v = value;
    for (auto const& p : mParts) {
        auto r = p->validate(v);
        if (!r) return r;
        v = std::move(*r);
    }
    return v;
}
nlohmann::json CompoundPropertyValidator::describe() const {
    nlohmann::json parts = nlohmann::json::array();
    for (auto const& p : mParts) parts.push_back(p->describe());
    return {{"kind", "compound"}, {"parts", parts}};
}

// ---------------------------------------------------------------- definitions

PropertyDefinition::PropertyDefinition(String name, SharedPtr<TypeDefinition const> type, PropertyKind kind)
    : mName(std::move(name)), mType(std::move(type)), mKind(kind), mDefault(mType->makeDefaultValue()) {}

MetadataValue const* PropertyDefinition::findMetadata(StringView key) const {
    auto it = mMetadata.find(key);
    return it == mMetadata.end() ? nullptr : &it->second;
}

PropertyDefinition& PropertyDefinition::setDefault(PropertyValue value) {
    auto r = validate(value);
    if (!r) throw Exception("Default of property \"" + mName + "\": " + r.error());
    mDefault = std::move(*r);
    return *this;
}

PropertyDefinition& PropertyDefinition::addValidator(SharedPtr<IPropertyValidator const> validator) {
    mValidators.push_back(std::move(validator));
    return *this;
}

PropertyDefinition& PropertyDefinition::setMetadata(StringView key, MetadataValue value) {
    mMetadata.insertOrAssign(String(key), std::move(value));
    return *this;
}

PropertyDefinition& PropertyDefinition::setDefaultEntityFactory(Function<SharedPtr<Entity>()> factory) {
    mDefaultEntityFactory = std::move(factory);
    return *this;
}

Expected<PropertyValue> PropertyDefinition::validate(PropertyValue const& value) const {
    PropertyValue v = value;
    // Numbers widen where the property is wider: an int where a float is wanted.
    if (mType->getValueType() == ValueType::Float && std::holds_alternative<int>(v)) v = float(std::get<int>(v));
    if (!mType->holdsType(v))
        return makeError("property \"" + mName + "\" expects a value of type " + String(valueTypeName(mType->getValueType())) +
                         (mType->getValueType() == ValueType::Enum || mType->getValueType() == ValueType::Group ||
                                  mType->getValueType() == ValueType::List || mType->getValueType() == ValueType::EntityRef
                              ? " \"" + mType->getName() + "\""
                              : String()));
    if (mType->getValueType() == ValueType::Enum && !mType->findEnumLabel(std::get<int>(v)))
        return makeError("property \"" + mName + "\": " + std::to_string(std::get<int>(v)) + " is not a value of \"" +
                         mType->getName() + "\"");
    if (mType->getValueType() == ValueType::EntityRef) {
        auto const& h = std::get<EntityHolder<Entity>>(v);
        if (h && !mType->acceptsEntity(*h))
            return makeError("property \"" + mName + "\" expects an entity of class \"" + mType->getName() + "\", not \"" +
                             h->getClassName() + "\"");
    }
    for (auto const& val : mValidators) {
        auto r = val->validate(v);
        if (!r) return makeError("property \"" + mName + "\": " + r.error());
        v = std::move(*r);
    }
    return v;
}

DataObjectDefinition::DataObjectDefinition(String name, Stack<SharedPtr<PropertyDefinition>> properties)
    : mName(std::move(name)), mProperties(std::move(properties)) {}

int DataObjectDefinition::findIndex(StringView name) const {
    for (std::size_t i = 0; i < mProperties.size(); ++i)
        if (mProperties[i]->getName() == name) return int(i);
    return -1;
}

PropertyDefinition const* DataObjectDefinition::find(StringView name) const {
    int const i = findIndex(name);
    return i < 0 ? nullptr : mProperties[std::size_t(i)].get();
}

SharedPtr<PropertyDefinition> IDataObjectBuilder::createProperty(StringView name, SharedPtr<TypeDefinition const> type,
                                                                 PropertyKind kind) {
    for (auto const& p : mProperties)
        if (p->getName() == name) throw Exception("Property \"" + String(name) + "\" is declared twice");
    return makeSharedPtr<PropertyDefinition>(String(name), std::move(type), kind);
}

SharedPtr<DataObjectDefinition const> IDataObjectBuilder::build(String typeName) const {
    return makeSharedPtr<DataObjectDefinition>(std::move(typeName), mProperties);
}

// ---------------------------------------------------------------- records

GenericDataObject::GenericDataObject(SharedPtr<DataObjectDefinition const> definition)
    : mDefinition(std::move(definition)) {
    if (!mDefinition) throw Exception("A data object needs a definition");
    reset();
}

void GenericDataObject::reset() {
    mProperties.clear();
    mProperties.reserve(mDefinition->getProperties().size());
    for (auto const& p : mDefinition->getProperties()) {
        if (auto const& f = p->getDefaultEntityFactory())
            mProperties.push_back({p, EntityHolder<Entity>(f())});
        else
            mProperties.push_back({p, p->getDefault()});
    }
}

PropertyValue const& GenericDataObject::getValue(StringView name) const {
    int const i = mDefinition->findIndex(name);
    if (i < 0) throw Exception("\"" + getName() + "\" has no property \"" + String(name) + "\"");
    return mProperties[std::size_t(i)].value;
}

PropertyValue& GenericDataObject::at(StringView name) { return const_cast<PropertyValue&>(getValue(name)); }

Expected<void> GenericDataObject::setValue(StringView name, PropertyValue value) {
    int const i = mDefinition->findIndex(name);
    if (i < 0) return makeError("\"" + getName() + "\" has no property \"" + String(name) + "\"");
    auto r = mProperties[std::size_t(i)].definition->validate(value);
    if (!r) return makeError(r.error());
    mProperties[std::size_t(i)].value = std::move(*r);
    return {};
}

bool GenericDataObject::operator==(GenericDataObject const& o) const {
    return getName() == o.getName() && mProperties == o.mProperties;
}

ClassId makeClassId(StringView className) {
    // Two FNV-1a passes with different offsets: stable across runs and builds.
    auto fnv = [&](std::uint64_t h) {
        for (unsigned char c : className) {
            h ^= c;
            h *= 0x100000001b3ull;
        }
        return h;
    };
    std::uint64_t const a = fnv(0xcbf29ce484222325ull), b = fnv(0x84222325cbf29ce4ull);
    ClassId id{};
    for (int i = 0; i < 8; ++i) {
        id[std::size_t(i)] = std::uint8_t(a >> (8 * i));
        id[std::size_t(i + 8)] = std::uint8_t(b >> (8 * i));
    }
    return id;
}

// ---------------------------------------------------------------- entities

Entity::Entity(SharedPtr<DataObjectDefinition const> definition) : mData(std::move(definition)) {}

namespace {
/// While the outermost entity destructor of this thread drains its queue: the
/// queue. A plain pointer, so nothing of it outlives the thread.
thread_local Stack<SharedPtr<Entity>>* tPendingDestruction = nullptr;
} // namespace

Entity::~Entity() {
    // References released here may be the last ones. Their entities are
    // queued, and only the outermost destructor on this thread destroys the
    // queue, each entity adding its own references to it in turn.
    Stack<SharedPtr<Entity>> local;
    Stack<SharedPtr<Entity>>& pending = tPendingDestruction ? *tPendingDestruction : local;
    Stack<Stack<GenericProperty>*> records{&mData.mProperties};
    while (!records.empty()) {
        Stack<GenericProperty>& record = *records.back();
        records.pop_back();
        for (auto& p : record) {
            if (auto* h = std::get_if<EntityHolder<Entity>>(&p.value)) {
                if (*h) pending.push_back(h->getShared());
                *h = EntityHolder<Entity>();
            } else if (auto* g = std::get_if<Box<GenericDataObject>>(&p.value)) {
                if (*g) records.push_back(&(*g)->mProperties);
            } else if (auto* l = std::get_if<ListPropertyValue>(&p.value)) {
                for (std::size_t i = 0; i < l->size(); ++i) records.push_back(&(*l)[i].mProperties);
            }
        }
    }
    if (tPendingDestruction) return;
    tPendingDestruction = &local;
    while (!local.empty()) {
        SharedPtr<Entity> next = std::move(local.back());
        local.pop_back();
        next.reset();
    }
    tPendingDestruction = nullptr;
}

void Entity::copyStateFrom(Entity const& other) {
    if (other.getClassName() != getClassName())
        throw Exception("Cannot copy the state of \"" + other.getClassName() + "\" into \"" + getClassName() + "\"");
    if (&other == this) return;
    {
        std::scoped_lock lock(mMutex, other.mMutex);
        mData = other.mData;
    }
    notify({});
}

Expected<void> Entity::setValue(StringView name, PropertyValue value) {
    {
        std::lock_guard lock(mMutex);
        if (auto r = mData.setValue(name, std::move(value)); !r) return r;
    }
    notify(name);
    return {};
}

Expected<void> Entity::setData(GenericDataObject const& data) {
    if (data.getName() != getClassName())
        return makeError("\"" + data.getName() + "\" is not a record of \"" + getClassName() + "\"");
    {
        std::lock_guard lock(mMutex);
        mData = data;
    }
    notify({});
    return {};
}

std::size_t Entity::addObserver(Observer observer) {
    std::lock_guard lock(mMutex);
    std::size_t const id = mNextObserverId++;
    mObservers.insertOrAssign(id, std::move(observer));
    return id;
}

void Entity::removeObserver(std::size_t id) {
    std::lock_guard lock(mMutex);
    mObservers.erase(id);
}

void Entity::notify(StringView name) {
    onDataChanged(name);
    Stack<Observer> observers;
    {
        std::lock_guard lock(mMutex);
        for (auto const& [id, o] : mObservers) observers.push_back(o);
    }
    for (auto const& o : observers) o(*this, name);
}

// ---------------------------------------------------------------- registries

namespace {
struct ClassRegistry {
    std::shared_mutex mutex;
    FlatMap<String, EntityDatabase::Factory> classes;
};
ClassRegistry& classRegistry() {
    static ClassRegistry r;
    return r;
}

} // namespace

void EntityDatabase::registerClass(String className, Factory factory) {
    auto& r = classRegistry();
    std::unique_lock lock(r.mutex);
    r.classes.insertOrAssign(std::move(className), std::move(factory));
}

void EntityDatabase::unregisterClass(StringView className) {
    auto& r = classRegistry();
    std::unique_lock lock(r.mutex);
    r.classes.erase(className);
}

bool EntityDatabase::isRegistered(StringView className) {
    auto& r = classRegistry();
    std::shared_lock lock(r.mutex);
    return r.classes.contains(className);
}

SharedPtr<Entity> EntityDatabase::create(StringView className) {
    Factory f;
    {
        auto& r = classRegistry();
        std::shared_lock lock(r.mutex);
        auto it = r.classes.find(className);
        if (it == r.classes.end()) return nullptr;
        f = it->second;
    }
    return f ? f() : nullptr;
}

Stack<String> EntityDatabase::getClassNames() {
    auto& r = classRegistry();
    std::shared_lock lock(r.mutex);
    Stack<String> names;
    for (auto const& [n, f] : r.classes) names.push_back(n);
    return names;
}

namespace DataObjects {
namespace {
struct Registry {
    std::shared_mutex mutex;
    FlatMap<String, SharedPtr<DataObjectDefinition const>> types;
    FlatMap<void const*, Stack<std::pair<String, bool>>> byModule;
};
Registry& registry() {
    static Registry r;
    return r;
}
} // namespace

void TypeDatabase::registerModuleTypes(void const* moduleIdentity, Stack<ModuleType> const& types) {
    auto& r = registry();
    std::unique_lock lock(r.mutex);
    auto& owned = r.byModule[moduleIdentity];
    for (auto const& t : types) {
        String const& name = t.definition->getName();
        r.types.insertOrAssign(name, t.definition);
        owned.emplace_back(name, bool(t.factory));
        if (t.factory) EntityDatabase::registerClass(name, t.factory);
    }
}

void TypeDatabase::unregisterModuleTypes(void const* moduleIdentity) {
    auto& r = registry();
    std::unique_lock lock(r.mutex);
    auto it = r.byModule.find(moduleIdentity);
    if (it == r.byModule.end()) return;
    for (auto const& [name, isClass] : it->second) {
        r.types.erase(name);
        if (isClass) EntityDatabase::unregisterClass(name);
    }
    r.byModule.erase(moduleIdentity);
}

SharedPtr<DataObjectDefinition const> TypeDatabase::findType(StringView name) {
    auto& r = registry();
    std::shared_lock lock(r.mutex);
    auto it = r.types.find(name);
    return it == r.types.end() ? nullptr : it->second;
}

Stack<SharedPtr<DataObjectDefinition const>> TypeDatabase::getTypes() {
    auto& r = registry();
    std::shared_lock lock(r.mutex);
    Stack<SharedPtr<DataObjectDefinition const>> out;
    for (auto const& [n, d] : r.types) out.push_back(d);
    return out;
}
} // namespace DataObjects

// ---------------------------------------------------------------- graph visit

namespace {
void collectReferences(GenericDataObject const& data, Stack<Entity const*>& out) {
    for (auto const& p : data.getProperties()) {
        if (auto const* h = std::get_if<EntityHolder<Entity>>(&p.value)) {
            if (*h) out.push_back(h->get());
        } else if (auto const* g = std::get_if<Box<GenericDataObject>>(&p.value)) {
            if (*g) collectReferences(**g, out);
        } else if (auto const* l = std::get_if<ListPropertyValue>(&p.value)) {
            for (std::size_t i = 0; i < l->size(); ++i) collectReferences((*l)[i], out);
        }
    }
}

} // namespace

void visitEntityGraphNodes(Entity const& root, Function<VisitEntityGraphAction(Entity const&)> const& visitor) {
    // Depth first with a list of pending entities, not recursion: chains of
    // operators and nested maps can be long.
    std::set<Entity const*> seen;
    Stack<Entity const*> pending{&root};
    Stack<Entity const*> children;
    while (!pending.empty()) {
        Entity const* node = pending.back();
        pending.pop_back();
        if (!seen.insert(node).second) continue;
        VisitEntityGraphAction const action = visitor(*node);
        if (action == VisitEntityGraphAction::Stop) return;
        if (action == VisitEntityGraphAction::SkipChildren) continue;
        children.clear();
        collectReferences(node->getData(), children);
        pending.insert(pending.end(), children.rbegin(), children.rend());
    }
}

String generateUuidAsString() {
    thread_local std::mt19937_64 rng{std::random_device{}()};
    std::uint64_t hi = rng(), lo = rng();
    hi = (hi & ~0xF000ull) | 0x4000ull;                       // version 4
    lo = (lo & ~(0xC000ull << 48)) | (0x8000ull << 48);       // RFC 4122 variant
    char buf[37];
    std::snprintf(buf, sizeof buf, "%08x-%04x-%04x-%04x-%012llx", unsigned(hi >> 32), unsigned((hi >> 16) & 0xFFFF),
                  unsigned(hi & 0xFFFF), unsigned(lo >> 48), static_cast<unsigned long long>(lo & 0xFFFFFFFFFFFFull));
    return buf;
}

} // namespace Quelin

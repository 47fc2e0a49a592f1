#pragma once
// The data-object model: typed property records with validators and UI
// metadata, the entities that own them, and the registry of both.
//
// A record's layout is a DataObjectDefinition (an ordered list of
// PropertyDefinition). A GenericDataObject holds one value per property of
// its definition. Entities (maps, operators, mappers) own one record each and
// reference other entities through EntityRef properties, so a whole scene is
// one graph of records that can be listed, edited, copied, saved and loaded.
#include <atomic>
#include <nlohmann/json_fwd.hpp>
#include "QuelinLib/Base.h"
#include "QuelinLib/Exception.h"
#include "QuelinLib/FlatMap.h"
#include "QuelinLib/Types.h"

namespace Quelin {

class Entity;
class GenericDataObject;
class DataObjectDefinition;
class PropertyDefinition;

/// A shared reference to a scene entity; empty when nothing is referenced.
template <typename T> class EntityHolder {
public:
    EntityHolder() = default;
    EntityHolder(std::nullptr_t) {}
    EntityHolder(SharedPtr<T> p) : mPtr(std::move(p)) {}
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    EntityHolder(EntityHolder<U> const& o) : mPtr(o.getShared()) {}

    T* get() const { return mPtr.get(); }
    T* operator->() const { return mPtr.get(); }
    T& operator*() const { return *mPtr; }
    explicit operator bool() const { return bool(mPtr); }
    bool isEmpty() const { return !mPtr; }
    SharedPtr<T> const& getShared() const { return mPtr; }
    /// Same entity (identity, not content).
    template <typename U> bool operator==(EntityHolder<U> const& o) const {
        return static_cast<void const*>(get()) == static_cast<void const*>(o.get());
    }
    template <typename U> EntityHolder<U> cast() const { return EntityHolder<U>(std::dynamic_pointer_cast<U>(mPtr)); }

private:
    SharedPtr<T> mPtr;
};

/// Owning pointer with value semantics: copies copy the pointee. Lets records
/// nest records inside a variant.
template <typename T> class Box {
public:
    Box() = default;
    explicit Box(T value) : mPtr(std::make_unique<T>(std::move(value))) {}
    Box(Box const& o) : mPtr(o.mPtr ? std::make_unique<T>(*o.mPtr) : nullptr) {}
    Box(Box&&) noexcept = default;
    Box& operator=(Box const& o) {
        if (this != &o) mPtr = o.mPtr ? std::make_unique<T>(*o.mPtr) : nullptr;
        return *this;
    }
    Box& operator=(Box&&) noexcept = default;
    T& operator*() const { return *mPtr; }
    T* operator->() const { return mPtr.get(); }
    explicit operator bool() const { return bool(mPtr); }
    bool operator==(Box const& o) const { return (!mPtr || !o.mPtr) ? mPtr == o.mPtr : *mPtr == *o.mPtr; }

private:
    std::unique_ptr<T> mPtr;
};

/// The items of a list-of-groups property, in order.
class ListPropertyValue {
public:
    ListPropertyValue() = default;
    std::size_t size() const { return mItems.size(); }
    bool empty() const { return mItems.empty(); }
    GenericDataObject const& operator[](std::size_t i) const { return *mItems[i]; }
    GenericDataObject& operator[](std::size_t i) { return *mItems[i]; }
    void push_back(GenericDataObject item);
    // Out of line: they need GenericDataObject complete, which it is not yet here.
    void erase(std::size_t i);
    void clear();
    bool operator==(ListPropertyValue const& o) const;

private:
    Stack<Box<GenericDataObject>> mItems;
};

/// One property's value. Enumerations are stored as their int value, paths as
/// UTF-8 text, 3-vectors as Pos.
using PropertyValue = Variant<std::monostate, bool, int, float, Rgb, Vector2, Pos, AffineTm, String,
                              EntityHolder<Entity>, Box<GenericDataObject>, ListPropertyValue>;

enum class ValueType { Bool, Int, Float, Color, Vector2, Vector3, Transform, String, Path, Enum, EntityRef, Group, List };
StringView valueTypeName(ValueType t);

struct EnumEntry {
    int value;
    String label;
};

/// The type of a property.
class TypeDefinition {
public:
    static SharedPtr<TypeDefinition const> makeBool();
    static SharedPtr<TypeDefinition const> makeInt();
    static SharedPtr<TypeDefinition const> makeFloat();
    static SharedPtr<TypeDefinition const> makeColor();
    static SharedPtr<TypeDefinition const> makeVector2();
    static SharedPtr<TypeDefinition const> makeVector3();
    static SharedPtr<TypeDefinition const> makeTransform();
    static SharedPtr<TypeDefinition const> makeString();
    static SharedPtr<TypeDefinition const> makePath();
    static SharedPtr<TypeDefinition const> makeEnum(String typeName, Stack<EnumEntry> entries);
    /// Reference to an entity of class `className` or a class derived from it;
    /// `accepts` tells whether an entity qualifies.
    static SharedPtr<TypeDefinition const> makeEntityRef(String className, Function<bool(Entity const&)> accepts);
    template <typename T> static SharedPtr<TypeDefinition const> makeEntityRef(String className) {
        return makeEntityRef(std::move(className), [](Entity const& e) { return dynamic_cast<T const*>(&e) != nullptr; });
    }
    static SharedPtr<TypeDefinition const> makeGroup(SharedPtr<DataObjectDefinition const> group);
    static SharedPtr<TypeDefinition const> makeList(SharedPtr<DataObjectDefinition const> itemGroup);

    ValueType getValueType() const { return mValueType; }
    /// Enumeration, group or entity class name; the value type's name otherwise.
    String const& getName() const { return mName; }
    Stack<EnumEntry> const& getEnumEntries() const { return mEnumEntries; }
    Optional<StringView> findEnumLabel(int value) const;
    Optional<int> findEnumValue(StringView label) const;
    bool acceptsEntity(Entity const& e) const { return !mAccepts || mAccepts(e); }
    SharedPtr<DataObjectDefinition const> const& getGroup() const { return mGroup; }
    /// The zero value of this type (the group's defaults for a group).
    PropertyValue makeDefaultValue() const;
    /// Whether `v` holds this type's alternative.
    bool holdsType(PropertyValue const& v) const;

private:
    ValueType mValueType = ValueType::Bool;
    String mName;
    Stack<EnumEntry> mEnumEntries;
    Function<bool(Entity const&)> mAccepts;
    SharedPtr<DataObjectDefinition const> mGroup;
};

/// Checks, and where it says so corrects, a value before it is stored.
class IPropertyValidator : public Polymorphic {
public:
    /// The value to store, or an error text.
    virtual Expected<PropertyValue> validate(PropertyValue const& value) const = 0;
    /// Machine-readable description for hosts and `ferrim types`.
    virtual nlohmann::json describe() const = 0;
};

/// Refuses values below a minimum (every component for vectors and colours).
template <typename T> class MinimumValueValidator : public IPropertyValidator {
public:
    explicit MinimumValueValidator(T minimum) : mMinimum(minimum) {}
    Expected<PropertyValue> validate(PropertyValue const& value) const override;
    nlohmann::json describe() const override;
    T getMinimum() const { return mMinimum; }

private:
    T mMinimum;
};

/// Clamps values into [minimum, maximum] (component-wise for vectors and colours).
template <typename T> class ClampValueToRangeValidator : public IPropertyValidator {
public:
    ClampValueToRangeValidator(T minimum, T maximum) : mMinimum(minimum), mMaximum(maximum) {}
    Expected<PropertyValue> validate(PropertyValue const& value) const override;
    nlohmann::json describe() const override;
    T getMinimum() const { return mMinimum; }
    T getMaximum() const { return mMaximum; }

private:
    T mMinimum, mMaximum;
};

/// Runs several validators in order; each sees the previous one's result.
class CompoundPropertyValidator : public IPropertyValidator {
public:
    explicit CompoundPropertyValidator(Stack<SharedPtr<IPropertyValidator const>> parts) : mParts(std::move(parts)) {}
    Expected<PropertyValue> validate(PropertyValue const& value) const override;
    nlohmann::json describe() const override;

private:
    Stack<SharedPtr<IPropertyValidator const>> mParts;
};

/// A condition over a record, as "Zatho.Ui.EnabledIf" needs: a text for
/// hosts that show or store it, and the function that evaluates it.
struct MetadataPredicate {
    String expression;
    Function<bool(GenericDataObject const&)> evaluate;
};
/// A UI-metadata value: text, number, flag, predicate or free JSON text.
using MetadataValue = Variant<String, double, bool, MetadataPredicate>;

/// UI metadata keys.
namespace Metadata {
inline constexpr StringView UI_NAME = "Zatho.Ui.Name";
inline constexpr StringView UI_DESCRIPTION = "Zatho.Ui.Description";
inline constexpr StringView UI_FLAGS = "Zatho.Ui.Flags";
inline constexpr StringView UI_ENABLED_IF = "Zatho.Ui.EnabledIf";
inline constexpr StringView UI_VISIBLE_IF = "Zatho.Ui.VisibleIf";
inline constexpr StringView UI_PATH_FLAGS = "Zatho.Ui.PathFlags";
inline constexpr StringView UI_COLOR_OR_MAP_FLAGS = "Zatho.Ui.ColorOrMapFlags";
inline constexpr StringView UI_COLOR_FLAGS = "Zatho.Ui.ColorFlags";
inline constexpr StringView UI_COLOR_RANGE = "Zatho.Ui.ColorRange";
inline constexpr StringView UI_LIST_DEFAULT_VALUE = "Zatho.Ui.ListDefaultValue";
inline constexpr StringView UI_LIST_ITEM_ADDER = "Zatho.Ui.ListItemAdder";
inline constexpr StringView UI_LIST_PRESETS = "Zatho.Ui.ListPresets";
inline constexpr StringView QUANTITY = "Zatho.Quantity";
} // namespace Metadata

/// Whether a property is plain data or hidden from the UI.
enum class PropertyKind { Normal, Hidden };

/// One property of a record: name, type, default, validators, metadata.
class PropertyDefinition {
public:
    PropertyDefinition(String name, SharedPtr<TypeDefinition const> type, PropertyKind kind = PropertyKind::Normal);

    String const& getName() const { return mName; }
    TypeDefinition const& getType() const { return *mType; }
    SharedPtr<TypeDefinition const> const& getTypePtr() const { return mType; }
    PropertyKind getKind() const { return mKind; }
    PropertyValue const& getDefault() const { return mDefault; }
    Stack<SharedPtr<IPropertyValidator const>> const& getValidators() const { return mValidators; }
    FlatMap<String, MetadataValue> const& getMetadata() const { return mMetadata; }
    MetadataValue const* findMetadata(StringView key) const;

    /// The default must hold the property's type; it is validated too.
    PropertyDefinition& setDefault(PropertyValue value);
    PropertyDefinition& addValidator(SharedPtr<IPropertyValidator const> validator);
    PropertyDefinition& setMetadata(StringView key, MetadataValue value);
    /// For entity references: every new record gets its own fresh entity from
    /// this factory instead of sharing one default entity.
    PropertyDefinition& setDefaultEntityFactory(Function<SharedPtr<Entity>()> factory);
    Function<SharedPtr<Entity>()> const& getDefaultEntityFactory() const { return mDefaultEntityFactory; }
    /// Type check, then every validator in order.
    Expected<PropertyValue> validate(PropertyValue const& value) const;

private:
    String mName;
    SharedPtr<TypeDefinition const> mType;
    PropertyKind mKind;
    PropertyValue mDefault;
    Stack<SharedPtr<IPropertyValidator const>> mValidators;
    FlatMap<String, MetadataValue> mMetadata;
    Function<SharedPtr<Entity>()> mDefaultEntityFactory;
};

/// The UI layout of a record: properties in groups, in display order.
class GroupLayout {
public:
    struct Item {
        enum class Kind { Begin, Property, End } kind;
        String name;
    };
    void beginLayout(StringView name) { mItems.push_back({Item::Kind::Begin, String(name)}); }
    void addProperty(StringView name) { mItems.push_back({Item::Kind::Property, String(name)}); }
    void endLayout() { mItems.push_back({Item::Kind::End, {}}); }
    Stack<Item> const& getItems() const { return mItems; }

private:
    Stack<Item> mItems;
};

/// The layout of a record type: its name ("Zatho.NoiseMap") and properties in order.
class DataObjectDefinition {
public:
    DataObjectDefinition(String name, Stack<SharedPtr<PropertyDefinition>> properties);
    String const& getName() const { return mName; }
    Stack<SharedPtr<PropertyDefinition>> const& getProperties() const { return mProperties; }
    /// Index of a property, or -1.
    int findIndex(StringView name) const;
    PropertyDefinition const* find(StringView name) const;

private:
    String mName;
    Stack<SharedPtr<PropertyDefinition>> mProperties;
};

/// The base builder of record types: properties are created in order, then the
/// definition is sealed by `build`.
class IDataObjectBuilder : public Polymorphic {
public:
    virtual SharedPtr<PropertyDefinition> addProperty(StringView name, SharedPtr<TypeDefinition const> type,
                                                      PropertyKind kind = PropertyKind::Normal) = 0;
    SharedPtr<PropertyDefinition> createProperty(StringView name, SharedPtr<TypeDefinition const> type, PropertyKind kind);
    SharedPtr<DataObjectDefinition const> build(String typeName) const;

protected:
    Stack<SharedPtr<PropertyDefinition>> mProperties;
};

/// One property of a record with its value.
struct GenericProperty {
    SharedPtr<PropertyDefinition const> definition;
    PropertyValue value;
    bool operator==(GenericProperty const& o) const { return value == o.value; }
};

/// A record: one value for every property of its definition.
class GenericDataObject {
public:
    explicit GenericDataObject(SharedPtr<DataObjectDefinition const> definition);

    DataObjectDefinition const& getDefinition() const { return *mDefinition; }
    SharedPtr<DataObjectDefinition const> const& getDefinitionPtr() const { return mDefinition; }
    String const& getName() const { return mDefinition->getName(); }
    Stack<GenericProperty> const& getProperties() const { return mProperties; }

    bool has(StringView name) const { return mDefinition->findIndex(name) >= 0; }
    /// Throws `Exception` naming the property when it does not exist.
    PropertyValue const& getValue(StringView name) const;
    /// Typed read. T is the stored alternative, an enumeration type (read from
    /// the stored int), `EntityHolder<X>` (cast; empty if of another class) or
    /// `GenericDataObject` for a nested group.
    template <typename T> T get(StringView name) const;
    /// Validates (clamping where a validator clamps) and stores.
    Expected<void> setValue(StringView name, PropertyValue value);
    /// Like setValue, but throws `Exception` on a refused value.
    template <typename T> void set(StringView name, T value);
    /// Restores every property's default.
    void reset();

    bool operator==(GenericDataObject const& o) const;

private:
    friend class Entity;  // takes the references apart when it is destroyed
    PropertyValue& at(StringView name);
    SharedPtr<DataObjectDefinition const> mDefinition;
    Stack<GenericProperty> mProperties;
};

using ClassId = StaticArray<std::uint8_t, 16>;
/// A stable 16-byte id derived from a class name.
ClassId makeClassId(StringView className);

/// A scene object: a class, a record of parameters, observers of changes.
class Entity : public Polymorphic, public Noncopyable, public std::enable_shared_from_this<Entity> {
public:
    explicit Entity(SharedPtr<DataObjectDefinition const> definition);
    /// Entities that only this one references are destroyed one after
    /// another, not from inside each other's destructors, so that a long
    /// chain (operators, nested maps) cannot exhaust the stack.
    ~Entity() override;

    /// The registered class name, which is also the record's type name.
    String const& getClassName() const { return mData.getName(); }
    virtual ClassId getClassId() const { return makeClassId(getClassName()); }
    /// A fresh entity of the same concrete class with default parameters.
    virtual SharedPtr<Entity> createNewInstance() const = 0;
    /// Copies the other entity's record (referenced entities stay shared).
    virtual void copyStateFrom(Entity const& other);
    /// The record as JSON (nested entities inline).
    virtual nlohmann::json saveInternalData() const;
    /// Replaces the record from JSON; on error nothing changes.
    virtual Expected<void> loadInternalData(nlohmann::json const& data);

    GenericDataObject const& getData() const { return mData; }
    template <typename T> T get(StringView name) const { return mData.get<T>(name); }
    /// Validates, stores and notifies.
    Expected<void> setValue(StringView name, PropertyValue value);
    template <typename T> void set(StringView name, T value);
    /// Replaces the whole record (same definition required) and notifies.
    Expected<void> setData(GenericDataObject const& data);

    using Observer = Function<void(Entity&, StringView propertyName)>;
    /// Called after every change; the name is empty when the whole record changed.
    std::size_t addObserver(Observer observer);
    void removeObserver(std::size_t id);

    /// Guards the record for hosts that edit from several threads.
    Mutex& getMutex() const { return mMutex; }

protected:
    /// Hook for derived classes that keep values computed from the record.
    virtual void onDataChanged(StringView /*propertyName*/) {}
    GenericDataObject& editData() { return mData; }

private:
    void notify(StringView name);
    GenericDataObject mData;
    mutable Mutex mMutex;
    FlatMap<std::size_t, Observer> mObservers;
    std::size_t mNextObserverId = 1;
};

/// Entity classes by name, and the creation of entities from their names.
class EntityDatabase {
public:
    using Factory = Function<SharedPtr<Entity>()>;
    static void registerClass(String className, Factory factory);
    static void unregisterClass(StringView className);
    static bool isRegistered(StringView className);
    /// A new entity, or empty if the class is unknown.
    static SharedPtr<Entity> create(StringView className);
    static Stack<String> getClassNames();
};

namespace DataObjects {

/// A record type that a module registers; `factory` is set for entity classes.
struct ModuleType {
    SharedPtr<DataObjectDefinition const> definition;
    EntityDatabase::Factory factory;
};

/// Registry of the record types and entity classes of all loaded modules.
class TypeDatabase {
public:
    static void registerModuleTypes(void const* moduleIdentity, Stack<ModuleType> const& types);
    static void unregisterModuleTypes(void const* moduleIdentity);
    static SharedPtr<DataObjectDefinition const> findType(StringView name);
    static Stack<SharedPtr<DataObjectDefinition const>> getTypes();
};

} // namespace DataObjects

enum class VisitEntityGraphAction { Continue, SkipChildren, Stop };
/// Depth-first visit of `root` and every entity reachable through its records
/// (nested groups and lists included); each entity is visited once.
void visitEntityGraphNodes(Entity const& root, Function<VisitEntityGraphAction(Entity const&)> const& visitor);

/// Thread-safe source of ids unique within the process, starting at 1.
class UniqueIdGenerator {
public:
    std::uint64_t next() { return ++mLast; }

private:
    std::atomic<std::uint64_t> mLast{0};
};

/// A random (version 4) UUID in its usual 36-character text form.
String generateUuidAsString();

// ---- template implementations ----
namespace Detail {
template <typename T> struct IsEntityHolder : std::false_type {};
template <typename T> struct IsEntityHolder<EntityHolder<T>> : std::true_type {};
} // namespace Detail

template <typename T> T GenericDataObject::get(StringView name) const {
    PropertyValue const& v = getValue(name);
    if constexpr (std::is_enum_v<T>) {
        return static_cast<T>(std::get<int>(v));
    } else if constexpr (Detail::IsEntityHolder<T>::value) {
        using E = std::remove_reference_t<decltype(*std::declval<T>())>;
        return std::get<EntityHolder<Entity>>(v).template cast<E>();
    } else if constexpr (std::is_same_v<T, GenericDataObject>) {
        return *std::get<Box<GenericDataObject>>(v);
    } else if constexpr (std::is_same_v<T, Dir>) {
        return toDir(std::get<Pos>(v));
    } else {
        auto const* p = std::get_if<T>(&v);
        if (!p) throw Exception("Property \"" + String(name) + "\" of \"" + getName() + "\" does not hold the requested type");
        return *p;
    }
}

/// Wraps a typed value as a PropertyValue (enumerations as int, groups boxed).
template <typename T> PropertyValue toPropertyValue(T value) {
    if constexpr (std::is_enum_v<T>) return PropertyValue(int(value));
    else if constexpr (Detail::IsEntityHolder<T>::value) return PropertyValue(EntityHolder<Entity>(value));
    else if constexpr (std::is_same_v<T, GenericDataObject>) return PropertyValue(Box<GenericDataObject>(std::move(value)));
    else if constexpr (std::is_same_v<T, Dir>) return PropertyValue(toPos(value));
    else if constexpr (std::is_convertible_v<T, StringView> && !std::is_same_v<T, String>) return PropertyValue(String(value));
    else return PropertyValue(std::move(value));
}

template <typename T> void GenericDataObject::set(StringView name, T value) {
    if (auto r = setValue(name, toPropertyValue(std::move(value))); !r) throw Exception(r.error());
}

template <typename T> void Entity::set(StringView name, T value) {
    if (auto r = setValue(name, toPropertyValue(std::move(value))); !r) throw Exception(r.error());
}

} // namespace Quelin

// The type database and entities: listing types, creating maps and operators
// by name, reading and writing properties with the library's validation, and
// the JSON / dict forms.
#include "Bindings.h"
#include "Ferrim/IMap.h"
#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"
#include "QuelinLib/DataSource.h"
#include "QuelinLib/Json.h"

namespace FerrimPython {

using namespace Quelin;

namespace {

String entityLabel(Entity const& e) { return "\"" + e.getClassName() + "\""; }

PropertyDefinition const& findProperty(Entity const& e, String const& name) {
    PropertyDefinition const* p = e.getData().getDefinition().find(name);
    if (!p)
        raisePropertyError(entityLabel(e) + " has no property \"" + name + "\"");
    return *p;
}

/// A memory source's "data" is a file's bytes: bytes in Python, never text.
bool holdsBytes(Entity const& e, String const& name) {
    return name == "data" && dynamic_cast<MemoryDataSource const*>(&e) != nullptr;
}

py::object getProperty(Entity const& e, String const& name) {
    PropertyDefinition const& p = findProperty(e, name);
    PropertyValue const& value = e.getData().getValue(name);
    if (holdsBytes(e, name))
        return py::bytes(std::get<String>(value));
    // Referenced entities come back as themselves, so edits reach the graph.
    if (auto const* held = std::get_if<EntityHolder<Entity>>(&value))
        return wrapEntity(held->getShared());
    return toPython(Quelin::toJson(value, p.getType()));
}

void setProperty(Entity& e, String const& name, py::handle value) {
    PropertyDefinition const& p = findProperty(e, name);
    PropertyValue stored;
    if (holdsBytes(e, name)) {
        if (PyUnicode_Check(value.ptr()) || !PyObject_CheckBuffer(value.ptr()))
            throw py::type_error(entityLabel(e) + ": \"data\" takes the image file's bytes (bytes, bytearray or "
                                 "memoryview), not " + py::str(py::type::handle_of(value).attr("__name__")).cast<String>());
        py::buffer_info const info = py::reinterpret_borrow<py::buffer>(value).request();
        if (!PyBuffer_IsContiguous(static_cast<Py_buffer*>(info.view()), 'C'))
            throw py::value_error(entityLabel(e) + ": \"data\" must be a contiguous buffer");
        stored = String(static_cast<char const*>(info.ptr), std::size_t(info.size * info.itemsize));
    } else if (p.getType().getValueType() == ValueType::EntityRef && py::isinstance<Entity>(value)) {
        stored = EntityHolder<Entity>(value.cast<SharedPtr<Entity>>());
    } else {
        auto converted = propertyValueFromJson(toJson(value, "property \"" + name + "\""), p);
        if (!converted)
            raisePropertyError(entityLabel(e) + ": " + converted.error());
        stored = std::move(*converted);
    }
    if (auto r = e.setValue(name, std::move(stored)); !r)
        raisePropertyError(entityLabel(e) + ": " + r.error());
}

Stack<String> propertyNames(Entity const& e) {
    Stack<String> names;
    for (auto const& p : e.getData().getDefinition().getProperties())
        names.push_back(p->getName());
    return names;
}

py::object entityFromJsonOrRaise(nlohmann::json const& json) {
    auto entity = entityFromJson(json);
    if (!entity)
        raiseError(entity.error());
    return wrapEntity(*entity);
}

} // namespace

String resolveTypeName(String const& name) {
    if (EntityDatabase::isRegistered(name) || DataObjects::TypeDatabase::findType(name))
        return name;
    String const prefixed = "Zatho." + name;
    if (name.find('.') == String::npos &&
        (EntityDatabase::isRegistered(prefixed) || DataObjects::TypeDatabase::findType(prefixed)))
        return prefixed;
    return name;
}

py::object wrapEntity(SharedPtr<Entity> entity) {
    if (!entity)
        return py::none();
    // The most specific bound class, so maps and operators get their methods.
    if (auto op = std::dynamic_pointer_cast<UnaryColorMappingOperator>(entity))
        return py::cast(op);
    if (auto map = std::dynamic_pointer_cast<IMap>(entity))
        return py::cast(map);
    return py::cast(entity);
}

void bindEntities(py::module_& m) {
    py::class_<Entity, SharedPtr<Entity>>(m, "Entity",
                                          R"(A scene object of the library: a map, an operator, a UV mapper...

Its parameters are properties, read and written like dict items. Values are
plain Python data (numbers, text, lists for colours and vectors, dicts for
nested groups, enumeration labels as text); referenced entities are returned
as the entity objects themselves, so editing them edits the graph. Writing a
value validates it as the library does (clamping where the property clamps)
and raises ferrim.PropertyError naming the property when it is refused.)")
        .def_property_readonly("class_name", &Entity::getClassName, "The registered type name, as \"Zatho.NoiseMap\".")
        .def("keys", &propertyNames, "The property names, in declaration order.")
        .def("__iter__", [](Entity const& e) { return py::iter(py::cast(propertyNames(e))); })
        .def("__len__", [](Entity const& e) { return e.getData().getProperties().size(); })
        .def("__contains__", [](Entity const& e, String const& name) { return e.getData().has(name); })
        .def("__getitem__", &getProperty, py::arg("name"))
        .def("__setitem__", &setProperty, py::arg("name"), py::arg("value"))
        .def(
            "update",
            [](Entity& e, py::dict const& values) {
                // All or nothing: the values are checked on a copy of the record.
                GenericDataObject record = e.getData();
                if (auto r = fromJson(toJson(values, "values"), record); !r)
                    raisePropertyError(r.error());
                if (auto r = e.setData(record); !r)
                    raisePropertyError(r.error());
            },
            py::arg("values"), "Sets several properties at once; when one is refused, none is changed.")
        .def(
            "to_dict", [](Entity const& e) { return toPython(entityToJson(e)); },
            "The entity as a dict: its type under \"@class\", its properties by name, referenced entities inline.")
        .def(
            "to_json",
            [](Entity const& e, std::optional<int> indent) { return entityToJson(e).dump(indent.value_or(-1)); },
            py::arg("indent") = py::none(), "The entity as JSON text (the form of scene files).")
        .def(
            "type_info", [](Entity const& e) { return toPython(Quelin::toJson(e.getData().getDefinition())); },
            "The description of this entity's type, as ferrim.type_info gives it.")
        .def("__repr__", [](py::handle self) {
            return "<ferrim." + py::str(py::type::handle_of(self).attr("__name__")).cast<String>() + " " +
                   self.cast<Entity const&>().getClassName() + ">";
        });

    m.def(
        "types",
        [] {
            py::list list;
            for (auto const& def : DataObjects::TypeDatabase::getTypes())
                list.append(toPython(Quelin::toJson(*def)));
            return list;
        },
        R"(Every registered data type as a dict: {"name": ..., "properties": [...]}, each property with its
"name", "type" (a dict with "kind" and, for enumerations, "values"), "default", "validators", "hidden" and
"metadata" (the UI metadata under the "Zatho.Ui.*" and "Zatho.Quantity" keys).)");
    m.def(
        "type_info",
        [](String const& name) {
            auto def = DataObjects::TypeDatabase::findType(resolveTypeName(name));
            if (!def)
                raiseError("unknown type \"" + name + "\"");
            return toPython(Quelin::toJson(*def));
        },
        py::arg("name"), "One registered type as ferrim.types lists it; the \"Zatho.\" prefix may be left out.");
    m.def(
        "create",
        [](String const& typeName) {
            String const name = resolveTypeName(typeName);
            auto& factory = ColorMappingOperatorFactory::getInstance();
            // Operators come from their factory, which gives each a fresh id.
            if (factory.containsDescriptor(name))
                return wrapEntity(factory.createOperator(StringView(name)).getShared());
            auto entity = EntityDatabase::create(name);
            if (!entity) {
                bool const isRecord = DataObjects::TypeDatabase::findType(name) != nullptr;
                raiseError("unknown entity type \"" + typeName + "\"" +
                           (isRecord ? ": it is a record type, not an entity" : " (ferrim.types() lists the types)"));
            }
            return wrapEntity(entity);
        },
        py::arg("type_name"),
        "A new map, operator or other entity of a registered type with default values; \"NoiseMap\" stands for "
        "\"Zatho.NoiseMap\".");
    m.def(
        "from_dict", [](py::dict const& data) { return entityFromJsonOrRaise(toJson(data, "entity")); },
        py::arg("data"), "An entity from its dict form (as Entity.to_dict gives it).");
    m.def(
        "from_json",
        [](String const& text) {
            auto json = parseJson(text);
            if (!json)
                raiseError(json.error());
            return entityFromJsonOrRaise(*json);
        },
        py::arg("text"), "An entity from its JSON text (as Entity.to_json gives it).");
}

} // namespace FerrimPython

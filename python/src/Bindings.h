#pragma once
// Shared pieces of the Python module: its exceptions, JSON <-> Python
// conversion, wrapping of entities and the checks of numpy arrays.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <nlohmann/json.hpp>

#include "QuelinLib/DataObjects.h"

namespace FerrimPython {

namespace py = pybind11;
using Quelin::String;

/// The module's exception classes: ferrim.Error, ferrim.PropertyError (also a
/// ValueError) and ferrim.TextureError, made when the module is imported.
void createExceptions(py::module_& m);
[[noreturn]] void raiseError(String const& message);
[[noreturn]] void raisePropertyError(String const& message);
[[noreturn]] void raiseTextureError(String const& message);

/// JSON values as plain Python objects (dict, list, str, int, float, bool, None).
py::object toPython(nlohmann::json const& value);
/// A Python value as JSON: dicts with text keys, lists and tuples, numbers,
/// text, None, entities (saved inline) and numpy arrays. `what` names the
/// value in the TypeError raised for anything else.
nlohmann::json toJson(py::handle value, String const& what);

/// The Python object for an entity: a ferrim.Map, a ferrim.Operator or a
/// plain ferrim.Entity; None for an empty holder.
py::object wrapEntity(Quelin::SharedPtr<Quelin::Entity> entity);
/// The full registered name for a type name given with or without the "Zatho." prefix.
String resolveTypeName(String const& name);

/// A float32 buffer whose last axis is one of `channels`, flattened to rows.
struct FloatRows {
    py::buffer_info info;
    float* data = nullptr;
    std::size_t rows = 0;
    std::size_t channels = 0;
    Quelin::Stack<py::ssize_t> leadingShape; ///< every axis but the last
};

/// Reads `value` through the buffer protocol without copying. Refuses, with
/// an exception naming `what` and the expected `shape` (as "(H, W, 3) or
/// (H, W, 4)"), buffers that are not float32, whose last axis is not one of
/// `channels`, whose axis count is not `ndim` (when > 0), read-only ones when
/// `writable`, and with `requireContiguous` those that are not C-contiguous.
FloatRows requireFloatRows(py::handle value, char const* what, char const* shape,
                           std::initializer_list<std::size_t> channels, int ndim, bool writable,
                           bool requireContiguous);

/// A new C-contiguous float32 array of `leadingShape` + (channels,).
py::array_t<float> newFloatArray(Quelin::Stack<py::ssize_t> const& leadingShape, std::size_t channels);

void bindEntities(py::module_& m);
void bindColorMapping(py::module_& m);
void bindMaps(py::module_& m);
void bindTextures(py::module_& m);

} // namespace FerrimPython

// The C++ side of the Python mapping benchmark: the default pipeline mapping
// the very same numpy buffer through the library's own call, timed in C++.
#include <pybind11/pybind11.h>

#include <chrono>
#include <span>

#include "Ferrim/ColorMapping.h"
#include "Ferrim/Ferrim.h"

namespace py = pybind11;
using namespace Quelin;

namespace {

/// A prepared default pipeline for frames of one size, as a renderer holds it.
class DefaultPipelineMapping {
  public:
    DefaultPipelineMapping(int width, int height) : mWidth(width), mHeight(height), mMapping(createDefaultPipeline()) {
        ColorMappingContext context;
        context.imageSize = Vector2(float(width), float(height));
        mMapping.setContext(context);
    }

    /// Seconds that mapFrameBuffer takes over `frame` (float32, height x width x 3, C-contiguous).
    double mapSeconds(py::buffer frame) const {
        py::buffer_info info = frame.request(true);
        if (info.format != py::format_descriptor<float>::format() || info.ndim != 3 || info.shape[0] != mHeight ||
            info.shape[1] != mWidth || info.shape[2] != 3 || info.strides[1] != 12 || info.strides[2] != 4)
            throw py::value_error("frame must be a C-contiguous float32 array of the prepared size and 3 channels");
        std::span<Rgb> pixels(static_cast<Rgb*>(info.ptr), std::size_t(mWidth) * std::size_t(mHeight));
        py::gil_scoped_release release;
        auto const start = std::chrono::steady_clock::now();
        mMapping.mapFrameBuffer(pixels, mWidth, mHeight, 0);
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }

  private:
    int mWidth, mHeight;
    ColorMapping mMapping;
};

} // namespace

PYBIND11_MODULE(_ferrim_bench, m) {
    Ferrim::startup();
    py::module_::import("atexit").attr("register")(py::cpp_function([] { Ferrim::shutdown(); }));
    py::class_<DefaultPipelineMapping>(m, "DefaultPipelineMapping")
        .def(py::init<int, int>(), py::arg("width"), py::arg("height"))
        .def("map_seconds", &DefaultPipelineMapping::mapSeconds, py::arg("frame"));
}

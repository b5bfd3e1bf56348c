#include "pictures.h"

#include <pybind11/stl.h>

#include <memory>
#include <optional>

#include "core/index.h"
#include "frame/host_signals.h"
#include "imaging/imaging.h"
#include "post/denoise.h"
#include "post/look.h"

namespace zp::python {
namespace {

using namespace py::literals;

using Exposure = std::array<float, 3>;

Layer& LayerOf(LayeredPicture& picture, const std::string& name) {
  Layer* layer = FindLayer(picture, name);
  if (layer == nullptr) throw py::key_error(name);
  return *layer;
}

// Its numbers, [height, width, channels], which `picture` owns.
py::array_t<float> NumbersOf(const py::object& owner, const std::string& name) {
  auto& picture = owner.cast<LayeredPicture&>();
  Layer& layer = LayerOf(picture, name);
  const auto channels = static_cast<py::ssize_t>(layer.channels.size());
  return py::array_t<float>({static_cast<py::ssize_t>(picture.data.Height()),
                             static_cast<py::ssize_t>(picture.data.Width()), channels},
                            layer.numbers.data(), owner);
}

py::list Describe(const LayeredPicture& picture) {
  py::list layers;
  for (const Layer& layer : picture.layers) layers.append(py::make_tuple(layer.name, layer.channels));
  return layers;
}

// The layer alone, or all of them without one; in a file of 8 bits light times the exposure.
std::string Save(const LayeredPicture& picture, const Path& path, const std::optional<std::string>& name,
                 Exposure exposure) {
  RequireIdle();
  LayeredPicture copy;
  copy.display = picture.display;
  copy.data = picture.data;
  copy.attributes = picture.attributes;
  for (const Layer& layer : picture.layers)
    if (!name || layer.name == *name) copy.layers.push_back(layer);
  if (KeepsBytes(path.bytes) && !copy.layers.empty() && copy.layers[0].name.empty()) {
    Layer& beauty = copy.layers[0];
    for (std::size_t i = 0; i < beauty.numbers.size(); ++i)
      if (i % beauty.channels.size() < 3) beauty.numbers[i] *= exposure[i % beauty.channels.size()];
  }
  const LongCall call;
  return WriteLayers(path.bytes, copy, nullptr, true);
}

std::unique_ptr<LayeredPicture> Read(const Path& path) {
  auto picture = std::make_unique<LayeredPicture>();
  std::string reason;
  {
    const LongCall call;
    const HostSignals signals;
    reason = ReadLayers(path.bytes, *picture);
    MakeLinear(*picture);
  }
  RaiseOfSignals();
  if (reason.empty()) return picture;
  PyErr_SetString(PyExc_OSError, ("zp: cannot read the picture '" + path.bytes + "': " + reason).c_str());
  throw py::error_already_set();
}

void Clean(LayeredPicture& picture) {
  {
    const LongCall call;
    const HostSignals signals;
    Denoise(picture, {});
  }
  RaiseOfSignals();
}

// 8 bits for a screen, [height, width, 3], of the whole picture.
py::array_t<std::uint8_t> View(LayeredPicture& picture, const std::string& name, double stops,
                               std::optional<double> whiteBalance, bool isFilmic) {
  const Layer& layer = LayerOf(picture, name);
  const ImageBuffer image =
      LookAt(picture, layer, {stops, whiteBalance, isFilmic ? Curve::kFilmic : Curve::kSrgb});
  py::array_t<std::uint8_t> bytes({image.height, image.width, image.channels});
  std::copy_n(image.bytePixels.data(), bytes.size(), bytes.mutable_data());
  return bytes;
}

struct ToPython {
  template <class Value>
  py::object operator()(const Value& value) const {
    return py::cast(value);
  }
  py::object operator()(const OtherValue& value) const { return py::bytes(value.bytes); }
};

py::dict Attributes(const LayeredPicture& picture) {
  py::dict all;
  for (const Attribute& attribute : picture.attributes)
    all[py::str(attribute.name)] = std::visit(ToPython(), attribute.value);
  return all;
}

}  // namespace

void DefinePictures(py::module_& m) {
  py::class_<LayeredPicture>(m, "_LayeredPicture")
      .def("layers", Describe)
      .def("numbers",
           [](const py::object& picture, const std::string& name) { return NumbersOf(picture, name); })
      .def("region",
           [](const LayeredPicture& picture) {
             const PixelWindow& data = picture.data;
             return py::make_tuple(data.left, data.top, data.right, data.bottom);
           })
      .def("resolution",
           [](const LayeredPicture& picture) {
             return py::make_tuple(picture.display.Width(), picture.display.Height());
           })
      .def("set_attribute",
           [](LayeredPicture& picture, const std::string& name,
              std::variant<std::int32_t, double, std::string> value) {
             std::visit([&](const auto& known) { SetAttribute(picture, name, known); }, value);
           })
      .def("attributes", Attributes)
      .def("copy", [](const LayeredPicture& picture) { return std::make_unique<LayeredPicture>(picture); })
      .def("save", Save)
      .def("missing_for_denoise", MissingForDenoise)
      .def("denoise", Clean)
      .def("view", View);
  m.def("_read_picture", Read);
}

}  // namespace zp::python

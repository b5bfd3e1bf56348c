// From NumPy's arrays to those of zp.h.

#include "binding.h"

namespace zp::python {
namespace {

std::string Prefix(Wanted wanted) {
  return "zp." + std::string(wanted.function) + ": " + wanted.argument + " must ";
}

std::string ShapeText(const py::array& array) {
  std::string text = "[";
  for (py::ssize_t i = 0; i < array.ndim(); ++i)
    text += (i == 0 ? "" : ", ") + std::to_string(array.shape(i));
  return text + "]";
}

// Raises unless each number fits.
template <class Wide>
void RequireFit(const py::array& array, Wanted wanted) {
  const auto numbers = py::array_t<Wide, py::array::c_style | py::array::forcecast>::ensure(array);
  if (!numbers) throw py::value_error(Prefix(wanted) + "be integers");
  for (py::ssize_t i = 0; i < numbers.size(); ++i)
    if (!std::in_range<int>(numbers.data()[i]))
      throw py::value_error(Prefix(wanted) + "fit 32 bits, but holds " + std::to_string(numbers.data()[i]));
}

}  // namespace

void RaiseShape(const py::array& array, Wanted wanted, const char* shape) {
  throw py::value_error(Prefix(wanted) + "have the shape " + shape + ", not " + ShapeText(array));
}

py::array ToArray(const ArrayLike& data, Wanted wanted, const char* shape, const char* kinds) {
  const auto array = py::array::ensure(data);
  if (!array) throw py::value_error(Prefix(wanted) + "be an array of the shape " + shape);
  if (array.size() > 0 && std::string(kinds).find(array.dtype().kind()) == std::string::npos)
    throw py::type_error(Prefix(wanted) + "hold " + (kinds[0] == 'b' ? "numbers" : "integers") + ", not " +
                         std::string(py::str(array.dtype())));
  return array;
}

int CountOf(const py::array& array, Wanted wanted) {
  if (array.size() == 0) return 0;
  if (!std::in_range<int>(array.shape(0)))
    throw py::value_error(Prefix(wanted) + "have fewer elements than " + std::to_string(array.shape(0)));
  return static_cast<int>(array.shape(0));
}

Floats ToFloats(const py::array& array, Wanted wanted) {
  auto numbers = Floats::ensure(array);
  if (!numbers) throw py::value_error(Prefix(wanted) + "fit single precision");
  return numbers;
}

Integers ToIntegers(const py::array& array, Wanted wanted) {
  const bool isUnsigned = array.dtype().kind() == 'u';
  if (array.itemsize() > (isUnsigned ? 2 : 4)) {
    if (isUnsigned)
      RequireFit<std::uint64_t>(array, wanted);
    else
      RequireFit<std::int64_t>(array, wanted);
  }
  auto numbers = Integers::ensure(array);
  if (!numbers) throw py::value_error(Prefix(wanted) + "be integers");
  return numbers;
}

}  // namespace zp::python

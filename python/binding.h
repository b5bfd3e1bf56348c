// binding.h: what all bindings share: how arguments of Python become those of zp.h, and the guard around each
// call. The module is a host like any other: it knows the library by zp.h alone.

#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <zp.h>

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

namespace zp::python {

namespace py = pybind11;

// The enumeration of Python that stands for E. Never released: pybind11 takes no module down.
template <class E>
inline PyObject* enumClass = nullptr;

// Text in UTF-8, and the name of a file as the file system spells it. Neither holds a NUL.
struct Name {
  std::string bytes;
};
struct Path {
  std::string bytes;
};

// Whatever NumPy makes an array of.
class ArrayLike : public py::object {
 public:
  PYBIND11_OBJECT(ArrayLike, py::object, IsAnything)
  static bool IsAnything(PyObject*) { return true; }
};

// A caster of pybind11 that yields a copy of `value`.
template <class T>
struct ValueCaster {
  T value{};
  template <class>
  using cast_op_type = T;
  operator T() const { return value; }
};

// Members of the enumeration only, no numbers.
template <class E>
struct EnumCaster : ValueCaster<E> {
  bool load(py::handle source, bool) {
    if (PyObject_IsInstance(source.ptr(), enumClass<E>) != 1) return false;
    this->value = static_cast<E>(PyLong_AsLong(source.ptr()));
    return true;
  }
};

// Any number that fits.
template <class E, class Number>
struct NumberCaster : ValueCaster<E> {
  bool load(py::handle source, bool convert) {
    py::detail::make_caster<Number> number;
    if (!number.load(source, convert)) return false;
    this->value = static_cast<E>(py::detail::cast_op<Number>(number));
    return true;
  }
};

}  // namespace zp::python

namespace pybind11::detail {

template <>
struct type_caster<Projection> : zp::python::EnumCaster<Projection> {
  static constexpr auto name = const_name("zp.Projection");
};
template <>
struct type_caster<Element> : zp::python::EnumCaster<Element> {
  static constexpr auto name = const_name("zp.Element");
};
template <>
struct type_caster<Material> : zp::python::EnumCaster<Material> {
  static constexpr auto name = const_name("zp.Material");
};
template <>
struct type_caster<Sideness> : zp::python::EnumCaster<Sideness> {
  static constexpr auto name = const_name("zp.Sideness");
};
template <>
struct type_caster<Visibility> : zp::python::EnumCaster<Visibility> {
  static constexpr auto name = const_name("zp.Visibility");
};
// Nothing reads it and it has no members.
template <>
struct type_caster<AngleMeasure> : zp::python::NumberCaster<AngleMeasure, std::int32_t> {
  static constexpr auto name = const_name("int");
};
// Bits of any sum.
template <>
struct type_caster<Channel> : zp::python::NumberCaster<Channel, std::uint32_t> {
  static constexpr auto name = const_name("zp.Channel");
};

template <>
struct type_caster<zp::python::Name> : zp::python::ValueCaster<zp::python::Name> {
  static constexpr auto name = const_name("str");
  bool load(handle source, bool) {
    if (!PyUnicode_Check(source.ptr())) return false;
    Py_ssize_t size = 0;
    const char* bytes = PyUnicode_AsUTF8AndSize(source.ptr(), &size);
    if (bytes == nullptr) throw error_already_set();
    value.bytes.assign(bytes, static_cast<std::size_t>(size));
    if (value.bytes.find('\0') != std::string::npos) throw value_error("zp: embedded null character");
    return true;
  }
};
template <>
struct type_caster<zp::python::Path> : zp::python::ValueCaster<zp::python::Path> {
  static constexpr auto name = const_name("str | bytes | os.PathLike");
  bool load(handle source, bool) {
    PyObject* encoded = nullptr;
    if (PyUnicode_FSConverter(source.ptr(), &encoded) == 0) throw error_already_set();
    const auto bytes = reinterpret_steal<pybind11::bytes>(encoded);
    value.bytes = std::string(bytes);
    return true;
  }
};

template <>
struct handle_type_name<zp::python::ArrayLike> {
  static constexpr auto name = const_name("ArrayLike");
};

}  // namespace pybind11::detail

namespace zp::python {

// Calls that take long leave the interpreter to other threads, but the library's tables are in use until they
// return. Read and written under the interpreter's lock.
inline bool running = false;

inline void RequireIdle() {
  if (running)
    throw std::runtime_error("zp: another thread is inside the library, or this is the callback of a render");
}

// How an argument of an exported function arrives, and what it is handed. Text is Name or Path.
template <class T, class Text>
struct Taken {
  using Type = T;
  static T Hand(const T& value) { return value; }
};
template <class Text>
struct Taken<const char*, Text> {
  using Type = Text;
  static const char* Hand(const Text& text) { return text.bytes.c_str(); }
};

// Binds an exported function that returns at once. `extra` names the arguments and ends with the docstring.
template <class Text = Name, class R, class... A, class... Extra>
void Define(py::module_& module, const char* name, R (*function)(A...), const Extra&... extra) {
  module.def(
      name,
      [function](const typename Taken<A, Text>::Type&... arguments) -> R {
        RequireIdle();
        return function(Taken<A, Text>::Hand(arguments)...);
      },
      extra...);
}

// What Python has printed so far comes before the rows of the library, which has a buffer of its own.
inline void FlushPython() {
  const py::object out = py::module_::import("sys").attr("stdout");
  if (out.is_none()) return;
  try {
    out.attr("flush")();
  } catch (const py::error_already_set&) {  // a stream that is closed has nothing to say
  }
}

// For as long as it lives the library belongs to one call, and other threads may run Python.
class LongCall {
 public:
  LongCall() {
    RequireIdle();
    FlushPython();
    RequireIdle();  // a stream written in Python may have let another thread in
    running = true;
    state_ = PyEval_SaveThread();
  }
  ~LongCall() {
    PyEval_RestoreThread(state_);
    running = false;
  }
  LongCall(const LongCall&) = delete;
  LongCall& operator=(const LongCall&) = delete;

 private:
  PyThreadState* state_ = nullptr;
};

// Behind a long call: a signal has ended it, and what its handler raises, as KeyboardInterrupt, is raised
// here.
inline void RaiseOfSignals() {
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

// Binds an exported function that prints or works for long.
template <class... A, class... Extra>
void DefineLong(py::module_& module, const char* name, void (*function)(A...), const Extra&... extra) {
  module.def(
      name,
      [function](const typename Taken<A, Path>::Type&... arguments) {
        {
          const LongCall call;
          function(Taken<A, Path>::Hand(arguments)...);
        }
        RaiseOfSignals();
      },
      extra...);
}

// An argument that must be an array, and who asks for it.
struct Wanted {
  const char* function;
  const char* argument;
};

// `data` as an array, whose kind of number is one of `kinds` (NumPy's letters) unless it is empty. Raises
// TypeError, or ValueError where there is no array, as of rows of unequal length.
//   shape  what to ask for, as text
py::array ToArray(const ArrayLike& data, Wanted wanted, const char* shape, const char* kinds);
[[noreturn]] void RaiseShape(const py::array& array, Wanted wanted, const char* shape);

// The number of elements, as zp.h counts.
int CountOf(const py::array& array, Wanted wanted);

using Floats = py::array_t<float, py::array::c_style | py::array::forcecast>;
using Integers = py::array_t<int, py::array::c_style | py::array::forcecast>;

// Contiguous, in single precision. Raises ValueError if that fails.
Floats ToFloats(const py::array& array, Wanted wanted);
// Contiguous, in 32 bits. Raises ValueError for a number that they cannot hold.
Integers ToIntegers(const py::array& array, Wanted wanted);

// An optional square matrix of single precision.
template <int kSize>
struct Matrix {
  float rows[kSize][kSize] = {};
  bool given = false;
  const float (*Hand() const)[kSize] { return given ? rows : nullptr; }
};
template <int kSize>
Matrix<kSize> ToMatrix(const ArrayLike& data, Wanted wanted) {
  Matrix<kSize> matrix;
  if (data.is_none()) return matrix;
  const char* shape = kSize == 4 ? "[4, 4]" : "[3, 3]";
  const py::array array = ToArray(data, wanted, shape, "biuf");
  if (array.ndim() != 2 || array.shape(0) != kSize || array.shape(1) != kSize)
    RaiseShape(array, wanted, shape);
  const Floats numbers = ToFloats(array, wanted);
  for (int row = 0; row < kSize; ++row)
    for (int column = 0; column < kSize; ++column) matrix.rows[row][column] = numbers.at(row, column);
  matrix.given = true;
  return matrix;
}

// Each adds the functions of its family in zp.h.
void DefineGeometry(py::module_& module);
void DefineShaders(py::module_& module);
void DefineCameras(py::module_& module);
void DefineLights(py::module_& module);
void DefineFrames(py::module_& module);

}  // namespace zp::python

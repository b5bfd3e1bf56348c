// pictures.h: pictures of layers for Python.

#pragma once

#include "binding.h"
#include "post/layers.h"

namespace zp::python {

void DefinePictures(py::module_& module);

}  // namespace zp::python

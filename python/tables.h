// tables.h: what the renderer's tables hold. An index that names nothing raises IndexError.

#pragma once

#include <array>
#include <tuple>

#include "binding.h"

namespace zp::python {

// Records of one kind. Those of the second group are counted for each record of their owner.
enum Table {
  kShaders,
  kObjects,
  kCameras,
  kPointLights,
  kParallelLights,
  kSkyAovs,
  kGeometryAovs,
  kSurfaces,
  kDisplacements,
  kParts,
  kInstances,
  kCameraAovs,
  kPointAovs,
  kParallelAovs,
  kTables,
};
constexpr std::size_t IndexCount(Table table) { return table < kSurfaces ? 1 : 2; }

using Indices =
    std::array<int, 2>;  // the owner's, and the record's in it; of the first group the record's alone

// Raises IndexError in the name of `function` unless the record is there, or the owner of a new one.
void RequireRecord(const char* function, Table table, Indices indices);
void RequireOwner(const char* function, Table table, int owner);
// Raises ValueError unless the picture is of that size. Without a camera any size will do: all is 0.
void RequireFrame(const char* function, int width, int height);

// Binds a setter whose first arguments are the indices of a record.
template <Table kTable, class Text = Name, class... A, class... Extra>
void DefineSetter(py::module_& module, const char* name, void (*function)(A...), const Extra&... extra) {
  module.def(
      name,
      [function, name](const typename Taken<A, Text>::Type&... arguments) {
        RequireIdle();
        const auto all = std::tie(arguments...);
        Indices indices = {std::get<0>(all), 0};
        if constexpr (IndexCount(kTable) == 2) indices[1] = std::get<1>(all);
        RequireRecord(name, kTable, indices);
        function(Taken<A, Text>::Hand(arguments)...);
      },
      extra...);
}

// Binds a function that appends a record and returns its index.
template <Table kTable, class... Owner, class... Extra>
void DefineAdd(py::module_& module, const char* name, int (*function)(Owner...), const Extra&... extra) {
  module.def(
      name,
      [function, name](const Owner&... owner) {
        RequireIdle();
        (RequireOwner(name, kTable, owner), ...);
        return function(owner...);
      },
      extra...);
}

}  // namespace zp::python

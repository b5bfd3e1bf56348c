// tables.h: what the library's tables hold. zp.h has no function to ask, and no way for a record to appear
// but through this module, so the module counts along; an index that names nothing raises IndexError.

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
// A record was appended and has the last index: of its owner, or of the table.
void NoteRecord(Table table, Indices indices);

// A table and the records that it owns.
void ForgetTable(Table table);
void ForgetLights();     // all that the end of a frame drops
void ForgetAllTables();  // zpFinalize
void NoteStartup();      // resets of zpStartup, and its Shader "undefined"

// What zpRenderPixels fills: the region of the first camera, as initialisation limits it.
struct Frame {
  int width = 960, height = 540;
  int left = 0, top = 0, right = 1048576, bottom = 1048576;
};
void SetFrameSize(int camera, int width, int height);
void SetFrameRegion(int camera, int xMin, int yMin, int xMax, int yMax);
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
        const int index = function(owner...);
        NoteRecord(kTable, {owner..., index});
        return index;
      },
      extra...);
}

}  // namespace zp::python

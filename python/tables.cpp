#include "tables.h"

#include <algorithm>
#include <vector>

namespace zp::python {
namespace {

struct TableRow {
  const char* word;  // of one record
  Table owner;       // kTables: none
  int first;         // records that are there as the owner appears
};
constexpr TableRow kTableRows[] = {
    {"shader", kTables, 0},
    {"object", kTables, 0},
    {"camera", kTables, 0},
    {"point light", kTables, 0},
    {"parallel light", kTables, 0},
    {"sky light AOV", kTables, 0},
    {"geometry light AOV", kTables, 0},
    {"layer", kShaders, 0},
    {"displacement layer", kShaders, 0},
    {"part", kObjects, 0},
    {"instance", kObjects, 0},
    {"AOV", kCameras, 1},
    {"AOV", kPointLights, 0},
    {"AOV", kParallelLights, 0},
};
static_assert(std::size(kTableRows) == kTables);

std::vector<int> counts[kTables];  // one number, or one for each owner
std::vector<Frame> frames;         // of each camera

int CountIn(Table table, int owner) {
  const auto place = static_cast<std::size_t>(owner);
  return place < counts[table].size() ? counts[table][place] : 0;
}

int CountOf(Table table) { return CountIn(table, 0); }

void RequireIndex(const char* function, Table table, int index, int count) {
  if (index >= 0 && index < count) return;
  throw py::index_error("zp." + std::string(function) + ": there is no " + kTableRows[table].word + " " +
                        std::to_string(index) + " of " + std::to_string(count));
}

Frame* FrameOf(int camera) {
  const auto place = static_cast<std::size_t>(camera);
  return place < frames.size() ? &frames[place] : nullptr;
}

}  // namespace

void RequireOwner(const char* function, Table table, int owner) {
  const Table kind = kTableRows[table].owner;
  RequireIndex(function, kind, owner, CountOf(kind));
}

void RequireRecord(const char* function, Table table, Indices indices) {
  if (IndexCount(table) == 1) return RequireIndex(function, table, indices[0], CountOf(table));
  RequireOwner(function, table, indices[0]);
  RequireIndex(function, table, indices[1], CountIn(table, indices[0]));
}

void NoteRecord(Table table, Indices indices) {
  if (IndexCount(table) == 2) {
    counts[table][static_cast<std::size_t>(indices[0])] = indices[1] + 1;
    return;
  }
  const auto count = static_cast<std::size_t>(indices[0]) + 1;
  counts[table] = {indices[0] + 1};
  for (int owned = 0; owned < kTables; ++owned)
    if (kTableRows[owned].owner == table) counts[owned].resize(count, kTableRows[owned].first);
  if (table == kCameras) frames.resize(count);
}

void ForgetTable(Table table) {
  counts[table].clear();
  for (int owned = 0; owned < kTables; ++owned)
    if (kTableRows[owned].owner == table) counts[owned].clear();
  if (table == kCameras) frames.clear();
}

void ForgetLights() {
  for (const Table table : {kPointLights, kParallelLights, kSkyAovs, kGeometryAovs}) ForgetTable(table);
}

void ForgetAllTables() {
  for (int table = 0; table < kTables; ++table) ForgetTable(static_cast<Table>(table));
}

void NoteStartup() {
  ForgetTable(kSkyAovs);
  ForgetTable(kGeometryAovs);
  if (CountOf(kShaders) > 0) return;
  NoteRecord(kShaders, {0, 0});
  NoteRecord(kSurfaces, {0, 0});
}

void SetFrameSize(int camera, int width, int height) {
  if (Frame* frame = FrameOf(camera)) {
    frame->width = width;
    frame->height = height;
  }
}

void SetFrameRegion(int camera, int xMin, int yMin, int xMax, int yMax) {
  if (Frame* frame = FrameOf(camera)) {
    frame->left = xMin;
    frame->top = yMin;
    frame->right = xMax;
    frame->bottom = yMax;
  }
}

void RequireFrame(const char* function, int width, int height) {
  const Frame* frame = FrameOf(0);
  if (frame == nullptr) return;
  const int columns = std::min(frame->width, frame->right) - std::max(frame->left, 0);
  const int rows = std::min(frame->height, frame->bottom) - std::max(frame->top, 0);
  if (width == columns && height == rows) return;
  throw py::value_error("zp." + std::string(function) + ": the region of the first camera has " +
                        std::to_string(columns) + " by " + std::to_string(rows) + " pixels, not " +
                        std::to_string(width) + " by " + std::to_string(height));
}

}  // namespace zp::python

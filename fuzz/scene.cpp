// Any bytes as scene text, with and without an observer, who then judges the records too.

#include "scene/scene.h"

#include <sstream>

#include "fuzz.h"
#include "scene/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zp::SceneNotes notes;
  std::size_t objects = 0, parts = 0;
  for (zp::SceneNotes* observer : {static_cast<zp::SceneNotes*>(nullptr), &notes}) {
    zp::ClearTables();
    zp::sceneNotes = observer;
    std::istringstream stream(std::string(reinterpret_cast<const char*>(data), size));
    zp::ReadScene(stream);
    std::size_t count = 0;
    for (zp::Object& object : zp::objectTable) {
      count += object.parts.size();
      for (zp::Part& part : object.parts) zp::RequirePrepared(part);
    }
    // The observer only watches.
    zp::Require(!observer || (zp::objectTable.size() == objects && count == parts), __LINE__);
    objects = zp::objectTable.size();
    parts = count;
  }
  zp::sceneNotes = nullptr;
  zp::CheckRecords(notes);
  zp::SortFindings(notes);
  return 0;
}

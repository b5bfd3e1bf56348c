// Any bytes as a fur file, with and without an observer.

#include <sstream>

#include "fuzz.h"
#include "scene/blocks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zp::ClearTables();
  zp::SceneNotes notes;
  for (zp::SceneNotes* observer : {static_cast<zp::SceneNotes*>(nullptr), &notes}) {
    zp::sceneNotes = observer;
    std::istringstream stream(std::string(reinterpret_cast<const char*>(data), size));
    zp::SceneText text = {stream, observer};
    zp::Part part;
    zp::ReadFur(text, part);
    zp::RequireSound(zp::ValidateStrands(part));
    zp::RequirePrepared(part);
  }
  zp::sceneNotes = nullptr;
  return 0;
}

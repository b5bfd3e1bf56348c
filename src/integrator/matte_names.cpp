#include "integrator/matte_names.h"

#include <set>
#include <string>
#include <vector>

#include "accel/accel.h"
#include "core/index.h"
#include "imaging/mattes.h"
#include "integrator/integrator.h"

namespace zp {
namespace {

// What each Object adds to a path, and the ids of all Shaders.
struct MatteIds {
  std::uint32_t scene = 0;  // that they were collected of
  std::vector<std::string> objects;
  std::vector<std::uint32_t> shaders;
};
MatteIds matteIds;

// Objects without a name are numbered as the scene has them.
std::vector<std::string> ObjectLabels() {
  std::set<std::string> taken;
  std::vector<std::string> labels;
  for (const Object& object : objectTable) taken.insert(object.name);
  for (const Object& object : objectTable) {
    std::string label = object.name.empty() ? "object" + std::to_string(labels.size() + 1) : object.name;
    while (object.name.empty() && taken.contains(label)) label += '_';
    labels.push_back(std::move(label));
  }
  return labels;
}

// Walks the paths of the graph: an Object at the end of one that has something to hit gives a name.
class PathNames {
 public:
  void Visit(std::int32_t index, const std::string& path, int depth) {
    if (names.size() >= kMost || ++visits_ > 16 * kMost || !IsIndex(objectTable, index)) return;
    const Object& object = At(objectTable, index);
    if (!object.parts.empty()) names.insert(path.empty() ? At(labels_, index) : path);
    if (depth == kMostInstanceLevels) return;
    std::set<std::int32_t> below;
    for (const Instance& instance : object.instances) below.insert(instance.object);
    for (const std::int32_t next : below)
      if (IsIndex(labels_, next))
        Visit(next, (path.empty() ? "" : path + '/') + At(labels_, next), depth + 1);
  }
  static constexpr std::size_t kMost = 65536;
  std::set<std::string> names;

 private:
  std::vector<std::string> labels_ = ObjectLabels();
  std::size_t visits_ = 0;
};

}  // namespace

void CollectMatteIds() {
  if (matteIds.scene == sceneNumber && matteIds.shaders.size() == shaders.size()) return;
  matteIds = {sceneNumber, ObjectLabels(), {}};
  for (const Shader& shader : shaders) matteIds.shaders.push_back(IdOf(shader.name));
}

// What lies in the root itself is called as the root.
std::uint32_t ObjectIdOf(const RayRecord& ray) {
  NameHash hash;
  for (int level = 0; level < ray.hitMatrixDepth; ++level) {
    const std::int32_t object = HitInstance(ray, level).object;
    if (level > 0) hash.Add("/");
    if (IsIndex(matteIds.objects, object)) hash.Add(At(matteIds.objects, object));
  }
  if (ray.hitMatrixDepth == 0 && IsIndex(matteIds.objects, rootObject))
    hash.Add(At(matteIds.objects, rootObject));
  return hash.Id();
}

std::uint32_t ShaderIdOf(const RayRecord& ray) {
  return IsIndex(matteIds.shaders, ray.shader) ? At(matteIds.shaders, ray.shader) : 0;
}

std::vector<MatteName> MatteNames(Channel channel) {
  PathNames paths;
  if (channel == kChannelObject) paths.Visit(rootObject, "", 0);
  if (channel == kChannelShader)
    for (const Shader& shader : shaders)
      if (paths.names.size() < PathNames::kMost) paths.names.insert(shader.name);
  std::vector<MatteName> names;
  for (const std::string& name : paths.names) names.push_back({name, IdOf(name)});
  return names;
}

}  // namespace zp

// scene/notes.h: what an observer of the reader learns. The reader itself is silent; while `sceneNotes`
// points to a record, the same functions that fill the tables also write down, with file and line, what they
// dropped, which names and files the text refers to, and copies of the records whose sense can only be judged
// later.

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "geometry/object.h"
#include "imaging/imaging.h"
#include "shading/shading.h"

namespace zp {

struct TextPlace {
  std::string file;  // as the reader opened it
  int line = 0;      // from 1; 0 is the file, or folder, as a whole
};

// An error makes the scene show something else than its text says; a warning may surprise.
enum class Severity { kWarning, kError };

struct Finding {
  TextPlace place;
  Severity severity = Severity::kError;
  std::string text;
};

enum class NameKind {
  kShader,        // of an object or instance: needs a section of that name
  kLinkedShader,  // of a link or AOV: needs an entry in the shader table
  kObject,
  kImage,     // a picture file, through the search paths
  kSkyImage,  // the same, or the word for the analytic sky
  kFolder,
};
struct NameUse {
  TextPlace place;
  NameKind kind = NameKind::kShader;
  std::string name;
};

struct NotedShader {
  TextPlace place;
  bool named = false;
  Shader shader;                  // as its section ended; a later one of the name may replace it
  std::vector<TextPlace> layers;  // one for each surface
};

struct NotedInstance {
  TextPlace place;
  Instance instance;
};

struct NotedModel {
  TextPlace place;
  std::string fileName;
  std::size_t object = 0, part = 0;  // in objectTable, and in its parts
};

struct NotedObject {
  TextPlace place;
  TextPlace shader;  // line 0 without one
  bool hasObj = false;
  bool hasOther = false;  // geometry of another kind
  std::string name;
};

struct NotedCamera {
  TextPlace place;
  std::size_t camera = 0;  // in the table
};

enum class AovOwner { kCamera, kSky, kGeometryLight, kLight };
struct NotedAov {
  TextPlace place;
  TextPlace image;  // line 0 without one
  TextPlace type;   // of the last; line 0 without one
  AovOwner owner = AovOwner::kCamera;
  Aov aov;
};

struct SceneNotes {
  std::vector<Finding> findings;
  std::vector<NameUse> names;
  std::vector<NotedShader> shaders;
  std::vector<NotedInstance> instances;
  std::vector<NotedModel> models;
  std::vector<NotedObject> objects;
  std::vector<NotedCamera> cameras;
  std::vector<NotedAov> aovs;
};

// Null in normal use: nothing is noted.
extern SceneNotes* sceneNotes;

void Note(TextPlace place, Severity severity, std::string text);  // into sceneNotes, if it is there

inline std::string Quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

}  // namespace zp

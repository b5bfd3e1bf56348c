// scene/notes.h: what an observer of the reader learns. The reader itself is silent; while `sceneNotes`
// points to a record, the same functions that fill the tables also write down, with file and line, what they
// dropped, which names and files the text refers to, and copies of the records whose sense can only be judged
// later.

#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "geometry/geometry.h"
#include "geometry/object.h"
#include "imaging/imaging.h"
#include "scene/findings.h"
#include "shading/shading.h"

namespace zp {

struct TextPlace {
  std::string file;  // as the reader opened it
  int line = 0;      // from 1; 0 is the file, or folder, as a whole
};

struct Finding {
  TextPlace place;
  FindingCode code = FindingCode::kUnknownKeyword;
  std::string text;
  std::string suggestion;  // the word that was probably meant, or a line to add; empty without one
  bool ofFormat1 = false;  // the scene's format is known when all text is read: goes where it is another
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
  TextPlace virtualLight;         // of the last one; line 0 without one
  TextPlace vector, height;       // of the first layer; line 0 without one
};

// A parameter with a picture, as its block ended.
struct NotedSlot {
  TextPlace image;
  TextPlace uvSet;           // line 0 without one
  std::string_view element;  // keyword of the block
  bool gammaStated = false;
  bool colorStated = false;
  ImageSlot slot;
};

struct NotedInstance {
  TextPlace place;
  Instance instance;
  std::size_t object = 0, index = 0;  // in objectTable, and in its instances
};

struct NotedModel {
  TextPlace place;
  std::string fileName;
  std::size_t object = 0, part = 0;  // in objectTable, and in its parts
  ObjReport report;                  // of an OBJ file
};

struct NotedObject {
  TextPlace place;
  std::size_t index = 0;  // in objectTable
  TextPlace shader;       // line 0 without one
  bool hasObj = false;
  bool hasOther = false;  // geometry of another kind
  std::string name;
};

struct NotedCamera {
  TextPlace place;
  std::size_t camera = 0;  // in the table
  TextPlace exposure;      // line 0 without one
};

enum class AovOwner { kCamera, kSky, kGeometryLight, kLight };
struct NotedAov {
  TextPlace place;
  TextPlace image;        // line 0 without one
  TextPlace type;         // of the last; line 0 without one
  TextPlace earlierType;  // of the one before
  AovOwner owner = AovOwner::kCamera;
  std::size_t camera = 0;  // in the table, where the owner is one
  Aov aov;
};

struct SceneNotes {
  std::vector<Finding> findings;
  std::vector<NameUse> names;
  std::vector<NotedShader> shaders;
  std::vector<NotedSlot> slots;
  std::vector<NotedInstance> instances;
  std::vector<NotedModel> models;
  std::vector<NotedModel> strands;  // hair and fur files
  std::vector<NotedObject> objects;
  std::vector<NotedCamera> cameras;
  std::vector<NotedAov> aovs;
  // Where a keyword stood that counts: "final_gather.sample". The last of all, but the first in a camera.
  std::map<std::string, TextPlace, std::less<>> stated;
  std::size_t comparisonsLeft = 200'000;  // of names that are like unknown ones
};

// Null in normal use: nothing is noted.
extern SceneNotes* sceneNotes;

// Into sceneNotes, if it is there.
void Note(TextPlace place, FindingCode code, std::string text, std::string_view suggestion = {});

// Of a picture that is not loaded.
inline FindingCode CodeOf(PictureProblem problem) {
  const bool isFile = problem > PictureProblem::kUnreadable;
  return isFile ? FindingCode::kDamagedImage : FindingCode::kMissingImage;
}

inline std::string Quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

}  // namespace zp

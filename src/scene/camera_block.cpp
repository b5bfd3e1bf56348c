#include "core/format.h"
#include "core/settings.h"
#include "scene/blocks.h"
#include "scene/scene.h"

namespace zp {
namespace {

constexpr Choice<Projection> kProjections[] = {
    {"perspective", Projection::kPerspective},
    {"pinhole", Projection::kPerspective},
    {"spherical", Projection::kSpherical},
    {"panorama", Projection::kSpherical},
};

//   written  takes the fields that are there, PoseField bits
bool ReadPoseBlock(SceneText& text, CameraPose& pose, std::uint8_t& written) {
  const auto mark = [&](PoseField field, bool read) {
    written |= field;
    return read;
  };
  ReadBlock(text, "pose", [&](const Keyword& keyword, Line& line) {
    if (keyword == "position") return mark(kPosePosition, ReadTriple(line, pose.position));
    if (keyword == "target") return mark(kPoseTarget, ReadTriple(line, pose.target));
    if (keyword == "up_vector") return mark(kPoseUpVector, ReadTriple(line, pose.upVector));
    if (keyword == "bokeh") return mark(kPoseBokeh, ReadNumber(line, pose.bokeh));
    if (keyword == "field_of_view") return mark(kPoseFieldOfView, ReadNumber(line, pose.fieldOfView));
    return false;
  });
  return true;
}

bool ReadFinalGatherBlock(SceneText& text) {
  ReadBlock(text, "final_gather", [](const Keyword& keyword, Line& line) {
    if (keyword == "ray_depth") return ReadNumber(line, settings.said.rayDepth);
    if (keyword == "photon_depth") return ReadNumber(line, settings.said.photonDepth);
    if (keyword == "sample") return ReadNumber(line, settings.said.rendererSample);
    if (keyword == "bounce") return ReadNumber(line, settings.said.rendererBounce);
    if (keyword == "distance") return ReadNumber(line, settings.said.distance);
    if (keyword == "resolution") return ReadNumber(line, settings.said.resolution);
    if (keyword == "radius") return ReadNumber(line, settings.said.photonRadius);
    return false;
  });
  return true;
}

bool ReadType(Line& line, Aov& aov) {
  const std::string type = ReadString(line);
  for (const ChannelWord& row : kChannelWords)
    if (type == row.word && row.channel != kChannelSamples) {
      aov.channel |= row.channel;
      aov.lastType = row.channel;
      return true;
    }
  aov.channel = kChannelUserData;
  aov.lastType = type == "samples" ? kChannelSamples : kChannelUserData;
  aov.userData = type;
  return true;
}

}  // namespace

bool ReadAovBlock(SceneText& text, Aov& aov, AovOwner owner) {
  NotedAov noted;
  noted.place = text.Here();
  noted.owner = owner;
  if (owner == AovOwner::kCamera) noted.camera = cameras.size();
  ReadBlock(text, "aov", [&](const Keyword& keyword, Line& line) {
    if (keyword == "image") {
      noted.image = line.Place();
      return ReadString(line, aov.image.fileName);
    }
    if (keyword == "shader")
      return ReadName(line, NameKind::kLinkedShader, aov.shaderName) &&
             (owner == AovOwner::kGeometryLight || NoteIdle(line, false));
    if (keyword == "type") {
      noted.earlierType = noted.type;
      noted.type = line.Place();
      return ReadType(line, aov);
    }
    return false;
  });
  if (!text.notes) return true;
  noted.aov = aov;
  text.notes->aovs.push_back(std::move(noted));
  return true;
}

void ReadCameraSection(SceneText& text) {
  Camera camera;
  if (text.notes) text.notes->cameras.push_back({text.Here(), cameras.size(), {}});
  ReadBlock(text, "camera", [&](const Keyword& keyword, Line& line) {
    if (keyword == "name") return ReadString(line, camera.name);
    if (keyword == "resolution") {
      ReadNumber(line, camera.width);
      return ReadNumber(line, camera.height);
    }
    if (keyword == "region") {
      ReadNumber(line, camera.regionXMin);
      ReadNumber(line, camera.regionYMin);
      ReadNumber(line, camera.regionXMax);
      return ReadNumber(line, camera.regionYMax);
    }
    if (keyword == "sample") return ReadNumber(line, camera.sample);
    if (keyword == "ior") return ReadNumber(line, camera.ior);
    if (keyword == "exposure") {
      if (text.notes) text.notes->cameras.back().exposure = line.Place();
      return ReadTriple(line, camera.exposure);
    }
    if (keyword == "projection") return ReadChoice(line, kProjections, camera.projection);
    if (keyword == "aov") return ReadAovBlock(text, camera.aovs.emplace_back(), AovOwner::kCamera);
    // Intended: a third pose is no keyword, so that its "end" ends the camera.
    if (keyword == "pose" && camera.poseCount < 2) {
      const std::int32_t pose = camera.poseCount++;
      return ReadPoseBlock(text, camera.poses[pose], camera.poseWritten[pose]);
    }
    if (keyword == "pose" && text.notes)
      NoteLine(line, FindingCode::kManyPoses, "a camera reads two poses only");
    return false;
  });
  cameras.push_back(std::move(camera));
}

namespace {

bool ReadFormat(Line& line) {
  const std::string_view word = TakeWord(line.values);
  AskForFormat(word);
  if (!sceneFolder.empty() && !imageSearchPaths.empty()) imageSearchPaths.front() = SceneImageFolder();
  if (line.text.notes && FormatOf(word) == 0)
    NoteLine(line, word.empty() ? FindingCode::kMissingValue : FindingCode::kBadNumber, NoFormatText(word));
  return true;
}

}  // namespace

void ReadRenderSection(SceneText& text) {
  ReadBlock(text, "render", [&](const Keyword& keyword, Line& line) {
    if (keyword == "format") return ReadFormat(line);
    if (keyword == "clamp") return ReadTriple(line, settings.said.clamp);
    if (keyword == "clamp_indirect") {
      NoteOfFormat2(line);
      return ReadTriple(line, settings.said.clampIndirect);
    }
    if (keyword == "error") return ReadTriple(line, settings.said.error);
    if (keyword == "gamma")
      return ReadNumber(line, settings.said.displayGamma) &&
             NoteIdle(line, settings.said.displayGamma == 2.2f);
    if (keyword == "exposure")
      return ReadNumber(line, settings.said.exposure) && NoteIdle(line, settings.said.exposure == 0);
    if (keyword == "final_gather") return ReadFinalGatherBlock(text);
    if (keyword == "image_path") {
      std::string& folder = imageSearchPaths.emplace_back();
      ReadName(line, NameKind::kFolder, folder);
      folder = ScenePath(folder);
      return true;
    }
    return false;
  });
}

}  // namespace zp

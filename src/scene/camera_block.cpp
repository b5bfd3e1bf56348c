#include "core/settings.h"
#include "scene/blocks.h"
#include "scene/tokens.h"

namespace zp {
namespace {

void ReadPoseBlock(std::istream& stream, CameraPose& pose) {
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "position") ReadTriple(line, pose.position);
    if (keyword == "target") ReadTriple(line, pose.target);
    if (keyword == "up_vector") ReadTriple(line, pose.upVector);
    if (keyword == "bokeh") ReadNumber(line, pose.bokeh);
    if (keyword == "field_of_view") ReadNumber(line, pose.fieldOfView);
  });
}

void ReadProjection(const std::string& name, Projection& projection) {
  if (name == "perspective" || name == "pinhole") projection = Projection::kPerspective;
  if (name == "spherical" || name == "panorama") projection = Projection::kSpherical;
}

void ReadFinalGatherBlock(std::istream& stream) {
  ReadBlock(stream, [](std::string_view keyword, Line& line) {
    if (keyword == "ray_depth") ReadNumber(line, settings.rayDepth);
    if (keyword == "photon_depth") ReadNumber(line, settings.photonDepth);
    if (keyword == "sample") ReadNumber(line, settings.rendererSample);
    if (keyword == "bounce") ReadNumber(line, settings.rendererBounce);
    if (keyword == "distance") ReadNumber(line, settings.distance);
    if (keyword == "resolution") ReadNumber(line, settings.resolution);
    if (keyword == "radius") ReadNumber(line, settings.photonRadius);
  });
}

}  // namespace

void ReadAovBlock(std::istream& stream, Aov& aov) {
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "image") aov.image.fileName = ReadString(line);
    if (keyword == "shader") aov.shaderName = ReadString(line);
    if (keyword != "type") return;
    const std::string type = ReadString(line);
    for (const ChannelWord& row : kChannelWords)
      if (type == row.word) {
        aov.channel |= row.channel;
        return;
      }
    aov.channel = kChannelUserData;
    aov.userData = type;
  });
}

void ReadCameraSection(std::istream& stream) {
  Camera camera;
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "name") camera.name = ReadString(line);
    if (keyword == "resolution") {
      ReadNumber(line, camera.width);
      ReadNumber(line, camera.height);
    }
    if (keyword == "region") {
      ReadNumber(line, camera.regionXMin);
      ReadNumber(line, camera.regionYMin);
      ReadNumber(line, camera.regionXMax);
      ReadNumber(line, camera.regionYMax);
    }
    if (keyword == "sample") ReadNumber(line, camera.sample);
    if (keyword == "ior") ReadNumber(line, camera.ior);
    if (keyword == "exposure") ReadTriple(line, camera.exposure);
    if (keyword == "projection") ReadProjection(ReadString(line), camera.projection);
    if (keyword == "aov") ReadAovBlock(stream, camera.aovs.emplace_back());
    // Intended: a third pose is no keyword, so that its "end" ends the camera.
    if (keyword == "pose" && camera.poseCount < 2) {
      camera.poseWritten[camera.poseCount] = true;
      ReadPoseBlock(stream, camera.poses[camera.poseCount++]);
    }
  });
  cameras.push_back(std::move(camera));
}

void ReadRenderSection(std::istream& stream) {
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "clamp") ReadTriple(line, settings.clamp);
    if (keyword == "error") ReadTriple(line, settings.error);
    if (keyword == "gamma") ReadNumber(line, settings.displayGamma);
    if (keyword == "exposure") ReadNumber(line, settings.exposure);
    if (keyword == "final_gather") ReadFinalGatherBlock(stream);
    if (keyword == "image_path") imageSearchPaths.push_back(ReadString(line));
  });
}

}  // namespace zp

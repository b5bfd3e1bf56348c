// app/merge_command.cpp: parts of a frame become its images, or a checkpoint.

#include <cstdio>

#include "commands.h"
#include "core/settings.h"
#include "imaging/frame_state.h"
#include "imaging/imaging.h"
#include "imaging/output_file.h"
#include "job/checkpoint.h"
#include "job/merge.h"
#include "layered_output.h"

namespace zp {
namespace {

bool IsCheckpointName(const std::string& name) { return name.ends_with(".zpc") || name.ends_with(".ZPC"); }

// A forgotten OUT makes a part the first of the words.
bool HoldsPart(const std::string& path) {
  std::vector<FramePart> parts;
  return OpenParts({path}, parts).empty() && !parts.front().head.merged;
}

// What saving asks the tables for, taken from the parts.
void SetUpSaving(const MergeOptions& options, const Checkpoint& head) {
  settings.format = head.plan.format;
  settings.said.linearFiles = options.linear || head.linear;
  settings.frame.activeCamera = 0;
  frameState = {};
  cameras.assign(1, Camera());
  cameras[0].exposure = head.exposure;
}

// Better to learn before all parts are read than behind.
std::string ImageObstacle(const Checkpoint& head) {
  std::vector<ImageBuffer> images;
  for (const Aov& aov : head.aovs) {
    ImageBuffer& image = images.emplace_back();
    image.fileName = aov.image.fileName;
    image.width = head.plan.width;
    image.height = head.plan.height;
  }
  std::vector<const ImageBuffer*> named;
  for (const ImageBuffer& image : images)
    if (!image.fileName.empty()) named.push_back(&image);
  return SaveObstacle(named);
}

int SaveImages(const MergedFrame& frame) {
  for (std::size_t i = 0; i < frame.head.aovs.size(); ++i) {
    const Aov& aov = frame.head.aovs[i];
    if (aov.image.fileName.empty() || frame.sums[i].empty()) continue;
    if (aov.withLayers)
      SaveAov(aov);
    else
      SavePicture(aov, MergedPicture(frame, i));
  }
  const std::vector<SaveFailure> failed = TakeFailedSaves();
  return failed.empty() ? kExitDone
                        : Fail("cannot write the image '" + failed[0].name + "': " + failed[0].reason);
}

int MergeInto(const MergeOptions& options, const std::vector<FramePart>& parts) {
  const bool keeps = IsCheckpointName(options.output);
  const std::string unkept = "cannot write the checkpoint '" + options.output + "': ";
  MergedFrame frame;
  if (keeps) {
    OutputFile file;
    if (const std::string reason = file.Open(options.output); !reason.empty()) return Fail(unkept + reason);
  } else {
    Checkpoint head = parts.front().head;
    head.aovs[0].image.fileName = options.output;
    SetUpSaving(options, head);
    if (const std::string obstacle = ImageObstacle(head); !obstacle.empty())
      return Fail("cannot write the image " + obstacle);
  }
  if (const std::string reason = MergeParts(parts, frame); !reason.empty())
    return Fail("cannot merge: " + reason);
  if (!keeps) {
    frame.head.aovs[0].image.fileName = options.output;
    WriteMergeWithLayers(frame, options.output);
    return SaveImages(frame);
  }
  const std::string reason = WriteMerge(options.output, frame);
  return reason.empty() ? kExitDone : Fail(unkept + reason);
}

}  // namespace

int RunMerge(const MergeOptions& options) {
  std::vector<FramePart> parts;
  if (const std::string reason = OpenParts(options.parts, parts); !reason.empty())
    return Fail("cannot merge: " + reason);
  const std::string missing = MissingPasses(parts);
  const bool keeps = IsCheckpointName(options.output);
  if (keeps && HoldsPart(options.output))
    return Fail("'" + options.output + "' is a part and no merge: it is not overwritten");
  if (!keeps && !missing.empty() && !options.partial)
    return Fail("passes " + missing + " are missing (--partial merges what there is)");
  if (PassesOf(parts).empty() && parts.front().head.begun.empty())
    return Fail("cannot merge: the parts hold no samples");
  StartImageFiles();
  const int status = MergeInto(options, parts);
  StopImageFiles();
  if (status == kExitDone && !options.quiet)
    std::printf("%s: passes %s%s%s\n", options.output.c_str(), PassesOf(parts).c_str(),
                missing.empty() ? "" : ", without ", missing.c_str());
  return status;
}

}  // namespace zp

// app/layered_output.h: the frame of a render, or of a merge, as a file of layers.

#pragma once

#include <functional>
#include <string>

#include "commands.h"
#include "imaging/imaging.h"
#include "job/checkpoint.h"
#include "job/merge.h"

namespace zp {

// Whether files of that name hold layers.
bool HoldsLayers(const std::string& name);
// Why a word of --aov names no layer; empty if it does.
std::string LayerObstacle(const std::string& word);

// Whether layers are asked for that are made of the half sets of passes.
bool HasHalfLayers(const RenderOptions& options);
// Adds the layers that denoising needs, where it is asked for. Why half sets cannot be had; empty if they
// can, or are not asked for.
std::string SettleHalfLayers(RenderOptions& options);
// Whether the frame has layers: as asked, or as its parts may be asked for when they are merged.
bool WantsLayers(const RenderOptions& options);
// Gives a camera, which is read and not yet initialised, the layers that the options ask for. Other cameras
// and lights keep their own.
void AskForLayers(const RenderOptions& options, std::size_t camera);
// Options of a checkpoint, with what files tell of the camera's place.
std::string WithCameraFacts(const std::string& options, const Camera& camera);

// From now on files of layers are written from the tables.
//   base     the frame as it is described to checkpoints
//   seconds  that it has taken
void WriteFramesWithLayers(const RenderOptions& options, const Checkpoint& base,
                           std::function<double()> seconds);
// Behind the render loop: the file of a frame that was cut short, and without its noise where that is asked
// for. Nothing later writes one.
void FinishLayers(bool denoises);

// Files of layers are written from `merged`, which outlives them; names its images as `output` asks for.
void WriteMergeWithLayers(MergedFrame& merged, const std::string& output);

}  // namespace zp

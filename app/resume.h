// app/resume.h: the options of a render, as a checkpoint keeps them.

#pragma once

#include <cstdint>
#include <string>

#include "commands.h"
#include "job/checkpoint.h"

namespace zp {

// A JSON object. Names of files count from the root there.
std::string KeptOptions(const RenderOptions& options);
// The same and what else was said, for a report.
std::string ReportedOptions(const RenderOptions& options);
// Fills those that were left out with those of the checkpoint.
void TakeKeptOptions(const Checkpoint& checkpoint, RenderOptions& options);
// Makes the library render the part that is asked for. The sentence that says why the words cannot mean one,
// the scene apart; else empty.
//   resumed  null without one
std::string ChooseShare(const RenderOptions& options, const Checkpoint* resumed);
// Whether it renders a part that has no images.
bool LacksImages(const RenderOptions& options);
// A seed for a render that was given none, from the system's random numbers.
std::uint64_t DrawSeed();

}  // namespace zp

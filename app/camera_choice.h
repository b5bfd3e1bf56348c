// app/camera_choice.h: which cameras of a scene a run renders, and how it names their images.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zp {

inline constexpr std::string_view kAllCameras = "all";

// Rows of the table that a word of the command line means: every one for "all", else the first camera of that
// name, else the one of that number; the first camera for an empty word. None if there is no such camera.
std::vector<std::size_t> ChooseCameras(std::string_view word);
// What the images of each camera are called by: its name, or its number where it has none. All differ, and
// all are of letters, digits, '-' and '_', so that they choose neither folders nor formats.
std::vector<std::string> CameraLabels();
// "look-left.exr" for "look.exr" and "left"; an empty name, or no label, leaves the name as it is.
std::string LabelledName(const std::string& name, const std::string& label);

}  // namespace zp

// imaging/preview.h: a picture in a window while it is made.
// The window drives the making: it calls `step` again and again on the thread that opened it, and shows what
// there is after each. Knows nothing of what a step does.

#pragma once

#include <functional>
#include <string>

#include "imaging/imaging.h"

namespace zp {

// What closing the window leads to, behind `closed`.
enum class PreviewEnd {
  kEndProcess,  // the window library's own way: the process exits with status 0
  kReturn,      // RunPreview returns
};

// All functions but `stop` must be set. An exception that leaves one of them closes the window and leaves
// RunPreview.
struct Preview {
  int width = 0;  // of the window at first, pixels
  int height = 0;
  std::function<const ImageBuffer*()> picture;  // three floats a pixel, top row first; null for none
  std::function<bool()> step;                   // one step; false when there is nothing left to do
  std::function<bool()> stop;    // asked before each step, true closes the window; null for never
  std::function<void()> closed;  // the window was closed
  std::function<void()> lost;    // the display is gone; the process ends behind this call
  PreviewEnd end = PreviewEnd::kEndProcess;
};

// Why no window of this size can be opened; empty if one can. A process has one window in its life: started
// again, the window library has been seen to send the server requests that do not exist.
std::string PreviewObstacle(int width, int height);

// Opens the window and returns when it has been closed, if `end` says so at all. After the last step the
// window stays open. Only where there is no obstacle: the window library ends the process if it cannot start.
void RunPreview(const Preview& preview);

// What the window's module offers by `zephlorePreviewWindow`. It is loaded when a window is first asked for,
// so that neither the program nor the library takes OpenGL and X.
struct PreviewWindow {
  const char* version;  // of the sources: of another one the records may differ
  std::string (*obstacle)(int width, int height);
  void (*run)(const Preview& preview);
};

}  // namespace zp

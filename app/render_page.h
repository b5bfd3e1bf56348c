// app/render_page.h: the page that shows a render while it runs. Nothing here does anything unless OpenPage
// has opened one.

#pragma once

#include <string>

#include "commands.h"

namespace zp {

// Before the scene is read. Why there can be none, as a whole sentence; else empty.
std::string OpenPage(const ServeOptions& options, const std::string& scene);
// To be told what frameObserver is told, and of the frame's begin, on the thread that renders.
void BeginPageFrame();
void PageRowsDone();
void PagePassDone();
void PagePaused();
// The frame has ended, and its images are there still.
void EndPageFrame();
// A viewer has ended the render: what there is shall be saved, and all is well.
bool ViewerStopped();
// The program is about to end with this status.
void ClosePage(int status);

}  // namespace zp

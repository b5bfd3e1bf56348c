// window/preview_window.cpp: the module with the preview's window, which takes OpenGL and X and nothing of
// the core but headers.

#include <GL/freeglut.h>
#include <GL/glx.h>
#include <X11/Xlib.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <thread>
#include <utility>

#include "imaging/preview.h"

namespace zp {
namespace {

constexpr int kLongestSide = 32767;  // coordinates of X are signed and have 16 bits
// A window whose picture is finished redraws this seldom, so that it can stay open over night.
constexpr auto kRest = std::chrono::milliseconds(100);

// Callbacks have no argument of ours. There is one window at a time; null once it is closed.
const Preview* shown = nullptr;
bool opened = false;  // ever
std::exception_ptr failure;
XErrorHandler outerErrorHandler = nullptr;

void Leave() {
  glutSetOption(GLUT_ACTION_ON_WINDOW_CLOSE, GLUT_ACTION_GLUTMAINLOOP_RETURNS);
  glutLeaveMainLoop();
}

// The window library is C: exceptions wait until its loop has ended.
template <class Call>
void Guarded(Call call) {
  try {
    call();
  } catch (...) {
    if (!failure) failure = std::current_exception();
    Leave();
  }
}

void Draw() {
  if (shown == nullptr || glutGetWindow() == 0) return;
  glClear(GL_COLOR_BUFFER_BIT);  // what lies beside the picture when the window has been made larger
  const ImageBuffer* image = shown->picture();
  if (image != nullptr && image->width > 0 && image->height > 0 &&
      image->floatPixels.size() ==
          static_cast<std::size_t>(image->width) * static_cast<std::size_t>(image->height) * 3) {
    glRasterPos2i(-1, 1);  // the top left corner of clip space, from which rows run downwards
    glPixelZoom(1.0f, -1.0f);
    glDrawPixels(image->width, image->height, GL_RGB, GL_FLOAT, image->floatPixels.data());
  }
  glutSwapBuffers();
  glFlush();
}

void Step() {
  if (shown == nullptr) return;
  if (shown->stop && shown->stop()) return Leave();
  bool more = false;
  Guarded([&more] { more = shown->step(); });
  if (failure) return;
  Draw();
  glutPostRedisplay();
  if (!more) std::this_thread::sleep_for(kRest);
}

void Close() {
  if (const Preview* closing = std::exchange(shown, nullptr)) Guarded(closing->closed);
}

// Xlib ends the process when one of its handlers returns. Nothing may throw through it.
void SaveTheLost() {
  const Preview* losing = std::exchange(shown, nullptr);
  if (losing != nullptr) losing->lost();
}

int HandleLostServer(Display*) {
  SaveTheLost();
  return 0;
}

int HandleError(Display* display, XErrorEvent* event) {
  SaveTheLost();
  return outerErrorHandler(display, event);
}

std::string Obstacle(int width, int height) {
  if (width < 1 || height < 1) return "the picture has no pixels";
  if (width > kLongestSide || height > kLongestSide) return "the picture is too large for a window";
  if (opened) return "the window library opens only one in the life of a process";
  const char* name = std::getenv("DISPLAY");
  if (name == nullptr || *name == '\0') return "there is no display (DISPLAY is not set)";
  Display* display = XOpenDisplay(name);
  if (display == nullptr) return "the display '" + std::string(name) + "' cannot be opened";
  const int wanted[] = {GLX_X_RENDERABLE, True, GLX_RENDER_TYPE, GLX_RGBA_BIT, GLX_DOUBLEBUFFER, True, None};
  int count = 0;
  if (glXQueryExtension(display, nullptr, nullptr) == True)
    if (GLXFBConfig* formats = glXChooseFBConfig(display, DefaultScreen(display), wanted, &count))
      XFree(formats);
  XCloseDisplay(display);
  return count > 0 ? "" : "the display '" + std::string(name) + "' has no OpenGL";
}

void Run(const Preview& preview) {
  char word[] = "zephlore";
  char* words[] = {word, nullptr};
  int wordCount = 1;
  // A host that uses the window library itself has started it already, and it starts but once.
  if (glutGet(GLUT_INIT_STATE) == 0) glutInit(&wordCount, words);
  if (preview.end == PreviewEnd::kReturn)
    glutSetOption(GLUT_ACTION_ON_WINDOW_CLOSE, GLUT_ACTION_GLUTMAINLOOP_RETURNS);
  glutInitWindowSize(preview.width, preview.height);
  glutInitDisplayMode(GLUT_DOUBLE);
  glutCreateWindow("zephlore");
  glutDisplayFunc(Draw);
  glutIdleFunc(Step);
  glutCloseFunc(Close);

  opened = true;
  shown = &preview;
  outerErrorHandler = XSetErrorHandler(HandleError);
  const XIOErrorHandler outerLossHandler = XSetIOErrorHandler(HandleLostServer);
  glutMainLoop();
  XSetIOErrorHandler(outerLossHandler);
  XSetErrorHandler(outerErrorHandler);
  shown = nullptr;
  if (failure) std::rethrow_exception(std::exchange(failure, nullptr));
}

constexpr PreviewWindow kWindow = {ZP_VERSION, Obstacle, Run};

}  // namespace

extern "C" __attribute__((visibility("default"))) const PreviewWindow* zephlorePreviewWindow() {
  return &kWindow;
}

}  // namespace zp

// Life cycle and renderer settings, as a host sees them.

#include "accel/accel.h"
#include "core/settings.h"
#include "frame/exported_records.h"
#include "frame/frame.h"
#include "frame/zp.h"
#include "integrator/integrator.h"
#include "lights/lights.h"

using zp::settings;

void zpStartup() { zp::Startup(); }
void zpShutdown() { zp::Shutdown(); }
void zpGo(const char* folder) { zp::Go(zp::Text(folder)); }
void zpInitialize() { zp::Initialize(); }
void zpFinalize() { zp::Finalize(); }
void zpInitializeCameras() { zp::PrepareCameras(); }
void zpFinalizeCameras() { zp::FinalizeCameras(); }
void zpInitializeShaders() { zp::InitializeShaders(); }
void zpFinalizeShaders() { zp::FinalizeShaders(); }
void zpInitializeGaffer() { zp::InitializeGaffer(); }
void zpFinalizeGaffer() { zp::FinalizeGaffer(); }
void zpInitializeSkyLight() { zp::InitializeSky(); }
void zpFinalizeSkyLight() { zp::FinalizeSky(); }
void zpInitializeGeometryLight() { zpInitializeSkyLight(); }
void zpFinalizeGeometryLight() { zpFinalizeSkyLight(); }
void zpInitializeAccelerator() { zp::InitializeAccelerator(); }
void zpFinalizeAccelerator() { zp::FinalizeAccelerator(); }
void zpInitializeRenderer() { zp::InitializeRenderer(); }
void zpFinalizeRenderer() { zp::FinalizeRenderer(); }

void zpRender() {
  settings.passIndex = 0;
  zp::RenderLoop();
}
void zpRenderPixels(int count, float* out, int pass) {
  if (count > 0 && out != nullptr) zp::RenderPixels(count, out, pass);
}
void zpSetPreviewWindow(bool show) { settings.previewWindow = show; }
void zpSetDisplayGamma(float gamma) { settings.displayGamma = gamma; }
void zpSetRendererClamp(float r, float g, float b) { settings.clamp = {r, g, b}; }
void zpSetRendererError(float r, float g, float b) { settings.error = {r, g, b}; }
void zpSetRendererRayDepth(int depth) { settings.rayDepth = depth; }
void zpSetRendererPhotonDepth(int depth) { settings.photonDepth = depth; }
void zpSetRendererSample(int sample) { settings.rendererSample = sample; }
void zpSetRendererBounce(int bounce) { settings.rendererBounce = bounce; }
void zpSetRendererDistance(float distance) { settings.distance = distance; }
void zpSetRendererResolution(float resolution) { settings.resolution = resolution; }
void zpSetRendererRadius(float radius) { settings.photonRadius = radius; }

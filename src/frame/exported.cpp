// Life cycle and renderer settings, as a host sees them.

#include "accel/accel.h"
#include "core/settings.h"
#include "frame/exported_records.h"
#include "frame/frame.h"
#include "frame/host_signals.h"
#include "frame/zp.h"
#include "integrator/integrator.h"
#include "lights/lights.h"

using zp::settings;

void zpStartup() noexcept { zp::Startup(); }
void zpShutdown() noexcept { zp::Shutdown(); }
void zpGo(const char* folder) noexcept {
  const zp::HostSignals signals;
  zp::Go(zp::Text(folder));
}
void zpInitialize() noexcept {
  const zp::HostSignals signals;
  zp::Initialize();
}
void zpFinalize() noexcept { zp::Finalize(); }
void zpInitializeCameras() noexcept {
  const zp::HostSignals signals;
  zp::PrepareCameras();
}
void zpFinalizeCameras() noexcept { zp::FinalizeCameras(); }
void zpInitializeShaders() noexcept {
  const zp::HostSignals signals;
  zp::InitializeShaders();
}
void zpFinalizeShaders() noexcept { zp::FinalizeShaders(); }
void zpInitializeGaffer() noexcept {
  const zp::HostSignals signals;
  zp::InitializeGaffer();
}
void zpFinalizeGaffer() noexcept { zp::FinalizeGaffer(); }
void zpInitializeSkyLight() noexcept {
  const zp::HostSignals signals;
  zp::InitializeSky();
}
void zpFinalizeSkyLight() noexcept { zp::FinalizeSky(); }
void zpInitializeGeometryLight() noexcept { zpInitializeSkyLight(); }
void zpFinalizeGeometryLight() noexcept { zpFinalizeSkyLight(); }
void zpInitializeAccelerator() noexcept {
  const zp::HostSignals signals;
  zp::InitializeAccelerator();
}
void zpFinalizeAccelerator() noexcept { zp::FinalizeAccelerator(); }
void zpInitializeRenderer() noexcept {
  const zp::HostSignals signals;
  zp::InitializeRenderer();
}
void zpFinalizeRenderer() noexcept { zp::FinalizeRenderer(); }

void zpRender() noexcept {
  const zp::HostSignals signals;
  settings.frame.passIndex = 0;
  zp::RenderLoop();
}
void zpRenderPixels(int count, float* out, int pass) noexcept {
  const zp::HostSignals signals;
  if (count > 0 && out != nullptr) zp::RenderPixels(count, out, pass);
}
void zpSetPreviewWindow(bool show) noexcept { settings.said.previewWindow = show; }
void zpSetDisplayGamma(float gamma) noexcept { settings.said.displayGamma = gamma; }
void zpSetRendererClamp(float r, float g, float b) noexcept { settings.said.clamp = {r, g, b}; }
void zpSetRendererError(float r, float g, float b) noexcept { settings.said.error = {r, g, b}; }
void zpSetRendererRayDepth(int depth) noexcept { settings.said.rayDepth = depth; }
void zpSetRendererPhotonDepth(int depth) noexcept { settings.said.photonDepth = depth; }
void zpSetRendererSample(int sample) noexcept { settings.said.rendererSample = sample; }
void zpSetRendererBounce(int bounce) noexcept { settings.said.rendererBounce = bounce; }
void zpSetRendererDistance(float distance) noexcept { settings.said.distance = distance; }
void zpSetRendererResolution(float resolution) noexcept { settings.said.resolution = resolution; }
void zpSetRendererRadius(float radius) noexcept { settings.said.photonRadius = radius; }

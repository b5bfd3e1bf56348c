// zp.h: the interface of the dynamic library. One global scene, no handles but indices: an Add function
// returns the new record's index, and that index is the handle for all its setters. Strings are
// NUL-terminated and copied; a null string counts as an empty one. Colours are linear RGB, lengths scene
// units, angles degrees. An index that names no record changes nothing, and an Add function then returns -1.
// Nothing fails otherwise: what is wrong with a scene is printed on standard output. Call everything from one
// thread, nothing while a pass runs, and zpInitialize after all additions.

#pragma once

#include <cstdint>

// What an image records; bits.
enum Channel : std::uint32_t {
  kZpBeauty = 1,
  kZpLightPath = 2,
  kZpLambertian = 4,
  kZpLambertianColor = 8,
  kZpTransmissive = 16,
  kZpTransmissiveColor = 32,
  kZpGlossy = 64,
  kZpGlossyColor = 128,
  kZpSpecular = 256,
  kZpSpecularColor = 512,
  kZpEmissive = 1024,
  kZpNormal = 2048,
  kZpTangent = 4096,
  kZpPosition = 8192,
  kZpDepth = 16384,
  kZpUserData = 32768,
};
enum class AngleMeasure : std::int32_t {};
enum class Projection : std::int32_t { kPerspective = 0, kSpherical = 1 };
// Parameters of a surface layer. The two unnamed ones have no keyword in scene text.
enum class Element : std::int32_t {
  kLambertian = 0,
  kTransmissive = 1,
  kGlossy = 2,
  kSpecular = 3,
  kEmissive = 4,
  kDiffusion = 5,
  kShadowTransparency = 6,
  kNormal = 7,
  kWeight = 8,
  kAnisotropy = 9,
  kRoughness = 10,
  kAngle = 11,
  kIor = 12,
  kUnnamed13 = 13,
  kThickness = 14,
  kUnnamed15 = 15,
};
enum class Material : std::int32_t { kConductor = 0, kDielectric = 1, kThinDielectric = 2 };
enum class Sideness : std::int32_t { kFace = 0, kBack = 1, kBoth = 2 };
enum class Visibility : std::int32_t {
  kInvisible = 0,
  kNotLightPrimary = 1,
  kNotCameraPrimary = 2,
  kAll = 3
};

// All functions below are the exported symbols; nothing else of the library is.
#pragma GCC visibility push(default)

// Life cycle.

// Banner, tables, defaults. First of all calls; zpGo includes it.
void zpStartup();
void zpShutdown();
// One scene folder from start-up to shut-down. A host calls nothing else around it.
void zpGo(const char* folder);
// Cameras, shaders with their textures, accelerator, sky light, geometry light, gaffer, renderer.
void zpInitialize();
// Writes all images and empties all tables.
void zpFinalize();
void zpInitializeCameras();
void zpFinalizeCameras();
void zpInitializeShaders();
void zpFinalizeShaders();
// Point and parallel lights. Their photons are aimed at the scene, so the accelerator and the sky come first.
void zpInitializeGaffer();
void zpFinalizeGaffer();
void zpInitializeSkyLight();
void zpFinalizeSkyLight();
// Intended: these two act on the sky light, exactly like the two above.
void zpInitializeGeometryLight();
void zpFinalizeGeometryLight();
void zpInitializeAccelerator();
void zpFinalizeAccelerator();
void zpInitializeRenderer();
void zpFinalizeRenderer();

// Rendering and its settings.

// All passes of the first camera.
void zpRender();
// One pass: `count` RGB triples of the camera's region, row after row, into `out`.
void zpRenderPixels(int count, float* out, int pass);
void zpSetPreviewWindow(bool show);
void zpSetDisplayGamma(float gamma);                 // without effect on any output
void zpSetRendererClamp(float r, float g, float b);  // upper limit of a sample
void zpSetRendererError(float r, float g, float b);  // for a sample that is no finite number
void zpSetRendererRayDepth(int depth);
void zpSetRendererPhotonDepth(int depth);
void zpSetRendererSample(int sample);  // indirect rays of a first hit, all passes
void zpSetRendererBounce(int bounce);
void zpSetRendererDistance(float distance);
void zpSetRendererResolution(float resolution);
void zpSetRendererRadius(float radius);

// Geometry. Counts are elements, not numbers; data is appended to what is there; below 1 does nothing.

int zpAddObject();
void zpSetObjectName(int object, const char* name);
int zpAddPart(int object);
// The shader of the primitives that are added next.
void zpSetShaderID(int object, int part, int shader);
void zpAddPositions(int object, int part, int count, const float* data);  // 3 each
void zpAddNormals(int object, int part, int count, const float* data);    // 3 each, kept in 3 bytes
void zpAddTangents(int object, int part, int count, const float* data);   // 3 each, kept in 3 bytes
void zpAddUVs(int object, int part, int count, const float* data);        // 2 each
void zpAddRadii(int object, int part, int count, const float* data);      // 1 each
void zpAddTriangles(int object, int part, int count, const int* data);    // 3 vertices each
void zpAddTetragons(int object, int part, int count, const int* data);    // 4 vertices each
void zpAddCylinders(int object, int part, int count, const int* data);    // the first vertex each
void zpAddParticles(int object, int part, int count, const int* data);    // a vertex each
// A new named set of one value a vertex: kind 1 one float, kind 2 two, any other three. May be empty.
void zpAddVertexData(int object, int part, const char* name, int count, int kind, const float* data);
int zpAddInstance(int object);
// Places object `target` in `object`. `matrix` is object to world, four rows; null keeps the stored one.
// `shader` -1 keeps the target's own shaders.
void zpSetInstance(int object, int instance, int target, const float matrix[][4], int shader);

// Shaders.

int zpAddShader();
void zpSetShaderName(int shader, const char* name);
void zpSetShaderVisibility(int shader, Visibility visibility);
void zpSetShaderSmoothAngle(int shader, float degrees);
void zpSetShaderRoundCorner(int shader, float radius);
void zpSetShaderTime(int shader, float time);  // Intended: without any effect
int zpAddSurfaceShader(int shader);
void zpSetSurfaceColor(int shader, int layer, Element element, float r, float g, float b);
// `color` (four rows of four) and `uv` (three rows of three) may be null.
// Intended: matrices given here are kept, but only those of scene text are applied.
void zpSetSurfaceImage(int shader, int layer, Element element, const char* path, float gamma,
                       const float color[][4], const float uv[][3]);
void zpSetSurfaceMaterial(int shader, int layer, Material material);
void zpSetSurfaceSideness(int shader, int layer, Sideness sideness);
void zpSetSurfaceVirtualLight(int shader, int layer, bool on);
int zpAddDisplacementShader(int shader);
void zpSetDisplacementImage(int shader, int layer, const char* path, float gamma, const float color[][4],
                            const float uv[][3]);
void zpSetDisplacementLevel(int shader, int layer, int level);
void zpSetDisplacementVector(int shader, int layer, float x, float y, float z);

// Cameras. Position, target, up vector, bokeh and field of view go to the pose that zpSetCameraTime chose; a
// pose that nobody wrote is a copy of the other.

int zpAddCamera();
void zpSetCameraName(int camera, const char* name);
void zpSetCameraPosition(int camera, float x, float y, float z);
void zpSetCameraTarget(int camera, float x, float y, float z);
void zpSetCameraUpVector(int camera, float x, float y, float z);
void zpSetCameraBokeh(int camera, float degrees);                 // half angle of the lens cone
void zpSetCameraFOV(int camera, float degrees);                   // full horizontal angle
void zpSetCameraAngleMeasure(int camera, AngleMeasure measure);   // without effect
void zpSetCameraExposure(int camera, float r, float g, float b);  // without effect
void zpSetCameraSample(int camera, int sample);                   // passes
// The pose that setters write from now on: shutter close from 0.5 up, else shutter open.
void zpSetCameraTime(int camera, float time);
void zpSetCameraProjection(int camera, Projection projection);
void zpSetCameraResolution(int camera, int width, int height);
void zpSetCameraRegion(int camera, int xMin, int yMin, int xMax, int yMax);  // maxima one behind
// The first AOV of a camera is its beauty image, so the first call returns 1.
int zpAddCameraAOV(int camera);
void zpSetCameraAOVChannel(int camera, int aov, Channel channel);
void zpSetCameraAOVName(int camera, int aov, const char* name);      // the file to write
void zpSetCameraAOVUserData(int camera, int aov, const char* name);  // of the vertex data shown

// Point and parallel lights, by index. A surface that faces the light receives the irradiance pi * color, at
// a distance d from a point light pi * color / d^2. Links and AOV channels are as for the lights below.

int zpAddPointLight();
void zpSetPointLightColor(int light, float r, float g, float b);
void zpSetPointLightPosition(int light, float x, float y, float z);
void zpSetPointLightDirection(int light, float x, float y, float z);  // axis of the spot, of any length
void zpSetPointLightBlur(int light, float radius);
void zpSetPointLightOffset(int light, float offset);       // softens the terminator of Lambertian surfaces
void zpSetPointLightInnerAngle(int light, float degrees);  // off the axis: full light up to here
void zpSetPointLightOuterAngle(int light, float degrees);  // none from here; between them linear
void zpSetPointLightSample(int light, int sample);         // shadow rays of a first hit, all passes
void zpSetPointLightPhoton(int light, int photon);         // number of photons
void zpSetPointLightShaderLink(int light, int shader);
int zpAddPointLightAOV(int light);
void zpSetPointLightAOVChannel(int light, int aov, Channel channel);
void zpSetPointLightAOVName(int light, int aov, const char* name);
int zpAddParallelLight();
void zpSetParallelLightColor(int light, float r, float g, float b);
void zpSetParallelLightDirection(int light, float x, float y, float z);  // the way the light travels
void zpSetParallelLightBlur(int light, float degrees);  // half angle of the cone of directions
void zpSetParallelLightOffset(int light, float offset);
void zpSetParallelLightSample(int light, int sample);
void zpSetParallelLightPhoton(int light, int photon);
void zpSetParallelLightShaderLink(int light, int shader);
int zpAddParallelLightAOV(int light);
void zpSetParallelLightAOVChannel(int light, int aov, Channel channel);
void zpSetParallelLightAOVName(int light, int aov, const char* name);

// The sky light and the geometry light. There is one of each. Links restrict a light to shaders; without any
// it lights everything. Intended: channels of their AOVs add to those that are there, unlike a camera's.

void zpSetSkyLightColor(float r, float g, float b);
void zpSetSkyLightNorth(float x, float y, float z);
void zpSetSkyLightZenith(float x, float y, float z);
void zpSetSkyLightImage(const char* path);
void zpSetSkyLightBackdrop(const char* path);
void zpSetSkyLightSample(int sample);
void zpSetSkyLightPhoton(int photon);
void zpSetSkyLightShaderLink(int shader);
int zpAddSkyLightAOV();
void zpSetSkyLightAOVChannel(int aov, Channel channel);
void zpSetSkyLightAOVName(int aov, const char* name);
void zpSetGeometryLightSample(int sample);
void zpSetGeometryLightPhoton(int photon);
void zpSetGeometryLightShaderLink(int shader);
int zpAddGeometryLightAOV();
void zpSetGeometryLightAOVChannel(int aov, Channel channel);
void zpSetGeometryLightAOVName(int aov, const char* name);
void zpSetGeometryLightAOVShaderName(int aov, const char* name);

#pragma GCC visibility pop

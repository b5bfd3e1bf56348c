// A host's view: scenes built by the exported functions beside the same scenes as text, several in one
// process, and calls that no host should make.

#include <gtest/gtest.h>
#include <omp.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "accel/accel.h"
#include "core/console.h"
#include "core/settings.h"
#include "core/tables.h"
#include "frame/frame.h"
#include "frame/zp.h"
#include "integrator/estimator.h"
#include "lights/lights.h"
#include "lights/photon_store.h"
#include "scene/scene.h"

namespace zp {
namespace {

namespace fs = std::filesystem;
using Pictures = std::map<std::string, std::string>;  // bytes by file name

// One scene, said twice.
struct TwofoldScene {
  std::map<std::string, std::string> files;  // of the scene folder, by path
  std::function<void()> build;               // between start-up and initialisation
};

// A table under all kinds of light, with things of several materials on it, two instance levels deep.
TwofoldScene Studio() {
  TwofoldScene scene;
  scene.files["model/table.obj"] =
      "v -3 -3 0\nv 3 -3 0\nv 3 3 0\nv -3 3 0\nvt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\n"
      "usemtl cloth\nf 1/1 2/2 3/3\nf 1/1 3/3 4/4\n";
  scene.files["model/spike.obj"] =
      "v -1 -1 0\nv 1 -1 0\nv 0 1 0\nv 0 0 2\n"
      "usemtl metal\nf 1 2 4\nf 2 3 4\nusemtl glass\nf 3 1 4\nusemtl lamp\nf 1 3 2\n";
  scene.files["image/paint.pfm"] = "PF\n2 1\n-1.0\n" + std::string("\0\0\0\x3f\0\0\x80\x3f\0\0\x80\x3e", 12) +
                                   std::string("\0\0\0\x3e\0\0\0\x3f\0\0\x80\x3f", 12);
  scene.files["shader/a.zp"] =
      "shader\nname \"cloth\"\nsurface_shader\nlambertian\ncolor 0.7 0.7 0.7\nimage \"image/paint.pfm\"\n"
      "sampler\ngamma 1.5\nend\nend\nend\nend\n"
      "shader\nname \"metal\"\nsurface_shader\nconductor\nglossy\ncolor 0.9 0.6 0.3\nend\n"
      "roughness\ncolor 0.3 0.3 0.3\nend\nanisotropy\ncolor 0.5 0.5 0.5\nend\nior\ncolor 8 8 "
      "8\nend\nend\nend\n"
      "shader\nname \"glass\"\nsurface_shader\nthin_dielectric\nsideness \"both\"\n"
      "specular\ncolor 1 1 1\nend\nior\ncolor 1.5 1.5 1.5\nend\nweight\ncolor 2 2 2\nend\n"
      "shadow_transparency\ncolor 0.8 0.9 0.8\nend\nend\n"
      "surface_shader\ntransmissive\ncolor 0.2 0.5 0.2\nend\nweight\ncolor 1 1 1\nend\nend\n"
      "geometry_shader\nsmooth_angle 40\nend\nend\n"
      "shader\nname \"lamp\"\nsurface_shader\nvirtual_light\nemissive\ncolor 3 2 1\nend\nend\n"
      "geometry_shader\ncamera_primary 0\nend\nend\n";
  scene.files["render/a.zp"] =
      "render\nclamp 40 40 40\nerror 1 0 1\nfinal_gather\nray_depth 6\nphoton_depth 5\nsample 8\nbounce 2\n"
      "distance 0\nresolution 0\nradius 0.5\nend\nend\n";
  scene.files["light/a.zp"] =
      "point_light\ncolor 6 5 4\nposition -1 -2 3\nblur 0.2\ndirection 0 0 -1\ninner_angle 30\n"
      "outer_angle 120\noffset 0.05\nsample 8\nphoton 2000\naov\nimage \"point.pfm\"\ntype "
      "\"lambertian\"\nend\n"
      "end\n"
      "parallel_light\ncolor 0.5 0.5 0.4\ndirection 1 1 -2\nblur 2\noffset 0\nsample 4\nphoton 0\n"
      "link\nshader \"cloth\"\nend\naov\nimage \"sun.pfm\"\ntype \"lambertian\"\ntype \"glossy\"\nend\nend\n"
      "sky_light\nimage \"image/paint.pfm\"\ncolor 0.2 0.3 0.4\nphoton 1000\nsample 4\nnorth 1 0 0\nzenith 0 "
      "0 1\n"
      "aov\nimage \"sky.pfm\"\ntype \"lambertian\"\nend\nend\n"
      "geometry_light\nphoton 1000\nsample 4\naov\nimage \"lamp.pfm\"\ntype \"lambertian\"\n"
      "shader \"lamp\"\nend\nend\n";
  scene.files["camera/a.zp"] =
      "camera\nname \"main\"\nresolution 24 18\nregion 2 1 23 18\nsample 3\nprojection \"perspective\"\n"
      "aov\nimage \"uv.pfm\"\ntype \"uv\"\nend\n"
      "pose\nposition 0 -7 4\ntarget 0 0 0.5\nup_vector 0 0 1\nbokeh 0.5\nfield_of_view 50\nend\nend\n";
  scene.files["geometry/a.zp"] =
      "object\nname table\nobj \"model/table.obj\"\nend\nobject\nname spike\nobj \"model/spike.obj\"\nend\n"
      "object\nname pair\ninstance\nobject spike\nmatrix 1 0 0 -1  0 1 0 0  0 0 1 0  0 0 0 1\nend\n"
      "instance\nobject spike\nshader \"metal\"\nmatrix 0.5 0 0 1  0 0.5 0 0  0 0 0.5 0  0 0 0 1\nend\nend\n"
      "object\nname all\ninstance\nobject table\nend\ninstance\nobject pair\n"
      "matrix 0 -1 0 0  1 0 0 0  0 0 1 1.5  0 0 0 1\nend\nend\n";
  scene.build = [] {
    const auto addShader = [](const char* name) {
      const int shader = zpAddShader();
      zpSetShaderName(shader, name);
      zpAddSurfaceShader(shader);
      return shader;
    };
    const int cloth = addShader("cloth"), metal = addShader("metal"), glass = addShader("glass"),
              lamp = addShader("lamp");
    zpSetSurfaceColor(cloth, 0, ::Element::kLambertian, 0.7f, 0.7f, 0.7f);
    zpSetSurfaceImage(cloth, 0, ::Element::kLambertian, "image/paint.pfm", 1.5f, nullptr, nullptr);
    zpSetSurfaceMaterial(metal, 0, ::Material::kConductor);
    zpSetSurfaceColor(metal, 0, ::Element::kGlossy, 0.9f, 0.6f, 0.3f);
    zpSetSurfaceColor(metal, 0, ::Element::kRoughness, 0.3f, 0.3f, 0.3f);
    zpSetSurfaceColor(metal, 0, ::Element::kAnisotropy, 0.5f, 0.5f, 0.5f);
    zpSetSurfaceColor(metal, 0, ::Element::kIor, 8, 8, 8);
    zpSetSurfaceMaterial(glass, 0, ::Material::kThinDielectric);
    zpSetSurfaceSideness(glass, 0, ::Sideness::kBoth);
    zpSetSurfaceColor(glass, 0, ::Element::kSpecular, 1, 1, 1);
    zpSetSurfaceColor(glass, 0, ::Element::kIor, 1.5f, 1.5f, 1.5f);
    zpSetSurfaceColor(glass, 0, ::Element::kWeight, 2, 2, 2);
    zpSetSurfaceColor(glass, 0, ::Element::kShadowTransparency, 0.8f, 0.9f, 0.8f);
    zpAddSurfaceShader(glass);
    zpSetSurfaceColor(glass, 1, ::Element::kTransmissive, 0.2f, 0.5f, 0.2f);
    zpSetSurfaceColor(glass, 1, ::Element::kWeight, 1, 1, 1);
    zpSetShaderSmoothAngle(glass, 40);
    zpSetSurfaceVirtualLight(lamp, 0, true);
    zpSetSurfaceColor(lamp, 0, ::Element::kEmissive, 3, 2, 1);
    zpSetShaderVisibility(lamp, ::Visibility::kNotCameraPrimary);

    zpSetRendererClamp(40, 40, 40);
    zpSetRendererError(1, 0, 1);
    zpSetRendererRayDepth(6);
    zpSetRendererPhotonDepth(5);
    zpSetRendererSample(8);
    zpSetRendererBounce(2);
    zpSetRendererDistance(0);
    zpSetRendererResolution(0);
    zpSetRendererRadius(0.5f);

    const int point = zpAddPointLight(), sun = zpAddParallelLight();
    zpSetPointLightColor(point, 6, 5, 4);
    zpSetPointLightPosition(point, -1, -2, 3);
    zpSetPointLightBlur(point, 0.2f);
    zpSetPointLightDirection(point, 0, 0, -1);
    zpSetPointLightInnerAngle(point, 30);
    zpSetPointLightOuterAngle(point, 120);
    zpSetPointLightOffset(point, 0.05f);
    zpSetPointLightSample(point, 8);
    zpSetPointLightPhoton(point, 2000);
    zpSetPointLightAOVName(point, zpAddPointLightAOV(point), "point.pfm");
    zpSetPointLightAOVChannel(point, 0, kZpLambertian);
    zpSetParallelLightColor(sun, 0.5f, 0.5f, 0.4f);
    zpSetParallelLightDirection(sun, 1, 1, -2);
    zpSetParallelLightBlur(sun, 2);
    zpSetParallelLightOffset(sun, 0);
    zpSetParallelLightSample(sun, 4);
    zpSetParallelLightPhoton(sun, 0);
    zpSetParallelLightShaderLink(sun, cloth);
    zpSetParallelLightAOVName(sun, zpAddParallelLightAOV(sun), "sun.pfm");
    zpSetParallelLightAOVChannel(sun, 0, kZpLambertian);
    zpSetParallelLightAOVChannel(sun, 0, kZpGlossy);
    zpSetSkyLightImage("image/paint.pfm");
    zpSetSkyLightColor(0.2f, 0.3f, 0.4f);
    zpSetSkyLightPhoton(1000);
    zpSetSkyLightSample(4);
    zpSetSkyLightNorth(1, 0, 0);
    zpSetSkyLightZenith(0, 0, 1);
    zpSetSkyLightAOVName(zpAddSkyLightAOV(), "sky.pfm");
    zpSetSkyLightAOVChannel(0, kZpLambertian);
    zpSetGeometryLightPhoton(1000);
    zpSetGeometryLightSample(4);
    zpSetGeometryLightAOVName(zpAddGeometryLightAOV(), "lamp.pfm");
    zpSetGeometryLightAOVChannel(0, kZpLambertian);
    zpSetGeometryLightAOVShaderName(0, "lamp");

    const int camera = zpAddCamera();
    zpSetCameraName(camera, "main");
    zpSetCameraResolution(camera, 24, 18);
    zpSetCameraRegion(camera, 2, 1, 23, 18);
    zpSetCameraSample(camera, 3);
    zpSetCameraProjection(camera, ::Projection::kPerspective);
    zpSetCameraAOVName(camera, zpAddCameraAOV(camera), "uv.pfm");
    zpSetCameraAOVChannel(camera, 1, kZpUserData);
    zpSetCameraAOVUserData(camera, 1, "uv");
    zpSetCameraPosition(camera, 0, -7, 4);
    zpSetCameraTarget(camera, 0, 0, 0.5f);
    zpSetCameraUpVector(camera, 0, 0, 1);
    zpSetCameraBokeh(camera, 0.5f);
    zpSetCameraFOV(camera, 50);

    const auto addObject = [](const char* name, int parts) {
      const int object = zpAddObject();
      zpSetObjectName(object, name);
      if (parts > 0) zpAddPart(object);
      return object;
    };
    const int table = addObject("table", 1), spike = addObject("spike", 1), pair = addObject("pair", 0),
              all = addObject("all", 0);
    const float corners[] = {-3, -3, 0, 3, -3, 0, 3, 3, 0, -3, 3, 0}, uvs[] = {0, 0, 1, 0, 1, 1, 0, 1};
    const int halves[] = {0, 1, 2, 0, 2, 3};
    zpAddPositions(table, 0, 4, corners);
    zpAddUVs(table, 0, 4, uvs);
    zpSetShaderID(table, 0, cloth);
    zpAddTriangles(table, 0, 2, halves);
    const float tips[] = {-1, -1, 0, 1, -1, 0, 0, 0, 2, 0, 1, 0};
    const int bright[] = {0, 1, 2, 1, 3, 2}, clear[] = {3, 0, 2}, lit[] = {0, 3, 1};
    zpAddPositions(spike, 0, 4, tips);
    zpSetShaderID(spike, 0, metal);
    zpAddTriangles(spike, 0, 2, bright);
    zpSetShaderID(spike, 0, glass);
    zpAddTriangles(spike, 0, 1, clear);
    zpSetShaderID(spike, 0, lamp);
    zpAddTriangles(spike, 0, 1, lit);
    const float left[4][4] = {{1, 0, 0, -1}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
    const float right[4][4] = {{0.5f, 0, 0, 1}, {0, 0.5f, 0, 0}, {0, 0, 0.5f, 0}, {0, 0, 0, 1}};
    const float turned[4][4] = {{0, -1, 0, 0}, {1, 0, 0, 0}, {0, 0, 1, 1.5f}, {0, 0, 0, 1}};
    zpSetInstance(pair, zpAddInstance(pair), spike, left, -1);
    zpSetInstance(pair, zpAddInstance(pair), spike, right, metal);
    zpSetInstance(all, zpAddInstance(all), table, nullptr, -1);
    zpSetInstance(all, zpAddInstance(all), pair, turned, -1);
  };
  return scene;
}

// A closed room that is gathered from density cells, with caustics of a mirror; on one thread it repeats.
TwofoldScene Room() {
  TwofoldScene scene;
  scene.files["model/room.obj"] =
      "v -2 -2 0\nv 2 -2 0\nv 2 2 0\nv -2 2 0\nv -2 -2 3\nv 2 -2 3\nv 2 2 3\nv -2 2 3\n"
      "usemtl wall\nf 1 2 3\nf 1 3 4\nf 5 7 6\nf 5 8 7\nf 1 5 2\nf 2 5 6\nf 3 7 4\nf 4 7 8\nf 1 4 5\n"
      "usemtl mirror\nf 2 6 3\nf 3 6 7\n";
  scene.files["shader/a.zp"] =
      "shader\nname \"wall\"\nsurface_shader\nlambertian\ncolor 0.5 0.6 0.7\nend\nend\nend\n"
      "shader\nname \"mirror\"\nsurface_shader\nspecular\ncolor 0.9 0.9 0.9\nend\n"
      "ior\ncolor 20 20 20\nend\nend\nend\n";
  scene.files["render/a.zp"] =
      "render\nfinal_gather\nsample 4\nbounce 1\ndistance 0.3\nresolution 0.05\nradius 0.2\nend\nend\n";
  scene.files["light/a.zp"] =
      "point_light\ncolor 2 2 2\nposition 0 0 2\ninner_angle 180\nouter_angle 181\nphoton 20000\nend\n"
      "sky_light\ncolor 0 0 0\nend\ngeometry_light\nphoton 0\nend\n";
  scene.files["camera/a.zp"] =
      "camera\nresolution 16 12\nsample 2\npose\nposition -1 -1.8 1.5\ntarget 1 1 1\nup_vector 0 0 1\n"
      "bokeh 0\nfield_of_view 80\nend\nend\n";
  scene.files["geometry/a.zp"] = "object\nname room\nobj \"model/room.obj\"\nend\n";
  scene.build = [] {
    const int wall = zpAddShader(), mirror = zpAddShader();
    zpSetShaderName(wall, "wall");
    zpSetSurfaceColor(wall, zpAddSurfaceShader(wall), ::Element::kLambertian, 0.5f, 0.6f, 0.7f);
    zpSetShaderName(mirror, "mirror");
    zpSetSurfaceColor(mirror, zpAddSurfaceShader(mirror), ::Element::kSpecular, 0.9f, 0.9f, 0.9f);
    zpSetSurfaceColor(mirror, 0, ::Element::kIor, 20, 20, 20);
    zpSetRendererSample(4);
    zpSetRendererBounce(1);
    zpSetRendererDistance(0.3f);
    zpSetRendererResolution(0.05f);
    zpSetRendererRadius(0.2f);
    const int point = zpAddPointLight();
    zpSetPointLightColor(point, 2, 2, 2);
    zpSetPointLightPosition(point, 0, 0, 2);
    zpSetPointLightInnerAngle(point, 180);
    zpSetPointLightOuterAngle(point, 181);
    zpSetPointLightPhoton(point, 20000);
    zpSetSkyLightColor(0, 0, 0);
    zpSetGeometryLightPhoton(0);
    const int camera = zpAddCamera();
    zpSetCameraResolution(camera, 16, 12);
    zpSetCameraSample(camera, 2);
    zpSetCameraPosition(camera, -1, -1.8f, 1.5f);
    zpSetCameraTarget(camera, 1, 1, 1);
    zpSetCameraUpVector(camera, 0, 0, 1);
    zpSetCameraBokeh(camera, 0);
    zpSetCameraFOV(camera, 80);
    const int object = zpAddObject();
    zpSetObjectName(object, "room");
    zpAddPart(object);
    const float corners[] = {-2, -2, 0, 2, -2, 0, 2, 2, 0, -2, 2, 0, -2, -2, 3, 2, 2, 3, 2, -2, 3, -2, 2, 3};
    const int walls[] = {0, 1, 2, 0, 2, 3, 4, 5, 6, 4, 7, 5, 0, 4, 1, 1, 4, 6, 2, 5, 3, 3, 5, 7, 0, 3, 4};
    const int mirrors[] = {1, 6, 2, 2, 6, 5};
    zpAddPositions(object, 0, 8, corners);
    zpSetShaderID(object, 0, wall);
    zpAddTriangles(object, 0, 9, walls);
    zpSetShaderID(object, 0, mirror);
    zpAddTriangles(object, 0, 2, mirrors);
  };
  return scene;
}

// Strands under the sky's model, seen by a camera that moves, beside a square that a vector lifts.
TwofoldScene Meadow() {
  TwofoldScene scene;
  scene.files["model/grass.fur"] =
      "segment 2\nposition -0.2 0 0\nposition -0.1 0 0.5\nposition 0.1 0 0.8\n"
      "segment 1\nposition 0.3 0.1 0\nposition 0.2 0 0.7\n";
  scene.files["model/ground.obj"] =
      "v -1 -1 0\nv 1 -1 0\nv 0 1 0\nvt 0 0\nvt 1 0\nvt 0 1\nvn 0 0 1\nusemtl soil\nf 1/1/1 2/2/1 3/3/1\n";
  scene.files["shader/a.zp"] =
      "shader\nname \"blade\"\nsurface_shader\nlambertian\ncolor 0.2 0.5 0.1\nend\n"
      "glossy\ncolor 0.3 0.3 0.3\nend\nroughness\ncolor 0.3 0.3 0.3\nend\nend\nend\n"
      "shader\nname \"soil\"\nsurface_shader\nlambertian\ncolor 0.4 0.3 0.2\nend\nend\n"
      "geometry_shader\nvector\ncolor 0 0 0.1\nlevel 2\nend\nend\nend\n";
  scene.files["render/a.zp"] =
      "render\nfinal_gather\nsample 4\nbounce 1\ndistance 0\nresolution 0\nend\nend\n";
  scene.files["light/a.zp"] =
      "sky_light\nimage \"analytic\"\ncolor 0.1 0.1 0.1\nphoton 0\nsample 4\nend\ngeometry_light\nphoton "
      "0\nend\n";
  scene.files["camera/a.zp"] =
      "camera\nresolution 16 16\nsample 4\nprojection \"spherical\"\n"
      "pose\nposition 0 -1 0.5\ntarget 0 0 0.3\nup_vector 0 0 1\nbokeh 0\nfield_of_view 60\nend\n"
      "pose\nposition 0.1 -1 0.5\ntarget 0 0 0.3\nup_vector 0 0 1\nbokeh 0\nfield_of_view 60\nend\nend\n";
  scene.files["geometry/a.zp"] =
      "object\nname grass\nfur \"model/grass.fur\"\nend\nobject\nname ground\nobj \"model/ground.obj\"\nend\n"
      "object\nname all\ninstance\nobject grass\nshader \"blade\"\nend\ninstance\nobject ground\nend\nend\n";
  scene.build = [] {
    const int blade = zpAddShader(), soil = zpAddShader();
    zpSetShaderName(blade, "blade");
    zpSetSurfaceColor(blade, zpAddSurfaceShader(blade), ::Element::kLambertian, 0.2f, 0.5f, 0.1f);
    zpSetSurfaceColor(blade, 0, ::Element::kGlossy, 0.3f, 0.3f, 0.3f);
    zpSetSurfaceColor(blade, 0, ::Element::kRoughness, 0.3f, 0.3f, 0.3f);
    zpSetShaderName(soil, "soil");
    zpSetSurfaceColor(soil, zpAddSurfaceShader(soil), ::Element::kLambertian, 0.4f, 0.3f, 0.2f);
    zpSetDisplacementVector(soil, zpAddDisplacementShader(soil), 0, 0, 0.1f);
    zpSetDisplacementLevel(soil, 0, 2);
    zpSetRendererSample(4);
    zpSetRendererBounce(1);
    zpSetRendererDistance(0);
    zpSetRendererResolution(0);
    zpSetSkyLightImage("analytic");
    zpSetSkyLightColor(0.1f, 0.1f, 0.1f);
    zpSetSkyLightPhoton(0);
    zpSetSkyLightSample(4);
    zpSetGeometryLightPhoton(0);
    const int camera = zpAddCamera();
    zpSetCameraResolution(camera, 16, 16);
    zpSetCameraSample(camera, 4);
    zpSetCameraProjection(camera, ::Projection::kSpherical);
    for (float time : {0.0f, 1.0f}) {
      zpSetCameraTime(camera, time);
      zpSetCameraPosition(camera, 0.1f * time, -1, 0.5f);
      zpSetCameraTarget(camera, 0, 0, 0.3f);
      zpSetCameraUpVector(camera, 0, 0, 1);
      zpSetCameraBokeh(camera, 0);
      zpSetCameraFOV(camera, 60);
    }
    const int grass = zpAddObject(), ground = zpAddObject(), all = zpAddObject();
    zpSetObjectName(grass, "grass");
    zpAddPart(grass);
    const float points[] = {-0.2f, 0, 0, -0.1f, 0, 0.5f, 0.1f, 0, 0.8f, 0.3f, 0.1f, 0, 0.2f, 0, 0.7f};
    const float radii[] = {0.003f, 0.003f, 0.003f, 0.003f, 0.003f};
    const float along[] = {0, 0, 0, 0.5f, 0, 1, 0, 0, 0, 1};
    const int segments[] = {0, 1, 3};
    zpAddPositions(grass, 0, 5, points);
    zpAddRadii(grass, 0, 5, radii);
    zpAddUVs(grass, 0, 5, along);
    zpAddCylinders(grass, 0, 3, segments);
    zpSetObjectName(ground, "ground");
    zpAddPart(ground);
    const float corners[] = {-1, -1, 0, 1, -1, 0, 0, 1, 0}, uvs[] = {0, 0, 1, 0, 0, 1};
    const float up[] = {0, 0, 1, 0, 0, 1, 0, 0, 1};
    const int face[] = {0, 1, 2};
    zpAddPositions(ground, 0, 3, corners);
    zpAddUVs(ground, 0, 3, uvs);
    zpAddNormals(ground, 0, 3, up);
    zpSetShaderID(ground, 0, soil);
    zpAddTriangles(ground, 0, 1, face);
    zpSetObjectName(all, "all");
    zpSetInstance(all, zpAddInstance(all), grass, nullptr, blade);
    zpSetInstance(all, zpAddInstance(all), ground, nullptr, -1);
  };
  return scene;
}

class HostScenes : public testing::Test {
 protected:
  void SetUp() override {
    SetConsoleQuiet(true);
    settings = {};
    skyLight = {};
    std::string pattern = (fs::temp_directory_path() / "zp-host-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root_ = pattern;
    before_ = fs::current_path();
    threads_ = omp_get_max_threads();
    omp_set_num_threads(1);
  }
  void TearDown() override {
    omp_set_num_threads(threads_);
    fs::current_path(before_);
    fs::remove_all(root_);
    settings = {};
    skyLight = {};
    SetConsoleQuiet(false);
  }

  // A new folder with the files of a scene, where the process then works.
  void Enter(const TwofoldScene& scene) {
    const fs::path folder = root_ / std::to_string(count_++);
    fs::create_directories(folder);
    for (const auto& [name, bytes] : scene.files) {
      fs::create_directories((folder / name).parent_path());
      std::ofstream(folder / name, std::ios::binary) << bytes;
    }
    fs::current_path(folder);
  }

  // The pictures that a run left in the current folder.
  static Pictures Written() {
    Pictures pictures;
    for (const fs::directory_entry& entry : fs::directory_iterator("."))
      if (entry.is_regular_file()) {
        std::ifstream file(entry.path(), std::ios::binary);
        pictures[entry.path().filename().string()] = {std::istreambuf_iterator<char>(file), {}};
      }
    return pictures;
  }

  // Everything from a seeded start-up to the shut-down. What no reset touches is put back first, so that runs
  // can be compared.
  Pictures Run(const TwofoldScene& scene, bool byText) {
    Enter(scene);
    settings = {};
    skyLight = {};
    Startup(7);
    if (byText)
      EXPECT_TRUE(LoadScene("./"));
    else
      scene.build();
    zpSetCameraAOVName(0, 0, "beauty.pfm");
    zpInitialize();
    zpRender();
    zpFinalize();
    zpShutdown();
    return Written();
  }

  static void ExpectNothingLeft() {
    EXPECT_TRUE(cameras.empty() && shaders.empty() && objectTable.empty() && images.empty());
    EXPECT_TRUE(pointLights.empty() && parallelLights.empty());
    EXPECT_TRUE(skyLight.aovs.empty() && skyLight.link.shaders.empty() && geometryLight.aovs.empty());
    EXPECT_TRUE(photonStore.photons.empty() && photonStore.nodes.empty());
    EXPECT_EQ(settings.rayDepth, 8);
    EXPECT_EQ(settings.photonDepth, 8);
    EXPECT_EQ(settings.rendererSample, 64);
    EXPECT_EQ(settings.photonRadius, 1);
    EXPECT_EQ(skyLight.photon, 1000000);
    EXPECT_EQ(geometryLight.photon, 1000000);
  }

 private:
  fs::path root_, before_;
  int threads_ = 1, count_ = 0;
};

TEST_F(HostScenes, FunctionsAndTextGiveTheSamePictures) {
  const TwofoldScene scenes[] = {Studio(), Room(), Meadow()};
  const std::size_t pictures[] = {6, 1, 1};
  for (int i = 0; i < 3; ++i) {
    const Pictures text = Run(scenes[i], true), functions = Run(scenes[i], false);
    EXPECT_EQ(text.size(), pictures[i]) << i;
    for (const auto& [name, bytes] : text) {
      ASSERT_TRUE(functions.contains(name)) << i << name;
      EXPECT_TRUE(functions.at(name) == bytes) << i << name;
      EXPECT_GT(std::set<char>(bytes.begin(), bytes.end()).size(), 40U) << i << name << " is blank";
    }
  }
}

// Nothing of a scene shows in those that follow it in the same process.
TEST_F(HostScenes, ScenesInARow) {
  const TwofoldScene scenes[] = {Studio(), Room(), Meadow()};
  Pictures first[3];
  for (int i = 0; i < 3; ++i) {
    first[i] = Run(scenes[i], false);
    ExpectNothingLeft();
  }
  for (int i : {1, 0, 2}) {
    EXPECT_TRUE(Run(scenes[i], false) == first[i]) << i;
    ExpectNothingLeft();
  }
}

TEST_F(HostScenes, GoesThroughFoldersInARow) {
  const TwofoldScene scenes[] = {Studio(), Room(), Meadow()};
  const std::size_t pictures[] = {6, 1, 1};
  for (int i = 0; i < 3; ++i) {
    Enter(scenes[i]);
    zpGo("./");
    ExpectNothingLeft();
    EXPECT_TRUE(haltonTables[0].empty());
    const Pictures written = Written();
    EXPECT_EQ(written.size(), pictures[i]) << i;
    EXPECT_TRUE(written.begin()->first.starts_with("beauty-")) << i;
  }
  // The first scene's, which the other two do not state, and the last one's.
  EXPECT_EQ(settings.clamp, (Vec3{40, 40, 40}));
  EXPECT_EQ(settings.error, (Vec3{1, 0, 1}));
  EXPECT_EQ(settings.distance, 0);
  EXPECT_EQ(settings.resolution, 0);
  EXPECT_EQ(settings.rendererBounce, 1);
  EXPECT_EQ(skyLight.image, "analytic");
}

TEST_F(HostScenes, CallsOutOfPlace) {
  zpFinalize();
  zpShutdown();
  zpRender();
  float pixels[12] = {};
  zpRenderPixels(4, pixels, 0);
  EXPECT_EQ(pixels[0], 0);

  testing::internal::CaptureStdout();
  SetConsoleQuiet(false);
  zpStartup();
  zpRender();
  zpInitialize();
  zpRender();
  SetConsoleQuiet(true);
  const std::string rows = testing::internal::GetCapturedStdout();
  EXPECT_NE(rows.find("error :( \tcamera - there is no camera"), std::string::npos) << rows;

  const int object = zpAddObject(), part = zpAddPart(object);
  const float number[3] = {};
  const int index[4] = {};
  for (int count : {0, -1}) {
    zpAddPositions(object, part, count, number);
    zpAddNormals(object, part, count, number);
    zpAddTangents(object, part, count, number);
    zpAddUVs(object, part, count, number);
    zpAddRadii(object, part, count, number);
    zpAddTriangles(object, part, count, index);
    zpAddTetragons(object, part, count, index);
    zpAddCylinders(object, part, count, index);
    zpAddParticles(object, part, count, index);
    zpAddVertexData(object, part, "heat", count, 1, number);
    zpRenderPixels(count, pixels, 0);
  }
  zpInitialize();
  EXPECT_TRUE(objectTable[0].parts[0].positions.empty() && objectTable[0].parts[0].triangles.empty());
  EXPECT_TRUE(sceneBounds.min.x > sceneBounds.max.x);
  zpFinalize();
  zpFinalize();
  zpShutdown();
  ExpectNothingLeft();
}

// The gather obeys at once; what light samples weigh stays as it was.
TEST_F(HostScenes, SamplesSetAfterInitialisation) {
  zpStartup();
  zpSetRendererSample(16);
  zpSetSkyLightPhoton(0);
  zpSetGeometryLightPhoton(0);
  zpSetRendererBounce(2);
  zpInitialize();
  skyLight.sample = geometryLight.sample = 4;  // without a picture or emitters none is drawn
  zpSetRendererSample(4);
  EXPECT_EQ(settings.rendererSample, 4);
  EXPECT_FLOAT_EQ(LightSampleWeight({}, 1, 1, BudgetsOf(skyLight)), 0.2f);
  EXPECT_FLOAT_EQ(LightSampleWeight({}, 1, 1, BudgetsOf(geometryLight)), 0.2f);
  zpFinalize();
  zpShutdown();
}

}  // namespace
}  // namespace zp

// Renders pass by pass into a picture of its own, and stops once it is calm enough:
//
//   progressive [FILE.pfm [WIDTH [PASSES [CHANGE]]]]
//
// Each pass is one sample of every pixel. The program keeps the mean of all passes, tells on standard error
// how far a pass still moved it, and ends when that falls below CHANGE (a share of the picture's brightness)
// or after PASSES. The exit status is 0 if a picture was written that is neither black nor broken.

#include <zp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

int AddSurface(const char* name, Element element, float r, float g, float b, float ior, float roughness) {
  const int shader = zpAddShader();
  zpSetShaderName(shader, name);  // without a name it would count as "undefined"
  const int layer = zpAddSurfaceShader(shader);
  zpSetSurfaceColor(shader, layer, element, r, g, b);
  zpSetSurfaceColor(shader, layer, Element::kIor, ior, ior, ior);
  zpSetSurfaceColor(shader, layer, Element::kRoughness, roughness, roughness, roughness);
  return shader;
}

// A spiral of balls that rises from a floor. Particles of a Part show the shader that was set last in it, so
// each material gets a Part of its own.
void BuildScene() {
  const int object = zpAddObject();

  const int floor = zpAddPart(object);
  const float corners[] = {-60, -60, 0, 60, -60, 0, 60, 60, 0, -60, 60, 0};
  const int rim[] = {0, 1, 2, 3};
  zpSetShaderID(object, floor, AddSurface("floor", Element::kLambertian, 0.55f, 0.53f, 0.5f, 1, 0));
  zpAddPositions(object, floor, 4, corners);
  zpAddTetragons(object, floor, 1, rim);

  // Gloss over a colour: the Fresnel term of the ior shares the light out between the two.
  const int glazed = AddSurface("glazed", Element::kLambertian, 0.75f, 0.13f, 0.08f, 1.5f, 0);
  zpSetSurfaceColor(glazed, 0, Element::kSpecular, 1, 1, 1);
  const int materials[] = {glazed, AddSurface("chalk", Element::kLambertian, 0.8f, 0.78f, 0.74f, 1, 0),
                           AddSurface("brass", Element::kGlossy, 0.95f, 0.74f, 0.38f, 30, 0.3f)};
  for (int m = 0; m < 3; ++m) {
    std::vector<float> centers, radii;
    std::vector<int> indices;
    for (int i = m; i < 90; i += 3) {
      const float share = static_cast<float>(i) / 90, angle = 0.29f * static_cast<float>(i);
      const float radius = 0.34f - 0.22f * share, reach = 2.4f - 1.7f * share;
      centers.insert(centers.end(), {reach * std::cos(angle), reach * std::sin(angle),
                                     radius + (2.8f - 0.9f * share) * share});
      radii.push_back(radius);
      indices.push_back(static_cast<int>(indices.size()));
    }
    const int part = zpAddPart(object);
    const int count = static_cast<int>(indices.size());
    zpSetShaderID(object, part, materials[m]);
    zpAddPositions(object, part, count, centers.data());
    zpAddRadii(object, part, count, radii.data());
    zpAddParticles(object, part, count, indices.data());
  }

  zpSetSkyLightColor(0.5f, 0.6f, 0.75f);  // a plain sky
  const int sun = zpAddParallelLight();
  zpSetParallelLightColor(sun, 1.1f, 0.95f, 0.75f);
  zpSetParallelLightDirection(sun, -1, 1.2f, -1.3f);
  zpSetParallelLightBlur(sun, 2);
  zpSetRendererClamp(8, 8, 8);  // of a sample: rare bright ones would stay as specks
}

// Three lines of text, then 32-bit floats, the bottom row first. The -1 says that they are little-endian.
bool WritePfm(const std::string& path, int width, int height, const std::vector<double>& pixels) {
  std::ofstream file(path, std::ios::binary);
  file << "PF\n" << width << ' ' << height << "\n-1.0\n";
  const std::size_t rowSize = 3 * static_cast<std::size_t>(width);
  std::vector<float> row(rowSize);
  for (int y = height - 1; y >= 0; --y) {
    std::copy_n(pixels.begin() + static_cast<std::ptrdiff_t>(rowSize) * y, rowSize, row.begin());
    file.write(reinterpret_cast<const char*>(row.data()), static_cast<std::streamsize>(4 * rowSize));
  }
  file.flush();
  return file.good();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string path = argc > 1 ? argv[1] : "progressive.pfm";
  const int width = argc > 2 ? std::atoi(argv[2]) : 640;
  const int passes = argc > 3 ? std::atoi(argv[3]) : 256;
  const double threshold = argc > 4 ? std::atof(argv[4]) : 0.002;
  if (width < 1 || passes < 1) {
    std::fprintf(stderr, "usage: progressive [FILE.pfm [WIDTH [PASSES [CHANGE]]]]\n");
    return 2;
  }
  const int height = std::max(width * 9 / 16, 1);

  // The rules of format 2: path tracing is the default, and samples count in each pass, so that passes may be
  // as many or few as it takes. The user's environment goes before.
  setenv("ZP_FORMAT", "2", 0);
  zpStartup();
  BuildScene();
  const int camera = zpAddCamera();
  zpSetCameraResolution(camera, width, height);
  // The number of passes must be known beforehand, though fewer may be rendered.
  zpSetCameraSample(camera, passes);
  zpSetCameraPosition(camera, 2.5f, -9.0f, 3.2f);
  zpSetCameraTarget(camera, 0, 0, 1.05f);
  zpSetCameraUpVector(camera, 0, 0, 1);
  zpSetCameraFOV(camera, 36);
  // zpRenderPixels leaves the beauty image alone. Without a name zpFinalize does not write it.
  zpSetCameraAOVName(camera, 0, "");
  zpInitialize();

  const std::size_t pixelCount = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  std::vector<float> sample(3 * pixelCount);      // of one pass, rows from the top
  std::vector<double> mean(3 * pixelCount, 0.0);  // of all passes so far
  double change = 0, level = 0;
  int done = 0;
  while (done < passes) {
    // One call is one pass, on all threads. The count is that of pixels, not of floats.
    zpRenderPixels(static_cast<int>(pixelCount), sample.data(), done);
    ++done;
    // The mean moves by (sample - mean) / n. Its size over the picture, relative to the brightness, tells
    // what one more pass is worth.
    double moved = 0, sum = 0;
    for (std::size_t i = 0; i < mean.size(); ++i) {
      const double step = (static_cast<double>(sample[i]) - mean[i]) / done;
      mean[i] += step;
      moved += step * step;
      sum += mean[i];
    }
    const auto count = static_cast<double>(mean.size());
    level = sum / count;
    change = level > 0 ? std::sqrt(moved / count) / level : 0;
    std::fprintf(stderr, "\rpass %d of %d, change %.5f ", done, passes, change);
    if (done > 1 && change < threshold) break;
  }
  std::fprintf(stderr, "\n");

  zpFinalize();
  zpShutdown();

  if (!std::isfinite(level) || !(level > 0)) {
    std::fprintf(stderr, "progressive: the picture is black or broken\n");
    return 1;
  }
  if (!WritePfm(path, width, height, mean)) {
    std::fprintf(stderr, "progressive: %s cannot be written\n", path.c_str());
    return 1;
  }
  return 0;
}

// zp.h: the interface of the dynamic library, and its reference.

#pragma once

#include <cstdint>

/// @file zp.h
/// The functions of the library: one global scene, built by indices and rendered to image files or memory.
///
/// An Add function appends a record and returns its index; that index is the handle for all its setters. A
/// record's index stays the same until the table is emptied by the family's finalizer.
///
/// @code
/// #include <zp.h>
///
/// int main() {
///   zpStartup();                                             // tables, defaults, the Shader "undefined"
///
///   const int grey = zpAddShader();                          // 1: "undefined" has index 0
///   zpSetShaderName(grey, "grey");                           // without a name it would count as none
///   const int layer = zpAddSurfaceShader(grey);
///   zpSetSurfaceColor(grey, layer, Element::kLambertian, 0.5f, 0.5f, 0.5f);
///
///   const float corners[4][3] = {{-1, -1, 0}, {1, -1, 0}, {1, 1, 0}, {-1, 1, 0}};
///   const int square[4] = {0, 1, 2, 3};
///   const int object = zpAddObject();
///   const int part = zpAddPart(object);
///   zpSetShaderID(object, part, grey);                       // of the primitives that are added next
///   zpAddPositions(object, part, 4, corners[0]);
///   zpAddTetragons(object, part, 1, square);
///
///   const int sun = zpAddParallelLight();
///   zpSetParallelLightDirection(sun, 1, 2, -3);
///
///   const int camera = zpAddCamera();
///   zpSetCameraPosition(camera, 0, -4, 3);
///   zpSetCameraTarget(camera, 0, 0, 0);
///   zpSetCameraUpVector(camera, 0, 0, 1);
///   zpSetCameraFOV(camera, 40);
///   zpSetCameraAOVName(camera, 0, "square.hdr");             // AOV 0 is the beauty image
///
///   zpSetRendererDistance(0);                                // path tracing: no cells, fewer photons
///   zpInitialize();
///   zpRender();                                              // writes square.hdr
///   zpFinalize();
///   zpShutdown();
/// }
/// @endcode
///
/// **Conventions.** Strings end with a NUL byte and are copied; a null string counts as an empty one. Arrays
/// are copied, too. Colours are linear red, green, blue; lengths are in scene units, angles in degrees. A
/// matrix is an array of rows; points are columns on its right. The first row of a picture is its top row;
/// textures have uv (0, 0) at the lower left corner.
///
/// **Failure.** No function reports one. An index that names no record, a null array and a count below 1
/// change nothing; an Add function then returns -1. Other values are not checked when they are set: numbers
/// are limited at initialisation where this page says so, and otherwise the picture shows what they lead to.
/// What is wrong with a scene is told by rows on standard output that begin with "error :(" or "warning :(",
/// and the library goes on. No exception leaves a function: running out of memory ends the process.
///
/// **Traps**
///
/// - A Shader without a name is called "undefined", and primitives of a Shader with that name show the last
///   shader that zpSetShaderID() gave their Part. Name every Shader, each differently.
/// - A Shader without layers becomes a copy of "undefined", a grey of 0.85, whatever it was told of geometry;
///   the copy has that name, too.
/// - The default point light is a spot: its light fades linearly from +y to nothing on the opposite side.
///   zpSetPointLightInnerAngle() of 180 and zpSetPointLightOuterAngle() of 181 light all sides alike.
/// - The sky shines with 0.75 unless zpSetSkyLightColor() says otherwise.
/// - In format 1 final gathering is on by default, and so are a million photons of the sky and, with emissive
///   surfaces, a million of the geometry light: each zpInitializeRenderer() casts them.
///   zpSetRendererDistance(0) or zpSetRendererResolution(0) switches it off; then the sky casts none, and the
///   geometry light only where there are virtual lights. zpSetSkyLightPhoton(0) and
///   zpSetGeometryLightPhoton(0) end both. In format 2 all of this is off until it is asked for.
/// - Memory for the cells of final gathering above 1 GB a Part and primitive kind ends the process with
///   status 1: large scenes need a larger zpSetRendererResolution() or none.
/// - The last pass of zpRender() writes all images and drops the lights, so a second zpRender() sees the
///   default sky and emissive surfaces alone.
/// - zpFinalize() writes the camera's images whatever is in them: after zpRenderPixels() alone a black
///   beauty image. zpSetCameraAOVName() with an empty name for AOV 0 keeps it from being written.
/// - An image that cannot be written gets an error row and nothing else.
/// - The names of this header are global: it declares no namespace.
///
/// **Several scenes in one process.** zpStartup() again, after zpFinalize() and zpShutdown(). What no reset
/// touches carries over: clamp, error colour, in format 1 distance and resolution, bounce, display gamma, the
/// preview window, the sky's image and backdrop (and the turbidity, albedo and stretch of scene text), and
/// the folders in which zpGo() made pictures be sought. The radius of caustics, ray depth, photon depth and
/// renderer samples are put back by zpFinalizeRenderer(), the rest of the sky and the geometry light by
/// zpStartup().
///
/// **Threads.** Call everything from one thread, and nothing while a call runs. The library uses OpenMP, at
/// most 256 threads; `OMP_NUM_THREADS` sets their number. Radiance is recursive, about 1.2 kilobytes of stack
/// a level: for a ray or photon depth beyond some dozens see to a stack of 1 MB or more in the calling thread
/// and (`OMP_STACKSIZE`) in the others. Pictures differ from run to run: their random numbers are the
/// hardware's.

/// @defgroup types Types
/// All are passed as 32-bit integers. Values that are not listed are stored as they are.
/// @{

/// What an image records; bits. A camera's AOV records one of them, a light's those of its bits that say so.
enum Channel : std::uint32_t {
  kZpBeauty = 1,              ///< The default. Only a camera's first AOV receives the beauty image.
  kZpLightPath = 2,           ///< Camera: where photons land, seen by the first camera in perspective.
  kZpLambertian = 4,          ///< Radiance of diffuse reflection. Also for lights.
  kZpLambertianColor = 8,     ///< Camera: colour of that layer at the first hit.
  kZpTransmissive = 16,       ///< Radiance of diffuse transmission. Also for lights.
  kZpTransmissiveColor = 32,  ///< Camera: its colour.
  kZpGlossy = 64,             ///< Radiance of the glossy lobe. Also for lights.
  kZpGlossyColor = 128,       ///< Camera: its colour.
  kZpSpecular = 256,          ///< Radiance of mirror and glass. Of lights, the geometry light's alone.
  kZpSpecularColor = 512,     ///< Camera: its colour.
  kZpEmissive = 1024,         ///< Camera: radiance emitted at the first hit.
  kZpNormal = 2048,           ///< Camera: shading normal, (1 + n) / 2 in each component, world space.
  kZpTangent = 4096,          ///< Camera: shading tangent, likewise.
  kZpPosition = 8192,         ///< Camera: position of the first hit, world space.
  kZpDepth = 16384,           ///< Camera: distance to the first hit, scene units, in all three components.
  kZpUserData = 32768,        ///< Camera: vertex data, see zpSetCameraAOVUserData().
  kZpSamples = 65536,         ///< Camera: how many samples each pixel has, in all three components.
};

/// Intended: a type without enumerators. Angles are in degrees whatever it says.
enum class AngleMeasure : std::int32_t {};

/// How a camera maps the world to its picture. Any other value: its rays go nowhere.
enum class Projection : std::int32_t {
  kPerspective = 0,  ///< A plane, with or without a lens.
  kSpherical = 1,    ///< The whole sphere, forward in the middle, up along the top row; no lens.
};

/// Parameters of a surface layer. Each is a colour, times an image if it has one; those that are one number
/// take the mean of the three. The two unnamed ones have no keyword in scene text. Any other value: nothing
/// is set.
enum class Element : std::int32_t {
  kLambertian = 0,          ///< Colour of diffuse reflection; default black.
  kTransmissive = 1,        ///< Colour of diffuse transmission; default black.
  kGlossy = 2,              ///< Colour of the blurred mirror, scaled by the Fresnel term; default black.
  kSpecular = 3,            ///< Colour of the sharp mirror and of glass, scaled likewise; default black.
  kEmissive = 4,            ///< Emitted radiance; default black.
  kDiffusion = 5,           ///< Variance of the way that light takes below the surface, scene units squared;
                            ///< default black: none.
  kShadowTransparency = 6,  ///< Share of a shadow ray that passes, 0 to 1; default black. Layers multiply.
  kNormal = 7,      ///< With an image: the normal's parts along tangent, bitangent and normal, as they
                    ///< are read, without a mapping from 0..1 to -1..1; default white.
  kWeight = 8,      ///< Probability of this layer among those of its side, relative to theirs, at
                    ///< least 0; default black. Without any weight the first layer shows.
  kAnisotropy = 9,  ///< Stretch of the glossy lobe along the tangent, 0 to 1; default black.
  kRoughness = 10,  ///< Width of the glossy lobe, 0 to 1; default black.
  kAngle = 11,      ///< Turns the tangent frame, 1 is a full turn; with anisotropy or a normal image.
  kIor = 12,        ///< Index of refraction; default white: 1, where a conductor mirrors nothing.
  kUnnamed13 = 13,  ///< Kept, without effect; default white.
  kThickness = 14,  ///< Kept, without effect; default black.
  kUnnamed15 = 15,  ///< Kept, without effect; default black.
};

/// What becomes of light that a layer does not reflect. What any other value shows is not defined.
enum class Material : std::int32_t {
  kConductor = 0,      ///< The default: it ends there, or in the diffuse elements.
  kDielectric = 1,     ///< Glass: it is refracted.
  kThinDielectric = 2  ///< A pane: it passes unbent, shadow rays included.
};

/// The side of a surface that shows a layer. Any other value counts as both.
enum class Sideness : std::int32_t {
  kFace = 0,  ///< The side that the normal looks out of: counter-clockwise vertices.
  kBack = 1,  ///< The other one.
  kBoth = 2   ///< The default.
};

/// Which rays see a Shader's surfaces. Bit 0 stands for the camera's own rays, bit 1 for rays of lights; the
/// value 0 hides them from all, and any value outside of 0..3 counts as kAll.
enum class Visibility : std::int32_t {
  kInvisible = 0,         ///< No ray at all.
  kNotLightPrimary = 1,   ///< All but photons that come straight from their light.
  kNotCameraPrimary = 2,  ///< All but rays that come straight from the camera.
  kAll = 3                ///< The default.
};
/// @}

// All functions below are the exported symbols; nothing else of the library is.
#pragma GCC visibility push(default)

/// @defgroup lifecycle Life cycle
/// The order: zpStartup(), the scene, zpInitialize(), zpRender() or zpRenderPixels(), zpFinalize(),
/// zpShutdown(). Nothing checks it. In place of zpInitialize() a host may call the finer functions:
/// zpInitializeCameras(), zpInitializeShaders(), then zpInitializeGaffer(), zpInitializeSkyLight() and
/// zpInitializeAccelerator() in any order, and zpInitializeRenderer(). Each prints its rows. None is meant to
/// be called twice for one scene.
///
/// A SIGINT, SIGTERM or SIGHUP for which the host has a handler also ends zpGo(), the functions that
/// initialise, zpRender() and zpRenderPixels() within a second. Images are then written with what was
/// rendered, or not at all if nothing was. After a stopped initialisation only zpFinalize() makes sense.
/// @{

/// First of all calls; zpGo() includes it. Prints the banner, fills the constant tables, draws new random
/// numbers, adds the working directory to the folders of pictures, resets geometry light, sky light and
/// renderer settings (the scene's setters come after it), and registers the Shader "undefined", a grey of
/// 0.85, unless one of that name is there: in an empty table it gets index 0. Tables of a scene that was not
/// finalised stay. The environment variable `ZP_FORMAT` chooses the rules, 1 (the default) or 2:
/// docs/format-2.md tells the differences. Another word gives an error row, and format 1.
void zpStartup() noexcept;
/// Last of all calls. Ends the picture library and empties the constant tables; a new zpStartup() fills them
/// again. Scene tables stay: zpFinalize() comes before.
void zpShutdown() noexcept;
/// Renders one scene folder from start-up to shut-down, with all output in files; a host calls nothing else
/// around it. `folder` is the path of a scene folder, of which `shader`, `render`, `light`, `camera` and
/// `geometry` are read. A folder that is not there gives an error row, and the run goes on with an empty
/// scene. Paths of models that are not there from the working directory are tried from the scene folder.
/// Settings that zpStartup() resets cannot be set before; those that carry over and
/// zpSetPreviewWindow() can. Tables are not emptied at the start: what a host has added before is rendered
/// along, its first camera first.
void zpGo(const char* folder) noexcept;
/// Readies the whole scene, after all additions: cameras, textures and Shaders, accelerator, sky light,
/// geometry light, point and parallel lights, renderer. Casts photons.
void zpInitialize() noexcept;
/// Writes all images once more and empties all tables: renderer, point and parallel lights, geometry light,
/// sky light, Objects, cameras, Shaders, textures, in this order. Serves a scene that was not initialised,
/// too. Images of lights that a finished frame has written are gone by then and not written again.
void zpFinalize() noexcept;
/// Limits numbers of all cameras, completes their poses, and allocates their images, black. Comes before all
/// lights, whose images take the first camera's size. Where memory does not suffice: an error row, and that
/// camera renders nothing. Setters of sample, resolution and poses come before it.
void zpInitializeCameras() noexcept;
/// Writes every image of every camera that has a name, and empties the table.
void zpFinalizeCameras() noexcept;
/// Loads the textures of all Shaders and derives what rendering needs of their layers. A picture that is not
/// found gives an error row; its colour shows alone. A Shader is readied once: layers, elements and images
/// that are set afterwards take effect in part or not at all.
void zpInitializeShaders() noexcept;
/// Empties the table of Shaders, "undefined" included: zpStartup() makes it anew. Textures stay until
/// zpFinalize().
void zpFinalizeShaders() noexcept;
/// Readies point and parallel lights. zpInitializeRenderer() aims their photons.
void zpInitializeGaffer() noexcept;
/// Writes the images of point and parallel lights that have a name, and empties both tables. The end of a
/// frame does so, too.
void zpFinalizeGaffer() noexcept;
/// Loads the pictures of the sky, prepares its sampling and its images. A black sky loses its samples and
/// photons, a sky without a picture its samples.
void zpInitializeSkyLight() noexcept;
/// Writes the images of the sky that have a name, and resets the sky but for the names of its pictures and
/// the numbers of its model. The end of a frame does so, too.
void zpFinalizeSkyLight() noexcept;
/// Intended: the same as zpInitializeSkyLight(). The geometry light itself is readied by zpInitialize(), or
/// by zpInitializeRenderer() where that was not called.
void zpInitializeGeometryLight() noexcept;
/// Intended: the same as zpFinalizeSkyLight(). The geometry light itself is finalised by zpFinalize() and by
/// the end of a frame.
void zpFinalizeGeometryLight() noexcept;
/// Finds the root Object, drops primitives that cannot be hit (with rows), smooths, displaces, builds all
/// trees and, with zpSetRendererResolution() above 0, the cells of final gathering. Shaders come first.
void zpInitializeAccelerator() noexcept;
/// Empties the table of Objects.
void zpFinalizeAccelerator() noexcept;
/// Limits the renderer settings, chooses between final gathering and path tracing (a row tells which), aims
/// the photons of all lights at the scene's bounds, and casts them. Comes last. A second call casts all
/// photons again on top of what the cells hold.
void zpInitializeRenderer() noexcept;
/// Drops the stored photons and puts back the radius of caustics (1), ray depth (8), photon depth (8) and
/// renderer samples (64, in format 2 1), in format 2 distance and resolution as well. All other settings stay.
void zpFinalizeRenderer() noexcept;
/// @}

/// @defgroup rendering Rendering and its settings
/// There is one set of renderer settings. Set them after zpStartup(), which puts some of them back, and
/// before zpInitialize(), which limits them.
/// @{

/// Renders all passes of the first camera. Intended: always camera 0, however many there are. Each pass folds
/// one sample a pixel into the beauty image as a running mean, adds to the other images, moves what has
/// motion, and prints a performance row. The last pass prints mean and variance, then writes the images of
/// all cameras, of the sky, the geometry light and the other lights, and resets or drops these lights.
/// Without a camera: an error row. Starts again at pass 0 when called again; images but the beauty are not
/// cleared then.
void zpRender() noexcept;
/// Renders one pass of the first camera into memory. No running mean is touched: the beauty image stays as it
/// was, and the mean is the caller's to take. The other images of the camera and the lights get their share
/// of that pass, so call each pass number once; zpFinalize() writes them. Nothing is written, printed or
/// dropped here, and in format 1 nothing moves. After zpInitialize(); not after a finished zpRender(),
/// which has dropped the lights. Without a camera: an error row.
/// @param count  pixels to copy; below 1 nothing is rendered; what exceeds the region's pixels is left as it
/// was
/// @param out    room for `count` x 3 floats: RGB triples of the camera's region, row after row from the top,
///               pixel (x, y) at row (y - yMin) * (xMax - xMin) + (x - xMin)
/// @param pass   the sample number, taken modulo the camera's passes. Light samples and indirect rays are
///               shared out over the passes, so that only all of them together are without bias; in format
///               2 each pass is, and all together have the least noise
void zpRenderPixels(int count, float* out, int pass) noexcept;
/// Whether zpRender() and zpGo() show a window that follows the passes; default false, carries over. While it
/// is open the calls do not return: closing the window writes the beauty image and ends the process. Where no
/// window can be opened, or its module is not installed: an error row, and the frame renders without.
void zpSetPreviewWindow(bool show) noexcept;
/// Intended: kept (default 2.2, carries over), without effect on any output. Pictures are linear.
void zpSetDisplayGamma(float gamma) noexcept;
/// Upper limit of one sample in each channel, radiance; default 3.4e38: none; carries over. Takes noise of
/// small bright spots at the cost of their light. Negative ones and what is no number become 0 at
/// zpInitializeRenderer(): that channel is black.
void zpSetRendererClamp(float r, float g, float b) noexcept;
/// Colour of a sample that is no finite number in some channel; default 0, 0, 0; carries over. Not clamped.
void zpSetRendererError(float r, float g, float b) noexcept;
/// A ray with this many bounces behind it returns black: 1 shows emission and light samples alone. Default 8;
/// limited to 1..255 at zpInitializeRenderer(). Depths of some dozens need stack.
void zpSetRendererRayDepth(int depth) noexcept;
/// A photon with more bounces than this ends. Default 8; limited to 1..255 at zpInitializeRenderer(). Needs
/// stack as ray depth does.
void zpSetRendererPhotonDepth(int depth) noexcept;
/// Indirect rays of a first hit, over all passes, for a white surface; darker ones get fewer, and each pass
/// at least one; in format 2 in each pass. Default 64, in format 2 1; negative ones become 0 at
/// zpInitializeRenderer(). What is set after that acts at once on the count of rays, not on their weight
/// against light samples, and is not limited.
void zpSetRendererSample(int sample) noexcept;
/// Diffuse and glossy bounces before a path ends or, in final gathering, the cells answer; there it is the
/// diffuse ones in format 2, and paths without cells go on. Default 1; carries over; at least 1 from
/// zpInitializeRenderer() on. Mirrors and glass do not count.
void zpSetRendererBounce(int bounce) noexcept;
/// Final gathering: with zpSetRendererBounce() of 2 or more, indirect hits nearer than this are gathered once
/// more, farther ones answer from the cells. Scene units; default 1, which carries over, in format 2 0. 0 or
/// less, and what is no number, switch final gathering off.
void zpSetRendererDistance(float distance) noexcept;
/// Final gathering: target area of a cell on the surfaces of the root Object, scene units squared; default 1,
/// which carries over, in format 2 0. A triangle or tetragon has at most 255 x 255 cells of 24 bytes each;
/// too many end the process. 0 or less, and what is no number, switch final gathering off. Before
/// zpInitializeAccelerator().
void zpSetRendererResolution(float resolution) noexcept;
/// How far around a point caustic photons are gathered, scene units; the nearest 32 count. Default 1, in
/// format 2 0.005 of the diagonal of the scene's bounds; below 1e-8 no caustics show. Before
/// zpInitializeRenderer(), in both modes.
void zpSetRendererRadius(float radius) noexcept;
/// @}

/// @defgroup geometry Geometry
/// An Object holds Parts (vertices with primitives) and Instances of other Objects. The Object that no
/// Instance places is the root, and what it holds is the scene; several are joined under the last of them,
/// with a warning row. Counts are elements, not numbers; data is appended to what is there. All of it comes
/// before zpInitializeAccelerator(), which drops primitives with a vertex that is not there or not finite.
/// @{

/// Appends an empty Object and returns its index.
int zpAddObject() noexcept;
/// Names the Object; default empty. The name stands in rows. See zpSetInstance() for Objects without one.
void zpSetObjectName(int object, const char* name) noexcept;
/// Appends an empty Part to the Object and returns its index in it; at most 65535 of an Object are kept. Give
/// each Part one kind of primitive; mixtures are rendered with an error row.
int zpAddPart(int object) noexcept;
/// The shader of the triangles and tetragons that are added next. Cylinders and particles have no shader of
/// their own: all of a Part show the last one that was set. Default 0, the Shader "undefined" of an empty
/// table. What names no Shader counts as the Part's last one, and that as 0.
void zpSetShaderID(int object, int part, int shader) noexcept;
/// Appends vertices.
/// @param data  `count` x 3: x, y, z in the Object's space, scene units
void zpAddPositions(int object, int part, int count, const float* data) noexcept;
/// Appends vertex normals: none, or one a vertex (else they are cut or filled up with zeros, with an error
/// row). Kept in three signed bytes. They show where the shader's smoothing angle is negative, the default;
/// without any, faces are flat.
/// @param data  `count` x 3, of any length; zero means none
void zpAddNormals(int object, int part, int count, const float* data) noexcept;
/// Appends vertex tangents, by the rules of normals; for anisotropy and normal images. Those of cylinders are
/// replaced by their direction.
/// @param data  `count` x 3
void zpAddTangents(int object, int part, int count, const float* data) noexcept;
/// Appends texture coordinates: none, or one pair a vertex. Without any all textures are read at (0, 0).
/// @param data  `count` x 2: u, v
void zpAddUVs(int object, int part, int count, const float* data) noexcept;
/// Appends radii of cylinders and particles: one a vertex, scene units. Without them both are of radius 0,
/// which nothing hits. This is the Part's vertex data "radius".
/// @param data  `count` x 1
void zpAddRadii(int object, int part, int count, const float* data) noexcept;
/// Appends triangles.
/// @param data  `count` x 3 vertex indices of the Part, from 0, counter-clockwise from the face side
void zpAddTriangles(int object, int part, int count, const int* data) noexcept;
/// Appends planar rectangles. Other quadrangles are not checked and are hit where they are not.
/// @param data  `count` x 4 vertex indices of the Part, around the rim, counter-clockwise from the face side
void zpAddTetragons(int object, int part, int count, const int* data) noexcept;
/// Appends segments of strands, smooth curves with the vertices' radii. A segment runs from its vertex to the
/// next one; a strand is a run of ascending vertices and owns one more vertex than it has segments. Surfaces
/// on them scatter as hair does. Each vertex gets the vertex data "parameter", 0 at the root of its strand,
/// below 1 at its tip.
/// @param data  `count` x 1: the first vertex of each segment
void zpAddCylinders(int object, int part, int count, const int* data) noexcept;
/// Appends spheres.
/// @param data  `count` x 1: the vertex of the centre
void zpAddParticles(int object, int part, int count, const int* data) noexcept;
/// Adds a named set of values to the Part, one a vertex or none at all (`count` below 1); other counts are
/// cut or filled up with zeros, with an error row. AOVs show it. Of kind 3 and named "motion" it is the way
/// that vertices move while zpRender() runs, scene units over all passes; in format 2 they carry their
/// normals and the tangents of strands along. A second set of one name is not found.
/// @param object  index of the Object
/// @param part    index of the Part in it
/// @param name    what AOVs call it
/// @param count   values, not numbers
/// @param kind    1 one float, 2 two (the Part's first set of these holds the texture coordinates, and others
///                are for pictures of format 2 that ask for their name by "uv_set"), any other value three
/// @param data    `count` x 1, 2 or 3 floats
void zpAddVertexData(int object, int part, const char* name, int count, int kind, const float* data) noexcept;
/// Appends an Instance to `object` and returns its index in it. It places nothing before zpSetInstance(), but
/// see there for Objects without a name.
int zpAddInstance(int object) noexcept;
/// Places Object `target` in `object`, as often as there are Instances of it. At most 16 levels; what places
/// itself is cut off, both with an error row.
/// @param object    index of the Object that holds the Instance
/// @param instance  index of the Instance in it
/// @param target    index of the Object to place. What names none finds the first Object without a name
/// @param matrix    4 x 4, target to `object`; the translation is the last column. Null keeps the stored one,
///                  which starts as the identity. In format 1 rotations and translations only: distances inside are
///                  not converted, so that scaled Instances show wrong. Without an inverse: an error row,
///                  and nothing shows
/// @param shader    replaces all shaders of the target and of what it places; -1 keeps them. What names no
///                  Shader shows black. Visibility and light samples stay those of the target's own
void zpSetInstance(int object, int instance, int target, const float matrix[][4], int shader) noexcept;
/// @}

/// @defgroup shaders Shaders
/// A Shader has layers, one of which a ray meets at a point, drawn by their weights; and it says what becomes
/// of shapes. All of it comes before zpInitializeShaders().
/// @{

/// Appends a Shader and returns its index; 1 after zpStartup() in an empty table. It has no layers and the
/// name "undefined": give it both.
int zpAddShader() noexcept;
/// Names the Shader; default "undefined", which counts as no shader. Names are compared in full; of equal
/// ones links take the first, AOVs the last.
void zpSetShaderName(int shader, const char* name) noexcept;
/// Which rays see the surfaces of this Shader; default Visibility::kAll. Shadow rays see all but invisible
/// ones.
void zpSetShaderVisibility(int shader, Visibility visibility) noexcept;
/// Faces that meet at less than this angle are smoothed into each other; 0 makes all flat. Default -1: keeps
/// the normals that were supplied.
void zpSetShaderSmoothAngle(int shader, float degrees) noexcept;
/// Intended: kept (default 1, limited to 0..1), without effect.
void zpSetShaderRoundCorner(int shader, float radius) noexcept;
/// Intended: does nothing at all.
void zpSetShaderTime(int shader, float time) noexcept;
/// Appends a layer and returns its index in the Shader. At most 16 show on a side, with an error row for
/// more. A single layer of one side leaves the other black.
int zpAddSurfaceShader(int shader) noexcept;
/// The element's colour, times its image if there is one: an image on a black element stays black. Defaults
/// stand with Element; values are not limited, but surfaces that return more than they receive grow bright.
void zpSetSurfaceColor(int shader, int layer, Element element, float r, float g, float b) noexcept;
/// The element's image. Every file is loaded once, by zpInitializeShaders().
/// @param shader   index of the Shader
/// @param layer    index of the layer in it
/// @param element  what the image is for; its colour multiplies it
/// @param path     picture file, relative to the working directory; default none. A picture of 16 bits a
///                 component reads up to 257 in format 1
/// @param gamma    exponent of each component, default 1; 2.2 makes common 8-bit pictures linear
/// @param color    4 x 4, or null: column i makes component i of red, green, blue and 1, and the fourth
/// divides.
///                 Intended: format 1 keeps it, but applies only matrices of scene text
/// @param uv       3 x 3, or null: applied to (u, v, 1), row by row. Intended: likewise
void zpSetSurfaceImage(int shader, int layer, Element element, const char* path, float gamma,
                       const float color[][4], const float uv[][3]) noexcept;
/// What becomes of light that the layer does not reflect; default Material::kConductor.
void zpSetSurfaceMaterial(int shader, int layer, Material material) noexcept;
/// The side that shows the layer; default Sideness::kBoth.
void zpSetSurfaceSideness(int shader, int layer, Sideness sideness) noexcept;
/// Whether emission of the layer is sampled directly, with zpSetGeometryLightSample() rays; default false.
/// Triangles and tetragons only.
/// The quickest way to render lamps of any size, in format 2.
/// Intended: in format 1 samples are of the right brightness for lamps of pi / 18481 square units (1.3 x 1.3
/// cm in metres) together, and at one square unit some 50 times too dark: leave emitters unsampled, or take a
/// point light with zpSetPointLightBlur() for a small lamp.
void zpSetSurfaceVirtualLight(int shader, int layer, bool on) noexcept;
/// Appends a displacement layer and returns its index in the Shader. Layers act one after another, on
/// triangles and tetragons that have normals and tangents (from texture coordinates and a smoothing angle, or
/// supplied); else a warning row, or the face stays.
int zpAddDisplacementShader(int shader) noexcept;
/// The layer's image: each component minus 0.5 counts, times the displacement vector. Without one the vector
/// counts alone. Arguments as those of zpSetSurfaceImage(); in format 1 both matrices are kept and not
/// applied.
void zpSetDisplacementImage(int shader, int layer, const char* path, float gamma, const float color[][4],
                            const float uv[][3]) noexcept;
/// Splits each triangle into `level` x `level`; default 1, below 1 counts as 1. Levels that memory cannot
/// hold leave the layer out, with an error row.
void zpSetDisplacementLevel(int shader, int layer, int level) noexcept;
/// How far vertices move along tangent (x), against normal x tangent (y) and along the normal (z), scene
/// units; default 0, 0, 0.
void zpSetDisplacementVector(int shader, int layer, float x, float y, float z) noexcept;
/// @}

/// @defgroup cameras Cameras and AOVs
/// The first camera is the one that renders. Position, target, up vector, bokeh and field of view go to the
/// pose that zpSetCameraTime() chose; a pose that nobody wrote is a copy of the other. Position, target, up
/// vector and field of view must be set. All rays of a pass see one instant of the shutter. Before
/// zpInitializeCameras().
/// @{

/// Appends a camera with a beauty image and returns its index.
int zpAddCamera() noexcept;
/// Kept, without effect; default empty.
void zpSetCameraName(int camera, const char* name) noexcept;
/// Where the camera stands; default 0, 0, 0.
void zpSetCameraPosition(int camera, float x, float y, float z) noexcept;
/// Where it looks, and what is in focus; default 0, 0, 0, which a camera at the origin cannot look at.
void zpSetCameraTarget(int camera, float x, float y, float z) noexcept;
/// What is up in the picture, of any length, not along the view; must be set, for the default is 0, 0, 0.
void zpSetCameraUpVector(int camera, float x, float y, float z) noexcept;
/// Half angle of the cone of rays that meet at the target, degrees; default 0: a pinhole, as below 0.
void zpSetCameraBokeh(int camera, float degrees) noexcept;
/// Full horizontal angle of the picture, degrees, above 0 and below 180; must be set, for the default is 0.
void zpSetCameraFOV(int camera, float degrees) noexcept;
/// Intended: kept, without effect.
void zpSetCameraAngleMeasure(int camera, AngleMeasure measure) noexcept;
/// Intended: kept (default 1, 1, 1), without effect on any output.
void zpSetCameraExposure(int camera, float r, float g, float b) noexcept;
/// Passes: samples of each pixel. Default 17; limited to 1..65535 at zpInitializeCameras(). Not to be changed
/// between then and the end of the frame.
void zpSetCameraSample(int camera, int sample) noexcept;
/// The pose that setters write from now on: shutter close from 0.5 up, else shutter open, the default. What
/// only one of the two is told holds for both. Intended: poses in between cannot be set.
void zpSetCameraTime(int camera, float time) noexcept;
/// How the picture is made; default Projection::kPerspective.
void zpSetCameraProjection(int camera, Projection projection) noexcept;
/// Width and height in pixels; default 960 x 540. Below 1 in either: nothing is rendered or written.
void zpSetCameraResolution(int camera, int width, int height) noexcept;
/// Columns xMin..xMax - 1 and rows yMin..yMax - 1 are rendered, from 0 at the upper left; default all. Cut to
/// the picture; an empty region renders nothing. Images keep their full size, black outside.
void zpSetCameraRegion(int camera, int xMin, int yMin, int xMax, int yMax) noexcept;
/// Appends an image to the camera and returns its index in it: 1 at the first call, for AOV 0 is the beauty
/// image. It takes the camera's size at zpInitializeCameras(), and is written as the mean of the samples
/// taken.
int zpAddCameraAOV(int camera) noexcept;
/// What the image records at the first hit of each camera ray; default kZpBeauty, which records nothing in
/// any AOV but the first. Intended: replaces the stored value, unlike a light's, and a value of several bits
/// records nothing. AOV 0 stays the beauty image whatever its channel: leave it alone.
void zpSetCameraAOVChannel(int camera, int aov, Channel channel) noexcept;
/// The file to write; its extension chooses the format, `.hdr`, `.exr` and `.pfm` keep linear floats.
/// Relative to the working directory. Default of AOV 0: "beauty-YYYYMMDD-HHMMSS.hdr" with the local time of
/// zpAddCamera(); of others empty. An empty name is not written.
void zpSetCameraAOVName(int camera, int aov, const char* name) noexcept;
/// The name of the vertex data that kZpUserData shows: of one float as grey, of two in red and green. Default
/// "undefined". What no Part has stays black.
void zpSetCameraAOVUserData(int camera, int aov, const char* name) noexcept;
/// @}

/// @defgroup pointlights Point lights
/// A surface at distance d that faces the light receives the irradiance pi * color / d^2, so that a white one
/// at distance 1 shines with `color`. All of it comes before zpInitializeGaffer(). The end of a frame drops
/// these lights.
/// @{

/// Appends a point light and returns its index.
int zpAddPointLight() noexcept;
/// Linear RGB; default 1, 1, 1.
void zpSetPointLightColor(int light, float r, float g, float b) noexcept;
/// Where it is; default 0, 0, 0.
void zpSetPointLightPosition(int light, float x, float y, float z) noexcept;
/// Axis of the spot, of any length; default 0, 1, 0.
void zpSetPointLightDirection(int light, float x, float y, float z) noexcept;
/// Radius of a sphere of light, for soft shadows, scene units; default 0: a point. The sphere is not seen.
void zpSetPointLightBlur(int light, float radius) noexcept;
/// Cosine at which Lambertian surfaces turn dark: (cos - offset) / (1 - offset) takes the place of the
/// cosine. Default 0.1; 0 is the plain cosine. Hair knows none.
void zpSetPointLightOffset(int light, float offset) noexcept;
/// Angle off the axis up to which the light is full, degrees; default 0. From there to the outer angle it
/// fades linearly.
void zpSetPointLightInnerAngle(int light, float degrees) noexcept;
/// Angle off the axis from which there is no light, degrees; default 180. Equal angles make a hard edge.
void zpSetPointLightOuterAngle(int light, float degrees) noexcept;
/// Shadow rays of a first hit, over all passes, at least one a pass, or, in format 2, in each pass;
/// default 1. Counts with a blur above 0, since others need no more than one.
void zpSetPointLightSample(int light, int sample) noexcept;
/// Number of photons; default 0, as below 0. They make the light's caustics, and in final gathering its
/// indirect light: without photons it lights no cells.
void zpSetPointLightPhoton(int light, int photon) noexcept;
/// Adds `shader` to the shaders that the light is restricted to; without any it lights everything. Entries
/// are not checked: one that names no Shader lights nothing. Twice counts as once.
void zpSetPointLightShaderLink(int light, int shader) noexcept;
/// Appends an image to the light and returns its index in it: 0 at the first call. It takes the first
/// camera's size, and is written by the end of the frame or the finalizer.
int zpAddPointLightAOV(int light) noexcept;
/// Adds `channel` to what the image records, the sum over kZpLambertian, kZpTransmissive and kZpGlossy of the
/// light that the first hit reflects directly; others count as nothing. Default kZpBeauty. Intended: adds to
/// the stored bits, unlike a camera's; bits cannot be taken away.
void zpSetPointLightAOVChannel(int light, int aov, Channel channel) noexcept;
/// The file to write, as zpSetCameraAOVName(); default empty: not written.
void zpSetPointLightAOVName(int light, int aov, const char* name) noexcept;
/// @}

/// @defgroup parallellights Parallel lights
/// Light from infinitely far away: a surface that faces it receives the irradiance pi * color. Before
/// zpInitializeGaffer(). The end of a frame drops these lights.
/// @{

/// Appends a parallel light and returns its index.
int zpAddParallelLight() noexcept;
/// Linear RGB; default 1, 1, 1.
void zpSetParallelLightColor(int light, float r, float g, float b) noexcept;
/// The way the light travels, of any length; must be set, for at the default 0, 0, 0 it shines nowhere.
void zpSetParallelLightDirection(int light, float x, float y, float z) noexcept;
/// Half angle of the cone of directions, degrees, for soft shadows; default 0. The sun's is about 0.27.
void zpSetParallelLightBlur(int light, float degrees) noexcept;
/// As zpSetPointLightOffset(); default 0.1.
void zpSetParallelLightOffset(int light, float offset) noexcept;
/// As zpSetPointLightSample(); default 1.
void zpSetParallelLightSample(int light, int sample) noexcept;
/// As zpSetPointLightPhoton(); default 0. The photons cover the scene's bounding sphere.
void zpSetParallelLightPhoton(int light, int photon) noexcept;
/// As zpSetPointLightShaderLink().
void zpSetParallelLightShaderLink(int light, int shader) noexcept;
/// As zpAddPointLightAOV().
int zpAddParallelLightAOV(int light) noexcept;
/// As zpSetPointLightAOVChannel(): adds to the stored bits.
void zpSetParallelLightAOVChannel(int light, int aov, Channel channel) noexcept;
/// As zpSetPointLightAOVName().
void zpSetParallelLightAOVName(int light, int aov, const char* name) noexcept;
/// @}

/// @defgroup skylight Sky light
/// There is one, and it shines by default. Rays that leave the scene find it. Set it after zpStartup(), which
/// resets it, and before zpInitializeSkyLight(). The end of a frame resets it.
/// @{

/// The sky's radiance, or a factor of its image; default 0.75, 0.75, 0.75. Black (0.001 or less in all
/// channels) switches samples and photons off.
void zpSetSkyLightColor(float r, float g, float b) noexcept;
/// Where the picture's north lies; of any length; default 0, 1, 0.
void zpSetSkyLightNorth(float x, float y, float z) noexcept;
/// Where the picture's zenith lies; default 0, 0, 1. Of any length for pictures; of unit length for the
/// analytic sky, whose sun takes its height from it as it is. Along the north: a warning row, and defaults.
void zpSetSkyLightZenith(float x, float y, float z) noexcept;
/// A latitude-longitude picture, or "analytic": a clear sky from a model, with its sun in the direction
/// 1, 2, 1, of turbidity 9 and ground albedo 0.2 unless scene text set others. Default none: the plain
/// colour. Carries over; an empty name removes it.
void zpSetSkyLightImage(const char* path) noexcept;
/// A latitude-longitude picture that camera rays see instead of the sky, without its colour. Default none.
/// Carries over; an empty name removes it.
void zpSetSkyLightBackdrop(const char* path) noexcept;
/// Shadow rays of a first hit towards bright parts of the picture, as zpSetPointLightSample(); default 64, in
/// format 2 1; 0 or less: none, rays find the sky by themselves. A sky without a picture is never sampled.
void zpSetSkyLightSample(int sample) noexcept;
/// Number of photons; default 1000000, in format 2 0; 0 or less: none, and in final gathering no sky light in
/// the cells. They are cast in final gathering and for light paths.
void zpSetSkyLightPhoton(int photon) noexcept;
/// As zpSetPointLightShaderLink(). Camera rays see the sky all the same.
void zpSetSkyLightShaderLink(int shader) noexcept;
/// As zpAddPointLightAOV(). Intended: each image of the sky shows it to camera rays that hit nothing,
/// whatever its channel.
int zpAddSkyLightAOV() noexcept;
/// As zpSetPointLightAOVChannel(): adds to the stored bits. Light samples alone count, so only a sky with a
/// picture has any.
void zpSetSkyLightAOVChannel(int aov, Channel channel) noexcept;
/// As zpSetPointLightAOVName().
void zpSetSkyLightAOVName(int aov, const char* name) noexcept;
/// @}

/// @defgroup geometrylight Geometry light
/// All emissive surfaces together. Rays find them by themselves; samples and photons help. Only triangles and
/// tetragons take part in these; in format 1 the root Object's own, and those that it places if it has a Part
/// of its own. Set it after zpStartup(), which resets it, and before zpInitialize(). The end of a
/// frame resets it.
/// @{

/// Shadow rays of a first hit towards layers with zpSetSurfaceVirtualLight(), which tells why none is best in
/// format 1, as zpSetPointLightSample(); default 0, as below 0: none; in format 2 1.
void zpSetGeometryLightSample(int sample) noexcept;
/// Number of photons of all emissive layers; default 1000000, in format 2 0; 0 or less: none. They are cast
/// in final gathering, with virtual lights in path tracing as well (caustics), and for light paths. Nothing
/// emissive casts none.
void zpSetGeometryLightPhoton(int photon) noexcept;
/// As zpSetPointLightShaderLink(). Camera rays see emission all the same.
void zpSetGeometryLightShaderLink(int shader) noexcept;
/// As zpAddPointLightAOV().
int zpAddGeometryLightAOV() noexcept;
/// Adds `channel` to what the image records, unlike a camera's: light samples as zpSetPointLightAOVChannel(),
/// and emission that paths meet, by the path's last scattering: kZpLambertian, kZpTransmissive, kZpGlossy or
/// kZpSpecular, which seen emitters themselves count as.
void zpSetGeometryLightAOVChannel(int aov, Channel channel) noexcept;
/// As zpSetPointLightAOVName().
void zpSetGeometryLightAOVName(int aov, const char* name) noexcept;
/// Restricts the image to light from surfaces of the Shader of that name; default empty. A name that no
/// Shader has restricts nothing.
void zpSetGeometryLightAOVShaderName(int aov, const char* name) noexcept;
/// @}

#pragma GCC visibility pop

// frame/frame.h: the life of the library, from start-up to shut-down. Knows every other folder.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zp {

// Banner, tables, resets, the Shader "undefined". With a seed, pictures repeat. `format`: chosen before
// whatever scene text and ZP_FORMAT say; without it an error row for a ZP_FORMAT that is none.
void Startup(std::optional<std::uint64_t> seed = std::nullopt,
             std::optional<std::int32_t> format = std::nullopt);
// Reads a scene folder into the tables; sets up the search paths first. False without such a folder.
bool LoadScene(const std::string& folder);
// Cameras, textures, shaders, accelerator, sky light, geometry light, gaffer, renderer. A stop (core/stop.h)
// leaves the rest out: then rays hit nothing, and the scene is only fit to be finalised.
void Initialize();
// Writes all AOVs and empties all tables.
void Finalize();
void Shutdown();
// All of the above around one scene folder.
void Go(const std::string& folder);

void PrepareCameras();  // InitializeCameras, AOVs bound to their shaders

}  // namespace zp

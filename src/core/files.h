// core/files.h: what stands at a path. Readers ask here before they open a file that a scene names.

#pragma once

#include <string>

namespace zp {

enum class FileKind { kNothing, kFile, kFolder, kOther };

// Of what links lead to. kNothing too where it cannot be told.
FileKind KindOfFile(const std::string& path);
// A file, a pipe or a device: whatever bytes can be read from.
bool HoldsBytes(const std::string& path);

// While set, nothing stands anywhere: scene text that nobody trusts reaches no file.
extern bool filesHidden;

}  // namespace zp

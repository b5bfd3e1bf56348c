// core/files.h: what stands at a path. Readers ask here before they open a file that a scene names.

#pragma once

#include <string>
#include <vector>

namespace zp {

enum class FileKind { kNothing, kFile, kFolder, kOther };

// Of what links lead to. kNothing too where it cannot be told.
FileKind KindOfFile(const std::string& path);
// A file, a pipe or a device: whatever bytes can be read from. Readers ask just before they read, so that the
// path is noted as one.
bool HoldsBytes(const std::string& path);

// What the scene was read from: each path that was opened, or sought in vain, since ForgetReadPaths, as it
// was given, in alphabetical order. Any thread may note one.
void NoteRead(const std::string& path);
std::vector<std::string> ReadPaths();
void ForgetReadPaths();

// Files that were written, each once, in the order of their first time. Any thread may note one.
void NoteWritten(const std::string& path);
std::vector<std::string> WrittenPaths();

// While set, nothing stands anywhere: scene text that nobody trusts reaches no file.
extern bool filesHidden;

}  // namespace zp

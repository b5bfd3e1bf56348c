// scene/check.h: judges a scene that was read while `sceneNotes` stood.

#pragma once

#include <string>
#include <vector>

#include "scene/notes.h"

namespace zp {

// What a file format does to the floats of a picture.
enum class Storage { kUnwritable, kBytes, kHalf, kSharedExponent, kExact };
// Finds out by writing a small picture of that name's format into the current directory and reading it back.
// Leaves no file. kUnwritable: the name tells no format that can be written.
Storage ProbeStorage(const std::string& fileName);

// Adds what only the whole scene shows: names that nothing has, files that are not there, records that do not
// do what they seem to. The tables are as the reader left them, and paths count from the scene folder.
void CheckRecords(SceneNotes& notes);
// Adds what is wrong with the names of output files. The current directory is one to write into.
void CheckOutputs(SceneNotes& notes);
// By file, then by line.
void SortFindings(SceneNotes& notes);

}  // namespace zp

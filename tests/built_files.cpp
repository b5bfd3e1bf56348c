#include "built_files.h"

namespace zp {

const char* const kProgram = ZP_PROGRAM;
const char* const kLibrary = ZP_LIBRARY;
const char* const kSources = ZP_SOURCES;

}  // namespace zp

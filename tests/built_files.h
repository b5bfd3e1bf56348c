// tests/built_files.h: where the build has put what tests run, and where the sources lie.

#pragma once

namespace zp {

extern const char* const kProgram;  // zephlore
extern const char* const kLibrary;  // libzp.so
extern const char* const kSources;  // the checkout

}  // namespace zp

// app/serve_files.h: the files of app/serve/, which the build puts into the program.

#pragma once

#include <string_view>
#include <vector>

namespace zp {

struct ServeFile {
  std::string_view name, text;
};
extern const std::vector<ServeFile> serveFiles;

}  // namespace zp

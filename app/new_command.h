// app/new_command.h: `zephlore new`, a scene to begin with.

#pragma once

#include <string>

namespace CLI {
class App;
}

namespace zp {

struct NewOptions {
  std::string folder;              // to make, with those above it
  std::string scenery = "studio";  // name of a template: a folder of scenes/templates
};
void AddNew(CLI::App& app, NewOptions& options);
// Copies a template. A folder that is there already is refused; where a file cannot be written, none is left.
int RunNew(const NewOptions& options);

}  // namespace zp

#include "core/files.h"

#include <filesystem>
#include <system_error>

namespace zp {

bool filesHidden = false;

FileKind KindOfFile(const std::string& path) {
  if (filesHidden) return FileKind::kNothing;
  std::error_code error;
  switch (std::filesystem::status(path, error).type()) {
    case std::filesystem::file_type::none:
    case std::filesystem::file_type::not_found:
    case std::filesystem::file_type::unknown:
      return FileKind::kNothing;
    case std::filesystem::file_type::regular:
      return FileKind::kFile;
    case std::filesystem::file_type::directory:
      return FileKind::kFolder;
    default:
      return FileKind::kOther;
  }
}

bool HoldsBytes(const std::string& path) {
  const FileKind kind = KindOfFile(path);
  return kind == FileKind::kFile || kind == FileKind::kOther;
}

}  // namespace zp

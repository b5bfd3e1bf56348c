#include "core/files.h"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <set>
#include <system_error>

namespace zp {

bool filesHidden = false;

namespace {
std::mutex pathsMutex;
std::set<std::string> readPaths;
std::vector<std::string> writtenPaths;
}  // namespace

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
  NoteRead(path);
  const FileKind kind = KindOfFile(path);
  return kind == FileKind::kFile || kind == FileKind::kOther;
}

void NoteRead(const std::string& path) {
  const std::lock_guard lock(pathsMutex);
  readPaths.insert(path);
}

std::vector<std::string> ReadPaths() {
  const std::lock_guard lock(pathsMutex);
  return {readPaths.begin(), readPaths.end()};
}

void ForgetReadPaths() {
  const std::lock_guard lock(pathsMutex);
  readPaths.clear();
}

void NoteWritten(const std::string& path) {
  const std::lock_guard lock(pathsMutex);
  if (std::find(writtenPaths.begin(), writtenPaths.end(), path) == writtenPaths.end())
    writtenPaths.push_back(path);
}

std::vector<std::string> WrittenPaths() {
  const std::lock_guard lock(pathsMutex);
  return writtenPaths;
}

}  // namespace zp

#include "imaging/output_file.h"

#include <fcntl.h>
#include <linux/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <map>
#include <mutex>
#include <random>
#include <system_error>
#include <utility>

#include "core/files.h"
#include "imaging/imaging.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

constexpr int kMostLinks = 40;  // as the system follows
constexpr int kTries = 100;

std::mutex namesMutex;
// Numbers used up by default names, by "beauty-YYYYMMDD-HHMMSS". It outlives the second, because local time
// can run back.
std::map<std::string, int> usedNumbers;
// Default names under which pictures were saved, and the files that they have become.
std::map<std::string, std::string> takenNames;

std::string NextName(const std::string& stem) {
  const int number = ++usedNumbers[stem];
  return (number > 1 ? stem + "-" + std::to_string(number) : stem) + ".hdr";
}

// What a default name has before its number and a camera's name; empty for other names.
std::string StemOf(const std::string& name) {
  if (!name.ends_with(".hdr")) return {};
  std::string stem = name.substr(0, name.size() - 4);
  while (!stem.empty() && !usedNumbers.contains(stem)) {
    const std::size_t dash = stem.rfind('-');
    stem.resize(dash == stem.npos ? 0 : dash);
  }
  return stem;
}

std::string SystemReason(int error) {
  switch (error) {
    case EACCES:
    case EPERM:
      return "no permission";
    case ENOSPC:
      return "no space is left";
    case EDQUOT:
      return "no space is left in the quota";
    case EFBIG:
      return "no space: larger than files may be here";
    case EROFS:
      return "the file system is read-only";
    case ENAMETOOLONG:
      return "the name is too long";
    case ELOOP:
      return "its links lead nowhere";
    case EBUSY:
      return "something is mounted there";
    default:
      return std::generic_category().message(error);
  }
}

std::string FolderReason(const fs::path& folder, int error) {
  const std::string text = folder.empty() ? "the current folder" : "the folder \"" + folder.string() + "\"";
  if (error == ENOENT)
    return folder.empty() ? text + " is gone" : "there is no folder \"" + folder.string() + "\"";
  if (error == ENOTDIR) return "\"" + folder.string() + "\" is no folder";
  if (error == EACCES || error == EPERM) return "no permission to write into " + text;
  return SystemReason(error);
}

// Without a bit of writing for anybody: meant to stay, even where the system lets an administrator write.
bool IsProtected(const struct stat& status) { return (status.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0; }

// What is no file, told as one.
std::string KindReason(mode_t mode, const fs::path& target, bool linked) {
  const std::string kind = S_ISDIR(mode)    ? "a folder"
                           : S_ISFIFO(mode) ? "a pipe"
                           : S_ISSOCK(mode) ? "a socket"
                                            : "a device";
  return linked ? "it is a link to " + kind + ", \"" + target.string() + "\"" : "it is " + kind;
}

bool IsMountPoint(const fs::path& path) {
  struct statx details = {};
  return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, 0, &details) == 0 &&
         (details.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

// Why a file cannot give way to another by a rename.
std::string ReplaceReason(const fs::path& path, const struct stat& file, const struct stat& folder) {
  if (IsProtected(file)) return "no permission: the file is protected against writing";
  if (access(path.c_str(), W_OK) != 0) return SystemReason(errno);
  if (IsMountPoint(path)) return SystemReason(EBUSY);
  const uid_t self = geteuid();
  if ((folder.st_mode & S_ISVTX) != 0 && self != 0 && self != file.st_uid && self != folder.st_uid)
    return "no permission: the file is another user's, in a folder where each removes only his own";
  return {};
}

// Renames outlast a power cut too, where the folder may be read.
void SyncFolder(const fs::path& folder) {
  const int opened = open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (opened < 0) return;
  fsync(opened);
  close(opened);
}

}  // namespace

std::string DefaultBeautyName() {
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm local = {};
  localtime_r(&now, &local);
  char stamp[64];
  const std::string stem(stamp, std::strftime(stamp, sizeof stamp, "beauty-%Y%m%d-%H%M%S", &local));
  const std::lock_guard lock(namesMutex);
  return NextName(stem);
}

OutputFile::~OutputFile() {
  if (stream != nullptr) std::fclose(stream);
  if (!temporary.empty()) unlink(temporary.c_str());
}

std::string OutputFile::Open(const std::string& name) {
  target = name;
  {
    const std::lock_guard lock(namesMutex);
    if (const auto taken = takenNames.find(name); taken != takenNames.end())
      target = taken->second;
    else if (!StemOf(name).empty())
      givenName = name;
  }
  std::string reason = FindTarget();
  return reason.empty() ? Create() : reason;
}

std::string OutputFile::FindTarget() {
  std::error_code error;
  bool linked = false;
  for (int links = 0; givenName.empty() && fs::is_symlink(target, error); ++links, linked = true) {
    if (links == kMostLinks) return SystemReason(ELOOP);
    target = target.parent_path() / fs::read_symlink(target, error);
    if (error) return SystemReason(error.value());
  }
  const fs::path folder = target.parent_path();
  struct stat around = {};
  if (stat(folder.empty() ? "." : folder.c_str(), &around) != 0) return FolderReason(folder, errno);
  if (!S_ISDIR(around.st_mode)) return FolderReason(folder, ENOTDIR);
  if (givenName.empty() && stat(target.c_str(), &status) == 0) {
    if (!S_ISREG(status.st_mode)) return KindReason(status.st_mode, target, linked);
    if (std::string reason = ReplaceReason(target, status, around); !reason.empty()) return reason;
  } else if (givenName.empty() && errno != ENOENT) {
    return errno == EACCES ? FolderReason(folder, errno) : SystemReason(errno);
  }
  if (!target.has_filename()) return "the name of a file is missing";
  return IsProtected(around) ? FolderReason(folder, EACCES) : "";
}

// Exclusively, under a random name: process numbers repeat on machines and in containers that share a folder.
// The name is shorter than most, so that a target may have the longest that the system takes.
std::string OutputFile::Create() {
  std::random_device random;
  for (int i = 0; i < kTries; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, ".zp-%08x%04x", random(), random() & 0xFFFFU);
    const fs::path path = target.parent_path() / name;
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (file >= 0) {
      temporary = path;
      stream = fdopen(file, "w+b");
      if (stream == nullptr) close(file);
      return stream == nullptr ? SystemReason(ENOMEM) : "";
    }
    if (errno != EEXIST) break;
  }
  return FolderReason(target.parent_path(), errno);
}

std::size_t OutputFile::Read(void* bytes, std::size_t size) { return std::fread(bytes, 1, size, stream); }

std::size_t OutputFile::Write(const void* bytes, std::size_t size) {
  errno = 0;
  const std::size_t written = std::fwrite(bytes, 1, size, stream);
  if (written != size && failure == 0) failure = errno != 0 ? errno : EIO;
  return written;
}

// A seek hands buffered bytes to the system. One to a place that no file has is the caller's affair.
int OutputFile::Seek(long offset, int origin) {
  const int result = std::fseek(stream, offset, origin);
  if (result != 0 && errno != EINVAL && failure == 0) failure = errno;
  return result;
}

std::string OutputFile::Trouble() {
  if (failure == 0 && std::fflush(stream) != 0) failure = errno;
  if (failure == 0 && std::ferror(stream) != 0) failure = EIO;
  return failure == 0 ? "" : SystemReason(failure);
}

std::string OutputFile::Commit() {
  if (std::string reason = Trouble(); !reason.empty()) return reason;
  const int file = fileno(stream);
  if (status.st_mode != 0) fchmod(file, status.st_mode & 07777U);  // fails where there are no permissions
  // On the disk before it has its name: else a power cut can leave an empty file in the place of the old one.
  if (fsync(file) != 0 && errno != EINVAL && errno != ENOTSUP) failure = errno;
  if (std::fclose(std::exchange(stream, nullptr)) != 0 && failure == 0) failure = errno;
  if (failure != 0) return SystemReason(failure);
  if (!givenName.empty()) {
    if (std::string reason = TakeFreeName(); !reason.empty()) return reason;
  } else if (std::rename(temporary.c_str(), target.c_str()) != 0) {
    return SystemReason(errno);
  }
  temporary.clear();
  SyncFolder(target.parent_path());
  NoteWritten(target.string());
  return {};
}

// Two processes that began in the same second have the same name; the system lets one of them have it.
std::string OutputFile::TakeFreeName() {
  const std::lock_guard lock(namesMutex);
  const std::string stem = StemOf(givenName);
  for (;; target = NextName(stem)) {
    if (renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) break;
    if (errno == EINVAL || errno == ENOSYS) {  // a file system that cannot: an empty file of ours reserves it
      const int file = open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
      if (file >= 0) {
        close(file);
        if (std::rename(temporary.c_str(), target.c_str()) == 0) break;
        const int error = errno;
        unlink(target.c_str());
        return SystemReason(error);
      }
    }
    if (errno != EEXIST) return SystemReason(errno);
  }
  takenNames[givenName] = target;
  return {};
}

}  // namespace zp

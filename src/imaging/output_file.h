// imaging/output_file.h: files that get their name when they are whole.
// What goes wrong is told as the rest of a sentence, "no space is left"; an empty text means that nothing
// did.

#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <string>

namespace zp {

// A temporary file in the folder of its target, because a rename cannot cross file systems. It is removed
// unless Commit gives it the target's name, so that a failure leaves what was there.
class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Only a file, or nothing, can be replaced; a link stays, and what it leads to is replaced.
  std::string Open(const std::string& name);
  // Puts the file on the disk, then in the place of what was there. Neither Write nor any other call may
  // follow. A default beauty name that is another's by now steps aside to the next number.
  std::string Commit();
  // What went wrong with the bytes so far; buffered ones are handed to the system first.
  std::string Trouble();

  // As fread, fwrite, fseek and ftell; failures of the system are kept for Trouble and Commit.
  std::size_t Read(void* bytes, std::size_t size);
  std::size_t Write(const void* bytes, std::size_t size);
  int Seek(long offset, int origin);
  long Tell() { return std::ftell(stream); }

  // Its name until Commit.
  const std::filesystem::path& Temporary() const { return temporary; }
  // Behind all links. The status is of what is there, its mode 0 where nothing is.
  const std::filesystem::path& Target() const { return target; }
  const struct stat& TargetStatus() const { return status; }

 private:
  std::string FindTarget();
  std::string Create();
  std::string TakeFreeName();

  std::string givenName;  // empty: the target is replaced; else a default name, not yet anybody's
  std::filesystem::path target, temporary;
  struct stat status = {};
  std::FILE* stream = nullptr;
  int failure = 0;  // the first one, as errno
};

}  // namespace zp

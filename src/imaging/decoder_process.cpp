#include "imaging/decoder_process.h"

#include <fcntl.h>
#include <omp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <type_traits>

#include "core/stop.h"

namespace zp {
namespace {

// Sanitizers reserve more address space than any limit leaves.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#elif defined(__has_feature)
constexpr bool kIsSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kIsSanitized = false;
#endif

constexpr int kFirstStatus = 64;  // of the child; plus the problem's number
bool isChild = false;
rlimit hostMemory = {};

struct Format {
  std::int32_t width, height, channels, bits, packed;
};

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Number() const { return number_; }

 private:
  int number_;
};

// Calls read or write until all is done.
template <class Call, class Byte>
bool Transfer(Call call, int file, Byte* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t done = call(file, bytes, size);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    bytes += done;
    size -= static_cast<std::size_t>(done);
  }
  return true;
}

// The bytes of the one array that is in use.
template <class Picture, class Use>
bool WithPixels(Picture& image, Use use) {
  const auto bytes = [&](auto& pixels) {
    using Byte = std::conditional_t<std::is_const_v<Picture>, const char, char>;
    return use(reinterpret_cast<Byte*>(pixels.data()), pixels.size() * sizeof(pixels[0]));
  };
  if (image.packed) return bytes(image.packedPixels);
  if (image.bits == 8) return bytes(image.bytePixels);
  if (image.bits == 16) return bytes(image.wordPixels);
  return image.bits == 32 && bytes(image.floatPixels);
}

bool Send(const ImageBuffer& image, int file) {
  const Format format = {image.width, image.height, image.channels, image.bits, image.packed};
  const auto* head = reinterpret_cast<const char*>(&format);
  return Transfer(write, file, head, sizeof format) &&
         WithPixels(image,
                    [&](const char* bytes, std::size_t size) { return Transfer(write, file, bytes, size); });
}

// The child may have written anything.
PictureProblem Receive(int file, ImageBuffer& image) {
  Format format = {};
  if (lseek(file, 0, SEEK_SET) != 0 || !Transfer(read, file, reinterpret_cast<char*>(&format), sizeof format))
    return PictureProblem::kDamaged;
  const bool hasBits = format.bits == 8 || format.bits == 16 || format.bits == 32;
  const auto pixels = static_cast<double>(format.width) * format.height;
  const off_t size = lseek(file, 0, SEEK_END);
  if (format.width <= 0 || format.height <= 0 || format.channels < 1 || format.channels > 4 || !hasBits ||
      (format.packed != 0 && (format.bits != 32 || format.channels != 3)) ||
      pixels * (format.packed != 0 ? 4 : format.channels * format.bits / 8) + sizeof format !=
          static_cast<double>(size))
    return PictureProblem::kDamaged;
  lseek(file, sizeof format, SEEK_SET);
  Allocate(image, format.width, format.height, format.channels, format.bits, format.packed != 0);
  const bool whole =
      WithPixels(image, [&](char* bytes, std::size_t count) { return Transfer(read, file, bytes, count); });
  return whole ? PictureProblem::kSound : PictureProblem::kDamaged;
}

// The host's handlers, its streams and its core files have nothing to do with what may happen here.
void LeaveHost(pid_t parent) {
  isChild = true;
  getrlimit(RLIMIT_AS, &hostMemory);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(kFirstStatus);
  for (const int number :
       {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGXCPU, SIGALRM, SIGPROF, SIGTERM})
    std::signal(number, SIG_DFL);
  std::signal(SIGINT, SIG_IGN);  // the parent decides
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) dup2(null, stream);
  prctl(PR_SET_DUMPABLE, 0);
  const rlimit noCore = {0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  omp_set_num_threads(1);  // the threads of the pool are not in the copy
}

[[noreturn]] void RunChild(const DecoderJob& job, int file) {
  PictureProblem problem = PictureProblem::kNoMemory;
  try {
    ImageBuffer image;
    image.loaded = false;
    problem = job.decode(job.context, image);
    if (problem == PictureProblem::kSound && !Send(image, file)) problem = PictureProblem::kNoMemory;
  } catch (const std::exception&) {
  }
  _exit(kFirstStatus + static_cast<int>(problem));
}

// Waits for the child's end, as waitpid does. Once all shall stop it is killed.
pid_t WaitOrKill(pid_t child, int& status) {
  constexpr int kInterval = 20, kWithoutHandle = 1;  // milliseconds
  const Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
  bool isKilled = false;
  while (true) {
    pollfd ends = {handle.Number(), POLLIN, 0};
    poll(&ends, 1, handle.Number() < 0 ? kWithoutHandle : kInterval);
    const pid_t ended = waitpid(child, &status, WNOHANG);
    if (ended > 0 || (ended < 0 && errno != EINTR)) return ended;
    if (Stopping() && !isKilled) isKilled = kill(child, SIGKILL) == 0;
  }
}

PictureProblem Await(pid_t child, int file, ImageBuffer& image) {
  int status = 0;
  const pid_t ended = WaitOrKill(child, status);
  if (Stopping()) return PictureProblem::kStopped;
  // A host that ignores SIGCHLD gets no status; a picture that is not whole shows itself.
  if (ended < 0) return Receive(file, image);
  if (!WIFEXITED(status)) return PictureProblem::kDamaged;
  const int number = WEXITSTATUS(status) - kFirstStatus;
  if (number < 0 || number > static_cast<int>(PictureProblem::kLast)) return PictureProblem::kDamaged;
  const auto problem = static_cast<PictureProblem>(number);
  return problem == PictureProblem::kSound ? Receive(file, image) : problem;
}

// Bytes of address space in use; 0 if the system does not tell. Sanitizers, which reserve most of it, do not
// ask.
[[maybe_unused]] std::size_t AddressSpace() {
  std::FILE* file = std::fopen("/proc/self/statm", "re");
  unsigned long pages = 0;
  if (file == nullptr) return 0;
  const bool told = std::fscanf(file, "%lu", &pages) == 1;
  std::fclose(file);
  return told ? pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) : 0;
}

}  // namespace

std::optional<PictureProblem> DecodeInChild(const DecoderJob& job, ImageBuffer& image) {
  const Descriptor file(memfd_create("picture", MFD_CLOEXEC));
  if (file.Number() < 0) return std::nullopt;
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) return std::nullopt;
  if (child == 0) {
    LeaveHost(parent);
    RunChild(job, file.Number());
  }
  return Await(child, file.Number(), image);
}

void LimitDecoder(std::chrono::milliseconds processorTime, std::size_t memory) {
  if (!isChild) return;
  const itimerval time = {{0, 0}, {processorTime.count() / 1000, processorTime.count() % 1000 * 1000}};
  setitimer(ITIMER_PROF, &time, nullptr);
  alarm(static_cast<unsigned>(60 + processorTime.count() / 50));  // one that waits takes no processor time
  if (kIsSanitized) return;
  if (const std::size_t used = AddressSpace(); used > 0) {
    const rlimit limit = {std::min<rlim_t>(hostMemory.rlim_cur, used + memory), hostMemory.rlim_max};
    setrlimit(RLIMIT_AS, &limit);
  }
}

void GiveUpDecoding() {
  if (isChild) _exit(kFirstStatus + static_cast<int>(PictureProblem::kDamaged));
}

}  // namespace zp

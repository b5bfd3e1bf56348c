#include "imaging/decoder_process.h"

#include <fcntl.h>
#include <omp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <type_traits>

#include "core/sanitizers.h"
#include "core/stop.h"

namespace zp {
namespace {

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
    problem = job.decode(job, image);
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

// Of a wait status, which is none where a host that ignores SIGCHLD gets none: a picture that is not whole
// shows itself.
PictureProblem Conclude(std::optional<int> status, int file, ImageBuffer& image) {
  if (Stopping()) return PictureProblem::kStopped;
  if (!status) return Receive(file, image);
  if (!WIFEXITED(*status)) return PictureProblem::kDamaged;
  const int number = WEXITSTATUS(*status) - kFirstStatus;
  if (number < 0 || number > static_cast<int>(PictureProblem::kLast)) return PictureProblem::kDamaged;
  const auto problem = static_cast<PictureProblem>(number);
  return problem == PictureProblem::kSound ? Receive(file, image) : problem;
}

// The small process that forks the others, by the socket to it.
struct Nursery {
  std::mutex mutex;  // of one exchange
  int socket = -1;
  pid_t owner = 0;  // a copy of that process, as hosts make them, must not speak on its socket

  void Close() {
    if (socket >= 0) close(socket);
    socket = -1;
  }
};
Nursery nursery;

// One packet with `count` descriptors beside its bytes. False if the other side is gone.
bool SendPacket(int socket, const void* bytes, std::size_t size, const int* descriptors = nullptr,
                std::size_t count = 0) {
  iovec part = {const_cast<void*>(bytes), size};
  alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  if (count > 0) {
    message.msg_control = control;
    message.msg_controllen = CMSG_SPACE(count * sizeof(int));
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(count * sizeof(int));
    std::memcpy(CMSG_DATA(header), descriptors, count * sizeof(int));
  }
  ssize_t sent = 0;
  do sent = sendmsg(socket, &message, MSG_NOSIGNAL);
  while (sent < 0 && errno == EINTR);
  return sent == static_cast<ssize_t>(size);
}

// A packet of exactly these two descriptors, if `descriptors` is given.
bool ReceivePacket(int socket, void* bytes, std::size_t size, int* descriptors = nullptr) {
  iovec part = {bytes, size};
  alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  ssize_t got = 0;
  do got = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
  while (got < 0 && errno == EINTR);
  if (got != static_cast<ssize_t>(size)) return false;
  if (descriptors == nullptr) return true;
  const cmsghdr* header = CMSG_FIRSTHDR(&message);
  if (header == nullptr || header->cmsg_len != CMSG_LEN(2 * sizeof(int))) return false;
  std::memcpy(descriptors, CMSG_DATA(header), 2 * sizeof(int));
  return true;
}

// The small process. A child stays a zombie until the next request, so that its number is nobody else's as
// long as the other side may want to kill it. Ends when the socket does.
[[noreturn]] void Serve(int socket) {
  constexpr int kOwn = 3;
  const int null = open("/dev/null", O_RDWR);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null, stream);
  if (socket != kOwn) dup2(socket, kOwn);
  close_range(kOwn + 1, ~0U, 0);  // the host's pipes must not be held open here
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) std::signal(number, SIG_IGN);
  std::signal(SIGCHLD, SIG_DFL);
  const pid_t self = getpid();
  DecoderJob job;
  pid_t last = 0;
  int files[2];
  while (ReceivePacket(kOwn, &job, sizeof job, files)) {
    if (last > 0) waitpid(last, nullptr, 0);
    last = fork();
    if (last == 0) {
      close(kOwn);
      LeaveHost(self);
      job.file = files[0];
      RunChild(job, files[1]);
    }
    for (const int file : files) close(file);
    siginfo_t info = {};
    const bool told = SendPacket(kOwn, &last, sizeof last);
    if (last < 0) continue;
    while (waitid(P_PID, static_cast<id_t>(last), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
    const int status = info.si_code == CLD_EXITED ? (info.si_status & 0xFF) << 8 : info.si_status & 0x7F;
    if (!told || !SendPacket(kOwn, &status, sizeof status)) break;
  }
  _exit(0);
}

// The wait status of a child of the small process; none if that is not there, or could not fork.
std::optional<int> RunInNursery(const DecoderJob& job, int file) {
  const std::lock_guard lock(nursery.mutex);
  if (nursery.socket < 0 || nursery.owner != getpid()) return std::nullopt;
  const int files[2] = {job.file, file};
  pid_t child = 0;
  int status = 0;
  bool isKilled = false;
  bool alive = SendPacket(nursery.socket, &job, sizeof job, files, 2) &&
               ReceivePacket(nursery.socket, &child, sizeof child);
  if (alive && child < 0) return std::nullopt;
  while (alive) {
    constexpr int kInterval = 20;  // milliseconds
    pollfd answer = {nursery.socket, POLLIN, 0};
    if (poll(&answer, 1, kInterval) > 0) break;
    if (Stopping() && !isKilled) isKilled = kill(child, SIGKILL) == 0;
  }
  alive = alive && ReceivePacket(nursery.socket, &status, sizeof status);
  if (alive) return status;
  nursery.Close();
  return std::nullopt;
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

// By way of a process in between, so that a host that waits for its children meets none of these.
void StartDecoders() {
  StopDecoders();
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return;
  const pid_t between = fork();
  if (between == 0) {
    if (fork() == 0) Serve(ends[1]);
    _exit(0);
  }
  close(ends[1]);
  nursery.socket = ends[0];
  nursery.owner = getpid();
  if (between < 0) return nursery.Close();
  while (waitpid(between, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void StopDecoders() { nursery.Close(); }

std::optional<PictureProblem> DecodeInChild(const DecoderJob& job, ImageBuffer& image) {
  const Descriptor file(memfd_create("picture", MFD_CLOEXEC));
  if (file.Number() < 0) return std::nullopt;
  if (const std::optional<int> status = RunInNursery(job, file.Number()))
    return Conclude(status, file.Number(), image);
  // The small process may have been lost in the midst of a picture.
  if (ftruncate(file.Number(), 0) != 0 || lseek(file.Number(), 0, SEEK_SET) != 0) return std::nullopt;
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) return std::nullopt;
  if (child == 0) {
    LeaveHost(parent);
    RunChild(job, file.Number());
  }
  int status = 0;
  const pid_t ended = WaitOrKill(child, status);
  return Conclude(ended < 0 ? std::nullopt : std::optional(status), file.Number(), image);
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

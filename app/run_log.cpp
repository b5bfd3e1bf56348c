#include "run_log.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string_view>
#include <utility>

#include "core/index.h"
#include "imaging/frame_state.h"
#include "lights/photon_store.h"

namespace zp {
namespace {

using Clock = std::chrono::steady_clock;

enum class Form { kNone, kLine, kJson };

struct RunLog {
  std::mutex mutex;
  RunRecord record;
  ProgressMeter meter;
  Form form = Form::kNone;
  std::filesystem::path report;  // from the root on; empty: none
  Clock::time_point start = Clock::now(), shown = start - std::chrono::hours(1);
  Phase shownPhase = Phase::kPasses;
  int lineWidth = 0;  // of the longest line that is kept up to date
  bool lineIsOpen = false;
  std::uint64_t castPhotons = 0;  // of the frame that is initialised
  bool closed = false;
  std::vector<LogLine> lines;
  Phase linePhase = Phase::kWriting;  // that the last line about one tells
};

// Lives until the process ends, whoever ends it.
RunLog& Log() {
  static RunLog& log = *new RunLog;
  return log;
}

// In one piece, behind all rows that are there already.
void Put(RunLog& log, const std::string& line) {
  std::fflush(stdout);
  const std::string text = (log.lineIsOpen ? "\n" : "") + line + '\n';
  log.lineIsOpen = false;
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

void EndLine(RunLog& log) {
  if (std::exchange(log.lineIsOpen, false)) std::fputc('\n', stderr);
}

// Scene text may hold anything, but a message stays one line.
std::string OneLine(std::string_view message) {
  std::string line(message);
  std::replace_if(
      line.begin(), line.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

void AddLine(RunLog& log, std::string_view severity, std::string text) {
  constexpr std::size_t kMostLines = 10'000;
  const double seconds = std::chrono::duration<double>(Clock::now() - log.start).count();
  if (log.lines.size() < kMostLines) log.lines.push_back({seconds, std::string(severity), std::move(text)});
}

// A line for each phase, and one for each time that images were written.
void LogPhase(RunLog& log, const RunProgress& progress) {
  constexpr const char* kTexts[] = {"reading the scene", "building trees", "casting photons",
                                    "rendering passes"};
  const bool isNew = progress.phase != std::exchange(log.linePhase, progress.phase);
  const auto index = static_cast<std::size_t>(progress.phase);
  if (progress.phase == Phase::kWriting) {
    if (progress.done == progress.total && progress.total > 0) AddLine(log, "note", "images are written");
  } else if (isNew && progress.total > 0 && (progress.phase != Phase::kPasses || progress.done == 0)) {
    AddLine(log, "note", kTexts[index]);
  }
}

void Keep(RunLog& log, Message message) {
  message.text = OneLine(message.text);
  if (message.severity == TroubleKind::kFatal)
    log.record.failure = message;
  else if (message.severity != TroubleKind::kNote)
    AddWarning(log.record, message);
  const bool tellsFile = message.file.empty() || message.text.find(message.file) != std::string::npos;
  AddLine(log, SeverityText(message.severity), message.text + (tellsFile ? "" : " (" + message.file + ")"));
  if (log.form == Form::kJson) Put(log, MessageJson(message));
}

// "1:02:03" or "2:03".
std::string ClockText(double seconds) {
  const auto whole = static_cast<long long>(std::clamp(seconds, 0.0, 1e9) + 0.5);
  char text[64];
  if (whole >= 3600)
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
  else
    std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
  return text;
}

void ShowLine(RunLog& log, const RunProgress& progress) {
  char begun[32] = "", error[48] = "", text[240];
  if (progress.begun > 0) std::snprintf(begun, sizeof begun, " and %.0f %%", 100 * progress.begun);
  if (progress.error) std::snprintf(error, sizeof error, "   error %.3g", *progress.error);
  const int length = std::snprintf(
      text, sizeof text, "pass %llu of %llu%s%s   %.2f M rays/s   elapsed %s   remaining %s",
      static_cast<unsigned long long>(progress.done), static_cast<unsigned long long>(progress.total), begun,
      error, 1e-6 * progress.raysPerSecond, ClockText(progress.elapsed).c_str(),
      ClockText(progress.remaining.value_or(0)).c_str());
  if (length <= 0) return;
  // Blanks wipe what a longer line left behind.
  std::fprintf(stderr, "\r%-*s", log.lineWidth, text);
  std::fflush(stderr);
  log.lineWidth = std::max(log.lineWidth, length);
  log.lineIsOpen = true;
}

// As often as somebody can follow, but all phases, all ends, and in text all passes.
void Show(RunLog& log, const RunProgress& progress) {
  LogPhase(log, progress);
  const bool isJson = log.form == Form::kJson;
  if (log.form == Form::kNone || (!isJson && progress.phase != Phase::kPasses)) return;
  const auto pause = isJson ? std::chrono::milliseconds(100) : std::chrono::milliseconds(1000);
  const bool ends = progress.done == progress.total;
  const bool isPass = !isJson && progress.begun == 0 && progress.done > 0;
  if (log.shownPhase == progress.phase && !ends && !isPass && Clock::now() - log.shown < pause) return;
  log.shown = Clock::now();
  log.shownPhase = progress.phase;
  if (isJson)
    Put(log, ProgressJson(progress));
  else if (progress.done > 0 || progress.begun > 0)
    ShowLine(log, progress);
}

void HearTroubles() {
  SetTroubleSink([](const Trouble& trouble) {
    // As the report lists the scene's files.
    const std::string file = std::filesystem::path(trouble.file).lexically_normal().string();
    Say({trouble.kind, std::string(trouble.code), std::string(trouble.text), file});
    return trouble.kind != TroubleKind::kWarning;  // which has its row on the output stream
  });
}

void HearWork() {
  SetWorkObserver([](const WorkDone& work) {
    RunLog& log = Log();
    const std::lock_guard lock(log.mutex);
    if (work.phase == Phase::kCasting) log.castPhotons = work.done;
    Show(log, log.meter.Take(work));
  });
}

// The words of an option that stands among those of a verb, as far as they can be told before all are.
void FindForms(RunLog& log, const std::vector<std::string>& words) {
  constexpr std::string_view kReport = "--report";
  if (words.size() < 2 || words[1] != "render") return;
  std::string name;
  for (std::size_t i = 2; i < words.size() && words[i] != "--"; ++i) {
    if (words[i] == "--progress=json") log.form = Form::kJson;
    if (words[i].starts_with("--report=")) name = words[i].substr(kReport.size() + 1);
    if (words[i] == kReport && i + 1 < words.size() && !words[i + 1].starts_with('-')) name = words[i + 1];
  }
  std::error_code error;
  log.report = name.empty() ? std::filesystem::path() : std::filesystem::absolute(name, error);
  if (error) log.report = name;
}

}  // namespace

void OpenRunLog(int argc, char** argv) {
  RunLog& log = Log();
  log.record.words.assign(argv, argv + argc);
  log.record.startTime =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  FindForms(log, log.record.words);
  // Some ends come from below: a window without its server, cells that take too much memory.
  std::atexit([] { CloseRunLog(kExitFailed); });
}

int CloseRunLog(int status) {
  RunLog& log = Log();
  std::string reason;
  {
    const std::lock_guard lock(log.mutex);
    EndLine(log);
    if (std::exchange(log.closed, true) || log.report.empty()) return status;
    log.record.status = status;
    log.record.elapsed = std::chrono::duration<double>(Clock::now() - log.start).count();
    reason = WriteReport(log.report.string(), log.record);
  }
  return reason.empty()
             ? status
             : Fail("the report '" + log.report.string() + "' could not be written: " + reason,
                    status == kExitDone ? kExitFailed : static_cast<ExitStatus>(status), "report-unwritten");
}

void DropReport() { Log().report.clear(); }

void StartRunLog(std::string_view form) {
  Log().form = form == "json" ? Form::kJson : form == "line" ? Form::kLine : Form::kNone;
  HearTroubles();
  HearWork();
}

void Say(const Message& message) {
  RunLog& log = Log();
  const std::lock_guard lock(log.mutex);
  Keep(log, message);
  if (log.form == Form::kJson || message.severity == TroubleKind::kWarning) return;
  Put(log, (message.severity == TroubleKind::kError ? "error :( \t" : "zephlore: ") + OneLine(message.text));
}

void Note(const Message& message) {
  RunLog& log = Log();
  const std::lock_guard lock(log.mutex);
  Keep(log, message);
}

void BeginFrame(const FramePlan& plan, std::uint32_t first) {
  RunLog& log = Log();
  const std::lock_guard lock(log.mutex);
  FrameRecord& frame = log.record.frames.emplace_back();
  frame.plan = plan;
  frame.camera = At(cameras, plan.camera).name;
  frame.passes = frame.resumedPasses = first;
  frame.photons = log.castPhotons;
  frame.storedPhotons = photonStore.photons.size();
  const PassRange passes = PassesToRender();
  Show(log, log.meter.Take(FrameReport{first, passes.end - passes.begin}, {}));
}

void TellFrame(const FrameReport& report, const FrameStanding& standing) {
  RunLog& log = Log();
  const std::lock_guard lock(log.mutex);
  FrameRecord& frame = log.record.frames.back();
  frame.seconds = standing.seconds;
  frame.error = standing.error;
  if (report.begun == 0) {  // behind a pass
    frame.passes = report.done;
    frame.rays += report.rays;
    frame.faults = TellFaults();
  }
  Show(log, log.meter.Take(report, standing));
}

void EndFrame(const FrameStanding& standing) {
  RunLog& log = Log();
  const std::lock_guard lock(log.mutex);
  EndLine(log);
  FrameRecord& frame = log.record.frames.back();
  frame.seconds = standing.seconds;
  frame.error = standing.error;
  frame.faults = TellFaults();
  // Of the pass that a stop has cut short.
  if (frameState.interrupted) frame.rays += settings.frame.rendererRays + settings.frame.shadowRays;
}

void WithRecord(const std::function<void(RunRecord&)>& call) {
  RunLog& log = Log();
  const std::lock_guard lock(log.mutex);
  call(log.record);
}

RunProgress CurrentProgress() {
  RunLog& log = Log();
  const std::lock_guard lock(log.mutex);
  return log.meter.Last();
}

std::vector<LogLine> LogLines(std::size_t first) {
  RunLog& log = Log();
  const std::lock_guard lock(log.mutex);
  first = std::min(first, log.lines.size());
  return {log.lines.begin() + static_cast<std::ptrdiff_t>(first), log.lines.end()};
}

int Fail(std::string_view message, ExitStatus status, std::string_view code) {
  const std::string_view plain = status == kExitUsage ? "usage" : "failed";
  Say({TroubleKind::kFatal, std::string(code.empty() ? plain : code), std::string(message)});
  return status;
}

}  // namespace zp

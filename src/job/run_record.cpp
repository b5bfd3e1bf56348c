#include "job/run_record.h"

#include <sys/resource.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <nlohmann/json.hpp>

#include "core/files.h"
#include "imaging/output_file.h"

namespace zp {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kMostWarnings = 1000;  // different ones

std::string Dump(const Json& json, int indent) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

Json JsonOf(const Message& message) {
  return {{"severity", SeverityText(message.severity)},
          {"code", message.code},
          {"text", message.text},
          {"file", message.file.empty() ? Json() : Json(message.file)},
          {"line", message.line == 0 ? Json() : Json(message.line)}};
}

// "2026-11-22T09:31:07Z"
std::string TimeText(double seconds) {
  const auto whole = static_cast<std::time_t>(seconds);
  std::tm utc = {};
  gmtime_r(&whole, &utc);
  char text[32];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc)};
}

Json JsonOf(const OddSamples& odd, std::int32_t width) {
  Json pixels = Json::array();
  const auto columns = static_cast<std::uint32_t>(std::max(width, 1));
  for (const std::uint32_t pixel : odd.pixels)
    pixels.push_back(Json::array({pixel % columns, pixel / columns}));
  return {{"samples", odd.samples}, {"pixels", pixels}};
}

Json LimitJson(const OddSamples& odd, std::int32_t width) {
  Json all = JsonOf(odd, width);
  all["taken"] = odd.taken;
  return all;
}

Json JsonOf(const FrameRecord& frame) {
  const FramePlan& plan = frame.plan;
  return {{"camera", {{"number", plan.camera}, {"name", frame.camera}}},
          {"width", plan.width},
          {"height", plan.height},
          {"region", {plan.left, plan.top, plan.right, plan.bottom}},
          {"seed", plan.seed},
          {"sample", plan.sample},
          {"first_pass", plan.begin},
          {"passes", frame.passes},
          {"resumed_passes", frame.resumedPasses},
          {"seconds", frame.seconds},
          {"rays", frame.rays},
          {"photons", frame.photons},
          {"stored_photons", frame.storedPhotons},
          {"not_a_number", JsonOf(frame.faults.notANumber, plan.width)},
          {"clamped", LimitJson(frame.faults.clamped, plan.width)},
          {"clamped_indirect", LimitJson(frame.faults.clampedIndirect, plan.width)},
          {"halves_held", frame.held},
          {"error", frame.error ? Json(*frame.error) : Json()}};
}

Json MachineJson(const RunRecord& record) {
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return {{"host", host},
          {"threads", record.threads},
          {"processor_seconds", seconds(usage.ru_utime) + seconds(usage.ru_stime)},
          {"peak_memory_bytes", 1024 * static_cast<std::int64_t>(usage.ru_maxrss)}};
}

Json SceneJson(const RunRecord& record) {
  Json files = Json::array();
  for (const SceneFile& file : record.files)
    files.push_back({{"path", file.path}, {"hash", file.hash.empty() ? Json() : Json(file.hash)}});
  const bool isKnown = record.format != 0 && !record.files.empty();
  return {{"folder", record.scene},
          {"format", record.format == 0 ? Json() : Json(record.format)},
          {"hash", isKnown ? Json(SceneHash(record.files, record.format)) : Json()},
          {"files", files}};
}

}  // namespace

std::string_view SeverityText(TroubleKind kind) {
  constexpr std::string_view kWords[] = {"warning", "error", "fatal", "note"};
  return kWords[static_cast<std::size_t>(kind)];
}

void AddWarning(RunRecord& record, const Message& message) {
  for (Message& known : record.warnings)
    if (known.code == message.code && known.text == message.text && known.file == message.file) {
      ++known.count;
      return;
    }
  if (record.warnings.size() < kMostWarnings) record.warnings.push_back(message);
}

std::string MessageJson(const Message& message) {
  Json line = {{"type", "message"}};
  line.update(JsonOf(message));
  return Dump(line, -1);
}

std::string ReportText(const RunRecord& record) {
  Json report = {
      {"program", "zephlore"},
      {"versions",
       {{"zephlore", ZP_VERSION}, {"compiler", "gcc " __VERSION__}, {"zstd", ZSTD_versionString()}}},
      {"started", TimeText(record.startTime)},
      {"elapsed_s", record.elapsed},
      {"status", record.status},
      {"failure", record.failure ? JsonOf(*record.failure) : Json()},
      {"command", record.words},
      {"options", Json::parse(record.options.empty() ? "{}" : record.options)},
      {"scene", SceneJson(record)},
      {"machine", MachineJson(record)},
      {"files_written", WrittenPaths()}};
  Json warnings = Json::array();
  for (const Message& message : record.warnings) {
    warnings.push_back(JsonOf(message));
    warnings.back()["count"] = message.count;
  }
  report["warnings"] = warnings;
  report.update(JsonOf(record.frames.empty() ? FrameRecord() : record.frames.back()));
  if (record.frames.empty())
    for (const char* member : {"camera", "width", "height", "region", "seed", "sample"})
      report[member] = Json();
  if (record.frames.size() > 1)
    for (const FrameRecord& frame : record.frames) report["frames"].push_back(JsonOf(frame));
  return Dump(report, 2) + '\n';
}

std::string WriteReport(const std::string& path, const RunRecord& record) {
  OutputFile file;
  if (std::string reason = file.Open(path); !reason.empty()) return reason;
  const std::string text = ReportText(record);
  file.Write(text.data(), text.size());
  if (std::string reason = file.Trouble(); !reason.empty()) return reason;
  return file.Commit();
}

}  // namespace zp

// app/run_log.h: all that is told of a run goes through here, from any thread: to the error stream, as text
// or as a JSON object a line, into the report, and to whoever watches.

#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "job/run_progress.h"
#include "job/run_record.h"

namespace zp {

// Before the words are understood: wrong ones are told in the form that `--progress` asks for, and in the
// report, where these two can be made out among them.
void OpenRunLog(int argc, char** argv);
// Writes the report, if one was asked for, once. The status to end with: what was given, or a failure where
// the report could not be written.
int CloseRunLog(int status);
// There is nothing to report.
void DropReport();

// Hears of all work and troubles from now on, and shows progress in the form "line", "json" or none.
void StartRunLog(std::string_view form);

// Tells it on the error stream: a failure with the program's name before it, an error as such, in text no
// warnings.
void Say(const Message& message);
// Tells it where lines are JSON, and in the report.
void Note(const Message& message);
// A frame that is initialised, of which `first` passes are rendered already; how far it has come; its end.
void BeginFrame(const FramePlan& plan, std::uint32_t first);
void TellFrame(const FrameReport& report, const FrameStanding& standing);
void EndFrame(const FrameStanding& standing);

// Calls with the record, which nobody else has meanwhile.
void WithRecord(const std::function<void(RunRecord&)>& call);
RunProgress CurrentProgress();

struct LogLine {
  double seconds = 0;  // since the run began
  std::string severity, text;
};
// What was told so far, from a line on.
std::vector<LogLine> LogLines(std::size_t first);

}  // namespace zp

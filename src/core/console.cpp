#include "core/console.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>

namespace zp {
namespace {

bool consoleQuiet = false;
TroubleSink troubleSink = nullptr;

void Put(std::string_view text) {
  if (!consoleQuiet) std::fwrite(text.data(), 1, text.size(), stdout);
}

void End() {
  Put("\n");
  if (!consoleQuiet) std::fflush(stdout);
}

// One value in a field of 16 with a blank before and behind it. A wider value widens the row.
void PutFloat(float value, int decimals) {
  char text[512];
  const int length = std::snprintf(text, sizeof text, " %16.*f ", decimals, static_cast<double>(value));
  if (length > 0) Put({text, static_cast<std::size_t>(length)});
}

void PutInteger(std::uint64_t value) {
  char text[32];
  const int length = std::snprintf(text, sizeof text, " %16llu ", static_cast<unsigned long long>(value));
  if (length > 0) Put({text, static_cast<std::size_t>(length)});
}

void PutUnit(std::string_view unit) {
  if (unit.empty()) return;
  Put("[ ");
  Put(unit);
  Put(" ]");
}

// A row that starts with `start`, unless the sink has told of it.
void Tell(TroubleKind kind, std::string_view start, std::string_view message, TroubleMark mark) {
  const std::string_view text = message.substr(0, message.find_last_not_of(" \n") + 1);
  if (troubleSink != nullptr && troubleSink({kind, text, mark.code, mark.file})) return;
  Put(start);
  PrintLine(message);
}

}  // namespace

void SetConsoleQuiet(bool quiet) { consoleQuiet = quiet; }
void SetTroubleSink(TroubleSink sink) { troubleSink = sink; }

void PrintRule() {
  Put(std::string(80, '_'));
  Put("\n");
  End();
}

void PrintLine(std::string_view message) {
  Put(message);
  End();
}

void PrintWarning(std::string_view message, TroubleMark mark) {
  Tell(TroubleKind::kWarning, "warning :( \t", message, mark);
}
void PrintError(std::string_view message, TroubleMark mark) {
  Tell(TroubleKind::kError, "error :( \t", message, mark);
}
void PrintBareError(std::string_view message, TroubleMark mark) {
  Tell(TroubleKind::kError, "", message, mark);
}
void PrintFatal(std::string_view message, TroubleMark mark) { Tell(TroubleKind::kFatal, "", message, mark); }

void PrintFloatRow(std::string_view name, float value, std::string_view unit, int decimals) {
  Put(name);
  PutFloat(value, decimals);
  PutUnit(unit);
  End();
}

void PrintIntegerRow(std::string_view name, std::uint64_t value, std::string_view unit) {
  Put(name);
  PutInteger(value);
  PutUnit(unit);
  End();
}

void PrintVectorRow(std::string_view name, Vec3 value, std::string_view unit) {
  Put(name);
  for (int i = 0; i < 3; ++i) PutFloat(value[i], 4);
  PutUnit(unit);
  End();
}

void PrintTwoValueRow(std::string_view name1, float value1, std::string_view unit1, std::string_view name2,
                      float value2, std::string_view unit2) {
  Put(name1);
  PutFloat(value1, 4);
  PutUnit(unit1);
  PrintFloatRow(name2, value2, unit2);
}

void PrintCountRow(std::string_view name, std::uint64_t count, float megabytes) {
  Put(name);
  PutInteger(count);
  char text[512];
  const int length = std::snprintf(text, sizeof text, "%16.4f ", static_cast<double>(megabytes));
  if (length > 0) Put({text, static_cast<std::size_t>(length)});
  PutUnit("M bytes");
  End();
}

namespace {

void EndProgress(std::string_view unit) {
  PutUnit(unit);
  Put("\r");
  if (!consoleQuiet) std::fflush(stdout);
}

}  // namespace

void PrintProgressRow(std::string_view name, std::uint64_t value, std::string_view unit) {
  Put(name);
  PutInteger(value);
  EndProgress(unit);
}

void PrintProgressRow(std::string_view name, float value, std::string_view unit) {
  Put(name);
  PutFloat(value, 4);
  EndProgress(unit);
}

std::int64_t ProcessorMilliseconds() {
  return static_cast<std::int64_t>(static_cast<double>(std::clock()) * 1000.0 / CLOCKS_PER_SEC);
}

std::int64_t WallTicks() {
  using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
  return std::chrono::duration_cast<Ticks>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace zp

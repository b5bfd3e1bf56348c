// core/console.h: the rows that the library prints on standard output, and its clocks.
// Each call ends its row and flushes, unless it says otherwise. Rows come from the calling thread alone.

#pragma once

#include <cstdint>
#include <string_view>

#include "core/vec.h"

namespace zp {

inline constexpr float kMegabytesPerByte = 9.536743e-07f;  // 1 / 1,048,576

void SetConsoleQuiet(bool quiet);  // true: print nothing at all

enum class TroubleKind { kWarning, kError, kFatal };
// Something wrong with the scene, a file or the machine. A row is one way to tell of it.
struct Trouble {
  TroubleKind kind;
  std::string_view text;  // what and why, one line, as in the row but for the words that start it
  std::string_view code;
  std::string_view file;  // that it is about; empty without one
};
// What programs tell a trouble by: a code of words that never changes, and the file that it is about.
struct TroubleMark {
  std::string_view code;
  std::string_view file = {};
};
// Hears of every trouble, quiet or not, on the thread that has it. False: the row is wanted as well.
using TroubleSink = bool (*)(const Trouble&);
void SetTroubleSink(TroubleSink sink);  // null, at first: rows alone

void PrintRule();                          // 80 underscores and two line ends
void PrintLine(std::string_view message);  // the message and a line end
void PrintWarning(std::string_view message, TroubleMark mark);
void PrintError(std::string_view message, TroubleMark mark);
void PrintBareError(std::string_view message, TroubleMark mark);  // without the words that start an error
void PrintFatal(std::string_view message,
                TroubleMark mark);  // likewise; the caller ends the process behind it
// name, value in a field of 16, unit in brackets; an empty unit leaves the brackets out.
void PrintFloatRow(std::string_view name, float value, std::string_view unit, int decimals = 4);
void PrintIntegerRow(std::string_view name, std::uint64_t value, std::string_view unit);
void PrintVectorRow(std::string_view name, Vec3 value, std::string_view unit);
void PrintTwoValueRow(std::string_view name1, float value1, std::string_view unit1, std::string_view name2,
                      float value2, std::string_view unit2);
// name, a count without decimals and its size in megabytes.
void PrintCountRow(std::string_view name, std::uint64_t count, float megabytes);
// An integer row ended by a carriage return: the next row overwrites it.
void PrintProgressRow(std::string_view name, std::uint64_t value, std::string_view unit);
void PrintProgressRow(std::string_view name, float value, std::string_view unit);  // four decimals

// Processor time of the process, milliseconds.
std::int64_t ProcessorMilliseconds();
// Wall clock in ticks of 100 ns.
std::int64_t WallTicks();

}  // namespace zp

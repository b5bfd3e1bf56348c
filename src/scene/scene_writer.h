// scene/scene_writer.h: scene text on its way out, as the reader takes it back.

#pragma once

#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

#include "core/vec.h"

namespace zp {

struct SceneWriter {
  std::string text;
  int depth = 0;  // blocks that are open
};

void OpenBlock(SceneWriter& writer, std::string_view keyword);
void CloseBlock(SceneWriter& writer);
void WriteComment(SceneWriter& writer, std::string_view comment);
void WriteKeyword(SceneWriter& writer, std::string_view keyword);  // alone
void WriteWord(SceneWriter& writer, std::string_view keyword, std::string_view word);
// What a string cannot hold, quotes and control characters, becomes '_'.
void WriteString(SceneWriter& writer, std::string_view keyword, std::string_view string);
// Each number in the fewest digits that read back as the same float; what is no finite one is 0.
void WriteNumbers(SceneWriter& writer, std::string_view keyword, std::span<const float> numbers);
inline void WriteNumbers(SceneWriter& writer, std::string_view keyword,
                         std::initializer_list<float> numbers) {
  WriteNumbers(writer, keyword, std::span(numbers.begin(), numbers.size()));
}
inline void WriteTriple(SceneWriter& writer, std::string_view keyword, Vec3 triple) {
  WriteNumbers(writer, keyword, {triple.x, triple.y, triple.z});
}
// Appends that number, as above.
void AppendNumber(std::string& text, float number);

// A name that is one token of scene text, and that OBJ files can hold: other bytes become '_'.
std::string TokenOf(std::string_view name);

}  // namespace zp

#include "geometry/obj_lines.h"

#include <fast_float/fast_float.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <new>
#include <span>
#include <type_traits>
#include <utility>

#include "core/console.h"
#include "core/files.h"
#include "core/release.h"
#include "core/settings.h"
#include "core/stop.h"
#include "core/threads.h"
#include "imaging/imaging.h"
#include "shading/shading.h"

namespace zp {

namespace {

constexpr std::size_t kMostLine = 1U << 20U;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool EndsLine(char c) { return c == '\0' || c == '\n' || c == '\r'; }
bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

FaceRules RulesOfFormat() {
  return settings.format >= 2 ? FaceRules{true, kMostLine} : FaceRules{false, 4096};
}

namespace {

// Digits, a point and digits, with a blank or the line's end behind them: as most numbers are. Both the
// digits and the power of ten are doubles, so that their quotient is the double nearest to the number. False,
// with `cursor` untouched, for all else.
bool ParseDecimal(const char*& cursor, double& value) {
  constexpr double kPowers[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
  constexpr int kMostDigits = 15;
  std::uint64_t digits = 0;
  const char* p = cursor;
  const auto take = [&] {
    const char* const begin = p;
    for (unsigned digit;
         (digit = static_cast<unsigned char>(*p) - unsigned{'0'}) <= 9 && p - cursor <= kMostDigits; ++p)
      digits = digits * 10 + digit;
    return p - begin;
  };
  if (take() == 0 || *p++ != '.') return false;
  const auto decimals = take();
  if (decimals == 0 || p - cursor > kMostDigits || !(IsBlank(*p) || EndsLine(*p))) return false;
  value = static_cast<double>(digits) / kPowers[decimals];
  cursor = p;
  return true;
}

}  // namespace

float ParseFloat(const char*& cursor, const char* end) {
  while (IsBlank(*cursor)) ++cursor;
  const bool negative = *cursor == '-';
  if (*cursor == '-' || *cursor == '+') ++cursor;
  double value = 0;
  if (ParseDecimal(cursor, value)) return static_cast<float>(negative ? -value : value);
  cursor = fast_float::from_chars(cursor, end, value).ptr;
  while (!IsBlank(*cursor) && !EndsLine(*cursor)) ++cursor;
  return static_cast<float>(negative ? -value : value);
}

namespace {

constexpr std::int64_t kLargestIndex = 1LL << 40U;

// One index of a corner; moves `cursor` to the character that ends it. What is no number counts as 0.
std::int64_t ParseIndex(const char*& cursor) {
  const bool negative = *cursor == '-';
  if (*cursor == '-' || *cursor == '+') ++cursor;
  std::int64_t value = 0;
  for (;;) {
    const unsigned digit = static_cast<unsigned char>(*cursor) - unsigned{'0'};
    if (digit > 9) break;
    value = value * 10 + digit;
    if (value > kLargestIndex) [[unlikely]]
      value = kLargestIndex;
    ++cursor;
  }
  while (*cursor != '/' && !IsBlank(*cursor) && !EndsLine(*cursor)) ++cursor;
  return negative ? -value : value;
}

// `index` as files write it, to a place in an array of `count` entries so far. Empty stays empty.
std::uint32_t Resolve(std::int64_t index, std::size_t count) {
  if (index == 0) return kMissing;
  const std::int64_t resolved = index > 0 ? index - 1 : static_cast<std::int64_t>(count) + index;
  return resolved < 0 || resolved >= static_cast<std::int64_t>(kMissing)
             ? kMissing
             : static_cast<std::uint32_t>(resolved);
}

// The indices of one corner as they stand in the file, 0 where there is none.
struct RawCorner {
  std::int64_t position = 0, uv = 0, normal = 0;
};

// The next corner of a face; moves `cursor` behind it. False if there is none.
bool ParseCorner(const char*& cursor, RawCorner& corner) {
  while (IsBlank(*cursor)) ++cursor;
  if (EndsLine(*cursor) || *cursor == '#') return false;  // no number of a remark is a corner
  corner = {ParseIndex(cursor), 0, 0};
  if (*cursor != '/') return true;
  corner.uv = ParseIndex(++cursor);
  if (*cursor != '/') return true;
  corner.normal = ParseIndex(++cursor);
  while (!IsBlank(*cursor) && !EndsLine(*cursor)) ++cursor;
  return true;
}

// The second word of a line; empty without one.
std::string_view SecondWord(const char* cursor, const char* end) {
  const auto skip = [&](bool space) {
    while (cursor < end && *cursor != '\0' && IsSpace(*cursor) == space) ++cursor;
  };
  skip(true);
  skip(false);
  skip(true);
  const char* begin = cursor;
  skip(false);
  return {begin, static_cast<std::size_t>(cursor - begin)};
}

// What a thread parses, piece after piece in the same storage.
struct RawArrays {
  std::vector<Vec3> positions;
  std::vector<Vec2> uvs;
  std::vector<Vec3> normals;
  std::vector<std::uint32_t> faces;

  void Clear() {
    positions.clear();
    uvs.clear();
    normals.clear();
    faces.clear();
  }
};

// Large blocks of one thread, which arrays of words are copied to, one behind the other: thousands of arrays
// would each bring their own small pages.
struct BlockStore {
  std::vector<RawVector<std::byte>> blocks = {};
  std::size_t used = 0;  // of the last one

  template <class T>
  std::span<const T> Keep(const std::vector<T>& array) {
    static_assert(std::is_trivially_copyable_v<T> && alignof(T) == alignof(std::uint32_t));
    constexpr std::size_t kBlock = std::size_t{4} << 20U;
    const std::size_t bytes = array.size() * sizeof(T);
    if (bytes == 0) return {};
    if (blocks.empty() || blocks.back().size() - used < bytes) {
      blocks.emplace_back().resize(std::max(kBlock, bytes));
      used = 0;
    }
    void* to = std::memcpy(blocks.back().data() + used, array.data(), bytes);
    used += bytes;
    return {static_cast<const T*>(to), array.size()};
  }
  void Keep(const RawArrays& arrays, ObjPiece& piece) {
    piece.positions = Keep(arrays.positions);
    piece.uvs = Keep(arrays.uvs);
    piece.normals = Keep(arrays.normals);
    piece.faces = Keep(arrays.faces);
  }
  void MoveTo(ObjLines& lines) { std::move(blocks.begin(), blocks.end(), std::back_inserter(lines.blocks)); }
};

// Fills a piece line by line.
struct PieceParser {
  ObjPiece& piece;
  RawArrays& arrays;
  FaceRules rules;
  bool atStart = false;  // of the text

  void AddFace(std::span<RawCorner> corners) {
    std::int64_t least = 0, uvs = 0, normals = 0;
    for (RawCorner& c : corners) {
      if (piece.smooth == false) c.normal = 0;
      least = std::min({least, c.position, c.uv, c.normal});
      uvs |= c.uv;
      normals |= c.normal;
    }
    const auto count = static_cast<std::uint32_t>(corners.size());
    piece.triangles = piece.triangles && count == 3;
    piece.unnamed += piece.shaderNames.empty();
    ++piece.faceCount;
    if (least < 0) return AddBackwards(corners);
    const std::size_t begin = arrays.faces.size();
    arrays.faces.resize(begin + 1 + count * (1U + (uvs != 0) + (normals != 0)));
    std::uint32_t* word = &arrays.faces[begin];
    *word++ = count | (uvs != 0 ? FaceCursor::kUvs : 0) | (normals != 0 ? FaceCursor::kNormals : 0);
    for (const RawCorner& c : corners) {
      *word++ = Resolve(c.position, 0);
      if (uvs != 0) *word++ = Resolve(c.uv, 0);
      if (normals != 0) *word++ = Resolve(c.normal, 0);
    }
  }

  void AddBackwards(std::span<const RawCorner> corners) {
    const auto add = [&](std::uint64_t word) { arrays.faces.push_back(static_cast<std::uint32_t>(word)); };
    add(corners.size() | FaceCursor::kBackwards);
    add(arrays.positions.size());
    add(arrays.uvs.size());
    add(arrays.normals.size());
    for (const RawCorner& c : corners)
      for (const std::int64_t index : {c.position, c.uv, c.normal}) {
        add(static_cast<std::uint64_t>(index));
        add(static_cast<std::uint64_t>(index) >> 32U);
      }
  }

  void AddPolygon() {
    auto& runs = piece.polygonRuns;
    if (piece.firstPolygon == kMissing) piece.firstPolygon = piece.faceCount;
    if (runs.empty() || runs.back().group != piece.group) runs.push_back({piece.group, 0});
    ++runs.back().polygons;
  }

  void AddSliver() { ++piece.slivers; }

  void ParseFace(const char* cursor) {
    RawCorner corners[5];
    std::size_t count = 0;
    while (count < 5 && ParseCorner(cursor, corners[count])) ++count;
    ++piece.faceLines;
    if (count == 5 && corners[4].position != 0) return ParsePolygon(cursor, corners);
    if (count < 3 || corners[2].position == 0) return AddSliver();
    AddFace({corners, count > 3 && corners[3].position != 0 ? std::size_t{4} : std::size_t{3}});
  }

  // A face of the five corners and what follows. No corner counts behind the first that has no position.
  void ParsePolygon(const char* cursor, std::span<const RawCorner> first) {
    if (!rules.anyCorners) return AddPolygon();
    std::vector<RawCorner> corners(first.begin(), first.end());
    RawCorner corner;
    while (ParseCorner(cursor, corner)) corners.push_back(corner);
    const auto isEmpty = [](const RawCorner& c) { return c.position == 0; };
    corners.erase(std::find_if(corners.begin(), corners.end(), isEmpty), corners.end());
    if (corners.size() < 3) return AddSliver();
    AddFace(corners);
  }

  void TakeSmooth(bool smooth) {
    if (!piece.smooth) piece.inheritingSmooth = piece.faceCount;
    piece.smooth = smooth;
  }

  void TakeShader(std::string_view name) {
    auto& names = piece.shaderNames;
    if (!name.empty() && (names.empty() || names.back().name != name))
      names.push_back({piece.faceCount, std::string(name)});
  }

  void ParseLine(const char* line, const char* end) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // some programs begin a file with it
    if (std::exchange(atStart, false) && std::string_view(line, end).starts_with(kByteOrderMark))
      line += kByteOrderMark.size();
    const char* p = line;
    while (p < end && IsBlank(*p)) ++p;
    if (p >= end) return;
    const auto length = end - p;
    const auto number = [&] { return ParseFloat(p, end); };
    if (*p == 'v') {
      if (length > 1 && IsBlank(p[1])) {
        p += 2;
        const float x = number(), y = number(), z = number();
        arrays.positions.push_back({x, y, z});
      } else if (length > 2 && p[1] == 't' && IsBlank(p[2])) {
        p += 3;
        const float u = number(), v = number();
        arrays.uvs.push_back({u, v});
      } else if (length > 2 && p[1] == 'n' && IsBlank(p[2])) {
        p += 3;
        const float x = number(), y = number(), z = number();
        arrays.normals.push_back({x, y, z});
      }
      return;
    }
    if (length > 1 && IsBlank(p[1])) {
      if (*p == 'f') ParseFace(p + 2);
      if (*p == 's') TakeSmooth(SecondWord(p, end) != "off");
      if (*p == 'o' || *p == 'g') piece.group = SecondWord(p, end);
      return;
    }
    // Intended: only at the very start of the line.
    if (end - line >= 6 && std::memcmp(line, "usemtl", 6) == 0) TakeShader(SecondWord(line, end));
  }

  // All whole lines of the text, and with `last` the rest too, behind which a line feed stands. Returns the
  // bytes used.
  std::size_t ParseLines(std::string_view text, bool last) {
    const char* cursor = text.data();
    const char* const end = cursor + text.size();
    while (cursor < end) {
      const auto* feed =
          static_cast<const char*>(std::memchr(cursor, '\n', static_cast<std::size_t>(end - cursor)));
      if (!feed && !last) break;
      const char* lineEnd = feed ? feed : end;
      if (static_cast<std::size_t>(lineEnd - cursor) < rules.lineLimit)
        ParseLine(cursor, lineEnd);
      else
        ++piece.longLines;
      cursor = feed ? feed + 1 : end;
    }
    return static_cast<std::size_t>(cursor - text.data());
  }
};

// A text that can be read from any place on.
struct ObjText {
  int file = -1;            // or, without one:
  std::string_view memory;  // the text
  std::size_t size = 0;     // of a file as it was when it was opened

  // Returns less than `size` bytes at the end, or where nothing more can be read.
  std::size_t Read(std::size_t offset, char* to, std::size_t count) const {
    if (file < 0) return offset < memory.size() ? memory.copy(to, count, offset) : 0;
    std::size_t done = 0;
    while (done < count) {
      const ssize_t got = pread(file, to + done, count - done, static_cast<off_t>(offset + done));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      done += static_cast<std::size_t>(got);
    }
    return done;
  }
};

// The lines that begin from `begin` to `end`, wherever the last of them ends. False if the text ends before
// `end`.
bool ParsePiece(const ObjText& text, std::size_t begin, std::size_t end, PieceParser& parser,
                std::vector<char>& buffer) {
  const std::size_t from = begin - (begin > 0), wanted = end - from;
  buffer.resize(std::max(buffer.size(), wanted));
  std::size_t size = text.Read(from, buffer.data(), wanted), first = 0;
  const auto findFeed = [&](std::size_t place) {
    const auto* feed = static_cast<const char*>(std::memchr(buffer.data() + place, '\n', size - place));
    return feed ? static_cast<std::size_t>(feed - buffer.data()) : size;
  };
  const bool whole = size == wanted;
  parser.atStart = begin == 0;
  if (begin > 0 && (first = findFeed(0)) == size) return whole;  // no line begins here
  if (begin > 0) ++first;
  first += parser.ParseLines({buffer.data() + first, size - first}, false);
  if (first == size) return whole;
  // The rest of the last line, as far as one may reach.
  std::size_t step = 4096;
  for (bool goesOn = whole; goesOn && size - first < parser.rules.lineLimit; step *= 2) {
    buffer.resize(std::max(buffer.size(), size + step));
    const std::size_t got = text.Read(from + size, buffer.data() + size, step), read = size + got;
    const std::size_t searched = std::exchange(size, read);
    size = findFeed(searched);
    goesOn = got == step && size == read;
  }
  buffer.resize(std::max(buffer.size(), size + 1));
  buffer[size] = '\n';
  parser.ParseLines({buffer.data() + first, size - first}, true);
  return whole;
}

void ParsePieces(const ObjText& text, std::size_t pieceBytes, ObjLines& lines) {
  const std::size_t size = text.file < 0 ? text.memory.size() : text.size;
  const std::size_t count = (size + pieceBytes - 1) / pieceBytes;
  lines.pieces.resize(count);
  bool ended = false, memoryIsShort = false;
#pragma omp parallel if (IsWorthThreads(size, 3))
  {
    std::vector<char> buffer;
    RawArrays arrays;
    BlockStore store;
#pragma omp for schedule(dynamic, 1) nowait
    for (std::size_t i = 0; i < count; ++i) {
      if (Stopping()) continue;
      try {
        arrays.Clear();
        PieceParser parser{lines.pieces[i], arrays, lines.rules};
        const bool whole = ParsePiece(text, i * pieceBytes, (i + 1) * pieceBytes, parser, buffer);
        store.Keep(arrays, lines.pieces[i]);
        if (i + 1 == count) ended = !whole;
      } catch (const std::bad_alloc&) {
#pragma omp atomic write
        memoryIsShort = true;
      }
    }
#pragma omp critical
    try {
      store.MoveTo(lines);
    } catch (const std::bad_alloc&) {
#pragma omp atomic write
      memoryIsShort = true;
    }
  }
  if (memoryIsShort) throw std::bad_alloc();
  if (text.file < 0) return;
  // What was written since the file was opened, and files whose system tells no size.
  std::vector<char> buffer;
  BlockStore store;
  for (std::size_t i = count; !ended && !Stopping(); ++i) {
    RawArrays arrays;
    ObjPiece& piece = lines.pieces.emplace_back();
    PieceParser parser{piece, arrays, lines.rules};
    ended = !ParsePiece(text, i * pieceBytes, (i + 1) * pieceBytes, parser, buffer);
    store.Keep(arrays, piece);
  }
  store.MoveTo(lines);
}

// A pipe, block by block.
void ParseBlocks(int file, ObjLines& lines) {
  std::vector<char> buffer(kMostLine);
  std::size_t held = 0;   // bytes of an unfinished line
  bool dropping = false;  // the rest of a line that is too long
  bool atStart = true;
  RawArrays arrays;
  BlockStore store;
  while (!Stopping()) {
    const ssize_t got = read(file, buffer.data() + held, buffer.size() - held);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    arrays.Clear();
    ObjPiece& piece = lines.pieces.emplace_back();
    PieceParser parser{piece, arrays, lines.rules, atStart};
    std::size_t size = held + static_cast<std::size_t>(got), begin = 0;
    if (dropping) {
      const auto* feed = static_cast<const char*>(std::memchr(buffer.data(), '\n', size));
      begin = feed ? static_cast<std::size_t>(feed - buffer.data()) + 1 : size;
      dropping = feed == nullptr;
    }
    begin += parser.ParseLines({buffer.data() + begin, size - begin}, false);
    atStart = parser.atStart;
    held = size - begin;
    if (held >= lines.rules.lineLimit) {
      held = 0;
      dropping = true;
      ++parser.piece.longLines;
    }
    std::memmove(buffer.data(), buffer.data() + begin, held);
    store.Keep(arrays, piece);
  }
  buffer[held] = '\n';
  arrays.Clear();
  ObjPiece& piece = lines.pieces.emplace_back();
  PieceParser{piece, arrays, lines.rules, atStart}.ParseLines({buffer.data(), held}, true);
  store.Keep(arrays, piece);
  store.MoveTo(lines);
}

void CountPolygons(ObjReport& report, const ObjPiece::PolygonRun& run, const std::string& groupBefore) {
  constexpr std::size_t kMostGroups = 64;  // enough for a report
  const std::string& group = run.group ? *run.group : groupBefore;
  report.polygons += run.polygons;
  const bool isNew = report.groups.empty() || report.groups.back().name != group;
  if (isNew && report.groups.size() == kMostGroups) return;
  if (isNew) report.groups.push_back({group, 0});
  report.groups.back().polygons += run.polygons;
}

// What the pieces say together, in the order of the text.
void SettlePieces(ObjLines& lines, bool namesShaders, ObjReport& report) {
  RawCounts before;
  std::size_t faces = 0;
  std::string group;
  std::int32_t shader = 0;
  bool smooth = true, named = false;
  for (ObjPiece& piece : lines.pieces) {
    piece.before = before;
    piece.facesBefore = faces;
    piece.smoothBefore = smooth;
    piece.shaders.push_back({0, shader});
    if (!named) report.unnamed += piece.unnamed;
    for (const auto& name : piece.shaderNames) {
      if (!namesShaders) break;
      shader = FindOrCreateShader(name.name);
      piece.shaders.push_back({name.face, shader});
      named = true;
    }
    for (const auto& run : piece.polygonRuns) CountPolygons(report, run, group);
    report.faces += piece.faceLines;
    report.slivers += piece.slivers;
    report.longLines += piece.longLines;
    before.positions += piece.positions.size();
    before.uvs += piece.uvs.size();
    before.normals += piece.normals.size();
    faces += piece.faceCount;
    smooth = piece.smooth.value_or(smooth);
    if (piece.group) group = *piece.group;
  }
  report.positions += before.positions;
  lines.positions.resize(before.positions);
  lines.uvs.resize(before.uvs);
  lines.normals.resize(before.normals);
}

void JoinPieces(ObjLines& lines) {
  const auto copy = [](const auto& from, auto& to, std::size_t place) {
    std::copy(from.begin(), from.end(), to.begin() + static_cast<std::ptrdiff_t>(place));
  };
#pragma omp parallel for schedule(static) if (IsWorthThreads(lines.positions.size(), 5))
  for (const ObjPiece& piece : lines.pieces) {
    copy(piece.positions, lines.positions, piece.before.positions);
    copy(piece.uvs, lines.uvs, piece.before.uvs);
    copy(piece.normals, lines.normals, piece.before.normals);
  }
}

}  // namespace

bool ReadObjLines(const std::string& path, bool namesShaders, ObjLines& lines, ObjReport& report) {
  const int file = HoldsBytes(path) ? open(path.c_str(), O_RDONLY | O_CLOEXEC) : -1;
  if (file < 0) {
    ++missingFiles;
    PrintError("object - cannot open " + path + "\n", {"model-missing", path});
    PrintRule();
    return false;
  }
  struct stat status = {};
  if (fstat(file, &status) == 0 && S_ISREG(status.st_mode))
    ParsePieces({file, {}, static_cast<std::size_t>(status.st_size)}, kObjPieceBytes, lines);
  else
    ParseBlocks(file, lines);
  close(file);
  SettlePieces(lines, namesShaders, report);
  JoinPieces(lines);
  return true;
}

void ReadObjLines(std::string_view text, std::size_t pieceBytes, ObjLines& lines, ObjReport& report) {
  ParsePieces({-1, text}, pieceBytes, lines);
  SettlePieces(lines, true, report);
  JoinPieces(lines);
}

void FaceCursor::Skip() {
  const std::size_t flags = *at_, corners = CornerCount();
  at_ += (flags & kBackwards) != 0 ? 4 + 6 * corners
                                   : 1 + corners * (1 + ((flags & kUvs) != 0) + ((flags & kNormals) != 0));
  ++face_;
}

void FaceCursor::TakeBackwards(std::vector<Corner>& corners, bool smooth) {
  const std::size_t counts[] = {piece_.before.positions + at_[1], piece_.before.uvs + at_[2],
                                piece_.before.normals + at_[3]};
  const std::uint32_t* word = at_ + 4;
  const auto take = [&](std::size_t count) {
    const auto index = static_cast<std::int64_t>(word[0] | static_cast<std::uint64_t>(word[1]) << 32U);
    word += 2;
    return Resolve(index, count);
  };
  for (Corner& c : corners) {
    c.position = take(counts[0]);
    c.uv = take(counts[1]);
    c.normal = take(counts[2]);
    if (!smooth) c.normal = kMissing;
    c.endNormal = kMissing;
  }
  at_ = word;
  ++face_;
}

}  // namespace zp

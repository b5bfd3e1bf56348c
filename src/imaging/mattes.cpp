#include "imaging/mattes.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "core/index.h"

namespace zp {
namespace {

std::uint32_t Scrambled(std::uint32_t word) { return std::rotl(word * 0xcc9e2d51U, 15) * 0x1b873593U; }

}  // namespace

void NameHash::Add(std::string_view bytes) {
  for (const char c : bytes) {
    tail_ |= static_cast<std::uint32_t>(static_cast<unsigned char>(c)) << 8U * (size_ % 4);
    if (++size_ % 4 != 0) continue;
    hash_ = std::rotl(hash_ ^ Scrambled(tail_), 13) * 5 + 0xe6546b64U;
    tail_ = 0;
  }
}

std::uint32_t NameHash::Id() const {
  std::uint32_t hash = hash_ ^ Scrambled(tail_);
  hash ^= size_;
  hash = (hash ^ hash >> 16U) * 0x85ebca6bU;
  hash = (hash ^ hash >> 13U) * 0xc2b2ae35U;
  hash ^= hash >> 16U;
  const std::uint32_t exponent = hash >> 23U & 255U;
  return exponent == 0 || exponent == 255 ? hash ^ 1U << 23U : hash;
}

// Rows get their pixels when they are needed: a file that claims a size takes no memory for it.
void MatteLists::Resize(std::int32_t width, std::int32_t height) {
  width_ = std::max(width, 0);
  rows_.assign(static_cast<std::size_t>(std::max(height, 0)), Row());
}

std::size_t MatteLists::Bytes() const {
  std::size_t bytes = 0;
  for (const Row& row : rows_) bytes += row.capacity() * sizeof(Link);
  return bytes;
}

void MatteLists::MakeRoom() {
  const auto width = static_cast<std::size_t>(width_);
  for (Row& row : rows_) {
    if (row.capacity() < row.size() + width)
      row.reserve(std::max(row.size(), width) + width + row.size() / 4);
    if (row.empty()) row.resize(width);
  }
}

void MatteLists::Count(std::int32_t x, std::int32_t y, std::uint32_t id) {
  Add(At(rows_, y), x, {id, 1}, kMostIds);
}

// Where there is no room for another id, the one of fewest samples goes. Of equals it is one that their
// numbers choose anew each time: so ids that come again are soon met twice, and stay, and the order of the
// list has no say.
void MatteLists::Add(Row& row, std::int32_t x, MatteEntry entry, std::size_t most) {
  Link* link = &At(row, x);
  Link* rarest = link;
  std::size_t ids = 1;
  while (link->entry.id != entry.id && link->entry.id != 0) {
    const auto rarity = [&entry](const MatteEntry& other) {
      return std::pair(other.count, (Scrambled(other.id) ^ entry.id) * 0x9e3779b1U);
    };
    if (rarity(link->entry) < rarity(rarest->entry)) rarest = link;
    if (link->next == kLast) break;
    link = &row[link->next];
    ++ids;
  }
  if (link->entry.id == entry.id || link->entry.id == 0) {
    link->entry = {entry.id, link->entry.count + entry.count};
    return;
  }
  if (ids >= most) {
    rarest->entry = entry;
    return;
  }
  link->next = static_cast<std::uint32_t>(row.size());
  row.push_back({entry, kLast});
}

bool MatteLists::AddRow(std::int32_t y, const std::vector<std::uint16_t>& numbers,
                        const std::vector<MatteEntry>& entries) {
  if (!IsIndex(rows_, y) || numbers.size() != static_cast<std::size_t>(width_)) return false;
  std::size_t sum = 0;
  for (const std::uint16_t number : numbers) sum += number;
  const auto isEmpty = [](const MatteEntry& entry) { return entry.id == 0; };
  if (sum != entries.size() || std::any_of(entries.begin(), entries.end(), isEmpty)) return false;
  if (At(rows_, y).empty()) At(rows_, y).resize(numbers.size());
  std::size_t next = 0;
  for (std::size_t x = 0; x < numbers.size(); ++x)
    for (std::size_t i = 0; i < numbers[x]; ++i)
      Add(At(rows_, y), static_cast<std::int32_t>(x), entries[next++], 65535);
  return true;
}

void MatteLists::TakeRow(std::int32_t y, std::vector<std::uint16_t>& numbers,
                         std::vector<MatteEntry>& entries) const {
  const Row& row = At(rows_, y);
  numbers.assign(static_cast<std::size_t>(width_), 0);
  entries.clear();
  for (std::size_t x = 0; x < std::min(row.size(), numbers.size()); ++x)
    for (const Link* link = &row[x]; link->entry.id != 0; link = &row[link->next]) {
      entries.push_back(link->entry);
      ++numbers[x];
      if (link->next == kLast) break;
    }
}

std::vector<MatteEntry> MatteLists::Ranked(std::int32_t x, std::int32_t y) const {
  const Row& row = At(rows_, y);
  std::vector<MatteEntry> ranked;
  if (row.empty()) return ranked;
  for (const Link* link = &At(row, x); link->entry.id != 0; link = &row[link->next]) {
    ranked.push_back(link->entry);
    if (link->next == kLast) break;
  }
  std::sort(ranked.begin(), ranked.end(), [](const MatteEntry& a, const MatteEntry& b) {
    return a.count > b.count || (a.count == b.count && a.id < b.id);
  });
  return ranked;
}

}  // namespace zp

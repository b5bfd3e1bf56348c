// Slots of wide nodes in the order in which they are worth a shadow ray's look.

#include <bit>
#include <cstring>
#include <utility>

#include "accel/accel.h"
#include "accel/tree.h"
#include "core/validate.h"

namespace zp {
namespace {

void SwapSlots(PackedNode& node, int a, int b) {
  for (auto& row : node.boxes) std::swap(row[a], row[b]);
  std::swap(node.child[a], node.child[b]);
  std::swap(node.word[a], node.word[b]);
}

struct OccluderTotals {
  float cost = 0;
  std::uint64_t hits = 0;
};

//   packed  the same node, if rays walk it, else null
OccluderTotals OrderNode(Object& object, std::uint32_t index, PackedNode* packed) {
  WideNode& node = object.wideNodes[index];
  OccluderTotals slots[8];
  OccluderTotals total;
  for (int i = 0; i < 8; ++i) {
    if (node.child[i] == kUnusedSlot) continue;
    if (node.count[i] != 0)
      slots[i] = {static_cast<float>(node.count[i]), node.log[i]};
    else
      slots[i] =
          OrderNode(object, node.child[i],
                    packed && packed->word[i] == 0 ? &object.packed->nodes[packed->child[i]] : nullptr);
    total.hits += slots[i].hits;
  }
  if (total.hits == 0) return total;
  float probability[8], ratio[8];
  for (int i = 0; i < 8; ++i) {
    probability[i] = static_cast<float>(slots[i].hits) / static_cast<float>(total.hits);
    ratio[i] = slots[i].cost > 0 ? probability[i] / slots[i].cost : 0.0f;
  }
  for (int i = 1; i < 8; ++i) {
    if (node.child[i] == kUnusedSlot) continue;
    for (int j = i; j > 0; --j) {
      if (!(ratio[j] > ratio[j - 1])) continue;
      std::swap(node.child[j], node.child[j - 1]);
      std::swap(node.count[j], node.count[j - 1]);
      std::swap(node.log[j], node.log[j - 1]);
      if (packed) SwapSlots(*packed, j, j - 1);
      std::swap(probability[j], probability[j - 1]);
      std::swap(slots[j], slots[j - 1]);
      std::swap(ratio[j], ratio[j - 1]);
    }
  }
  double expected = 0, reach = 1;
  for (int i = 0; i < 8; ++i) {
    if (node.child[i] == kUnusedSlot) continue;
    node.log[i] = std::bit_cast<std::uint32_t>(ratio[i]);
    expected += reach * 0.8 * static_cast<double>(slots[i].cost);
    reach *= 1.0 - static_cast<double>(probability[i]);
  }
  total.cost = static_cast<float>(1.0 + expected);
  return total;
}

}  // namespace

void OrderOccluders(Object& object) {
  if (object.wideNodes.empty() || object.packed == nullptr) return;
  OrderNode(object, 0, &object.packed->nodes[0]);
  if (kValidates) RequireSound(ValidateTree(object));
}

void ClearOccluderLogs() {
  for (Object& object : objectTable)
    for (WideNode& node : object.wideNodes) std::memset(node.log, 0, sizeof node.log);
}

}  // namespace zp

// Overlaying, containment, subtraction and the undoable change.
#include <algorithm>

#include "kr/message/internal/node_visit.h"
#include "kr/message/message.h"
#include "kr/message/vocabulary.h"

namespace kr {

using internal::Node;

void message::merge(const message& other) {
  if (rep_ == other.rep_ || other.empty()) return;
  if (empty()) {
    *this = other;
    return;
  }
  detach();
  const Rep* o = other.rep_;
  Rep* r = rep_;
  if (o->single_bool_id == Rep::kNoBool && o->bools) {
    if (!r->bools || r->single_bool_id != Rep::kNoBool) makeBoolTable();
    o->bools->for_each([r](uint32_t id, bool v) { r->bools->get_ref(id) = v; });
  } else if (o->single_bool_id != Rep::kNoBool) {
    refBool(o->single_bool_id) = o->single_bool;
  }
  o->u32s.for_each([r](uint32_t id, unsigned int v) { r->u32s.get_ref(id) = v; });
  for (const Node* n = o->fields; n; n = n->next)
    internal::visitNode(n, [&](const auto& v) { refStored<std::remove_cvref_t<decltype(v)>>(n->id) = v; });
  for (const Node* n = o->arrays; n; n = n->next)
    internal::visitNode(n, [&](const auto& v) { refStored<std::remove_cvref_t<decltype(v)>>(n->id) = v; });
}

bool message::includes(const message& other) const {
  std::vector<unsigned int> common = common_ids(other);
  std::vector<unsigned int> theirs = other.ids();
  if (common.size() != theirs.size()) return false;
  std::sort(common.begin(), common.end());
  std::sort(theirs.begin(), theirs.end());
  return common == theirs;
}

void message::exclude(const message& other) {
  if (other.empty()) return;
  for (unsigned int id : common_ids(other)) remove(id);
}

namespace {

// Whether a change may leave field `id` in an object: handler fields and the
// three standard fields a user edits.
bool changeMayKeep(unsigned int id) {
  const unsigned int group = id & 0xFF0000;
  if (group >= 0xFF0000) return false;
  return group != 0xFE0000 || id == STD_DESCR.id || id == STD_DISABLED.id || id == STD_NAME.id;
}

bool takeOut(std::vector<unsigned int>& sorted, unsigned int id) {
  auto it = std::lower_bound(sorted.begin(), sorted.end(), id);
  if (it == sorted.end() || *it != id) return false;
  sorted.erase(it);
  return true;
}

}  // namespace

void merge(message& obj, const message& change, message& undo) {
  undo = obj;
  obj.merge(change);
  std::vector<unsigned int> keep;
  for (unsigned int id : change.ids()) {
    if (changeMayKeep(id)) keep.push_back(id);
    else obj.remove(id);
  }
  std::sort(keep.begin(), keep.end());
  std::vector<unsigned int> removed = change.get(REMOVED_IDS);
  std::sort(removed.begin(), removed.end());
  for (unsigned int id : removed) obj.remove(id);
  for (unsigned int id : undo.ids()) {
    if (takeOut(keep, id)) continue;  // replaced: undo holds the old value
    if (std::binary_search(removed.begin(), removed.end(), id)) continue;  // comes back on undo
    undo.remove(id);
  }
  undo.insert(REMOVED_IDS, std::move(keep));
}

}  // namespace kr

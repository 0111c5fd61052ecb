// Field equality and the comparisons built on it.
#include "kr/message/internal/node_visit.h"
#include "kr/message/message.h"

namespace kr {
namespace {

using internal::Node;

template <class T>
bool valueEqual(const T& a, const T& b) {
  return a == b;
}
// Nested messages compare parsed, so field order inside them does not matter.
bool valueEqual(const flat_message& a, const flat_message& b) {
  return message(a) == message(b);
}
bool valueEqual(const std::vector<flat_message>& a, const std::vector<flat_message>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (!valueEqual(a[i], b[i])) return false;
  return true;
}

// Whether `mine` (same id as `theirs`) holds an equal value.
bool nodeEqual(const Node* mine, const Node* theirs) {
  bool equal = false;
  internal::visitNode(theirs, [&](const auto& v) {
    using VN = internal::ValueNode<std::remove_cvref_t<decltype(v)>>;
    equal = valueEqual(static_cast<const VN*>(mine)->value, v);
  });
  return equal;
}

}  // namespace

template <class F>
void message::forEachCommon(const message& other, F&& f) const {
  const Rep* o = other.rep_;
  auto boolCommon = [&](uint32_t id, bool v) {
    const bool* p = findBool(id);
    if (p && *p == v) f(id);
  };
  if (o->single_bool_id != Rep::kNoBool) boolCommon(o->single_bool_id, o->single_bool);
  else if (o->bools) o->bools->for_each(boolCommon);
  o->u32s.for_each([&](uint32_t id, unsigned int v) {
    const unsigned int* p = rep_->u32s.find(id);
    if (p && *p == v) f(id);
  });
  for (const Node* n = o->fields; n; n = n->next) {
    const Node* mine = findNode(rep_->fields, n->id);
    if (mine && nodeEqual(mine, n)) f(n->id);
  }
  for (const Node* n = o->arrays; n; n = n->next) {
    const Node* mine = findNode(rep_->arrays, n->id);
    if (mine && nodeEqual(mine, n)) f(n->id);
  }
}

std::vector<unsigned int> message::common_ids(const message& other) const {
  std::vector<unsigned int> out;
  forEachCommon(other, [&](uint32_t id) { out.push_back(id); });
  return out;
}

bool message::operator==(const message& other) const {
  if (rep_ == other.rep_) return true;
  unsigned int c = 0;
  forEachCommon(other, [&](uint32_t) { ++c; });
  return count() == c && other.count() == c;
}

}  // namespace kr

// Dispatch on the kind bits of a list node to its typed value. Every
// operation that walks the scalar or array list (copy, free, compare,
// flatten) goes through here, so the set of kinds lives in one place.
#pragma once

#include "kr/message/message.h"

namespace kr::internal {

template <class T>
struct type_tag {
  using type = T;
};

// Calls f(type_tag<T>{}) with the value type of the kind in `id`'s kind
// bits and returns true; false for a kind that has no list node.
template <class F>
bool visitKind(uint32_t id, F&& f) {
  switch (id & kind::kMask) {
    case kind::kU64: f(type_tag<unsigned long long>{}); return true;
    case kind::kAddr6: f(type_tag<IPAddr6>{}); return true;
    case kind::kString: f(type_tag<std::string>{}); return true;
    case kind::kMessage: f(type_tag<flat_message>{}); return true;
    case kind::kRaw: f(type_tag<std::vector<unsigned char>>{}); return true;
    case kind::kArray | kind::kBool: f(type_tag<std::vector<bool>>{}); return true;
    case kind::kArray | kind::kU32: f(type_tag<std::vector<unsigned int>>{}); return true;
    case kind::kArray | kind::kU64: f(type_tag<std::vector<unsigned long long>>{}); return true;
    case kind::kArray | kind::kAddr6: f(type_tag<std::vector<IPAddr6>>{}); return true;
    case kind::kArray | kind::kString: f(type_tag<std::vector<std::string>>{}); return true;
    case kind::kArray | kind::kMessage: f(type_tag<std::vector<flat_message>>{}); return true;
    case kind::kArray | kind::kRaw: f(type_tag<std::vector<std::vector<unsigned char>>>{}); return true;
    default: return false;
  }
}

// Calls f(value) with the node's value as its real type and returns true;
// returns false, without calling f, for a node of an unknown kind.
template <class NodeT, class F>
bool visitNode(NodeT* n, F&& f) {
  return visitKind(n->id, [&](auto tag) {
    using VN = ValueNode<typename decltype(tag)::type>;
    using Q = std::conditional_t<std::is_const_v<NodeT>, const VN, VN>;
    f(static_cast<Q*>(n)->value);
  });
}

// A new node in `into` holding a copy of `n`'s value, or null for an
// unknown kind.
inline Node* copyNode(const Node* n, Rep& into) {
  Node* out = nullptr;
  visitNode(n, [&](const auto& v) {
    auto* c = into.newNode<std::remove_cvref_t<decltype(v)>>(n->id);
    c->value = v;
    out = c;
  });
  return out;
}

// Destroys a node of `owner`, giving its memory back unless it was carved
// from the owner's arena.
inline void freeNode(Rep& owner, Node* n) {
  visitNode(n, [&](auto& v) {
    using VN = ValueNode<std::remove_cvref_t<decltype(v)>>;
    VN* typed = static_cast<VN*>(n);
    if (owner.owns(n)) typed->~VN();
    else delete typed;
  });
}

// The memory a node of this kind takes, as the arena carves it.
inline size_t nodeSize(uint32_t id) {
  size_t size = 0;
  visitKind(id, [&](auto tag) { size = sizeof(ValueNode<typename decltype(tag)::type>); });
  return (size + 7) & ~size_t(7);
}

}  // namespace kr::internal

// Dispatch on the kind bits of a list node to its typed value. Every
// operation that walks the scalar or array list (copy, free, compare,
// flatten) goes through here, so the set of kinds lives in one place.
#pragma once

#include "kr/message/message.h"

namespace kr::internal {

// Calls f(value) with the node's value as its real type and returns true;
// returns false, without calling f, for a node of an unknown kind.
template <class NodeT, class F>
bool visitNode(NodeT* n, F&& f) {
  using Q = std::conditional_t<std::is_const_v<NodeT>, const Node, Node>;
  auto as = [n](auto* tag) -> auto& {
    using T = std::remove_pointer_t<decltype(tag)>;
    using VN = std::conditional_t<std::is_const_v<Q>, const ValueNode<T>, ValueNode<T>>;
    return static_cast<VN*>(n)->value;
  };
  switch (n->id & kind::kMask) {
    case kind::kU64: f(as((unsigned long long*)nullptr)); return true;
    case kind::kAddr6: f(as((IPAddr6*)nullptr)); return true;
    case kind::kString: f(as((std::string*)nullptr)); return true;
    case kind::kMessage: f(as((flat_message*)nullptr)); return true;
    case kind::kRaw: f(as((std::vector<unsigned char>*)nullptr)); return true;
    case kind::kArray | kind::kBool: f(as((std::vector<bool>*)nullptr)); return true;
    case kind::kArray | kind::kU32: f(as((std::vector<unsigned int>*)nullptr)); return true;
    case kind::kArray | kind::kU64: f(as((std::vector<unsigned long long>*)nullptr)); return true;
    case kind::kArray | kind::kAddr6: f(as((std::vector<IPAddr6>*)nullptr)); return true;
    case kind::kArray | kind::kString: f(as((std::vector<std::string>*)nullptr)); return true;
    case kind::kArray | kind::kMessage: f(as((std::vector<flat_message>*)nullptr)); return true;
    case kind::kArray | kind::kRaw: f(as((std::vector<std::vector<unsigned char>>*)nullptr)); return true;
    default: return false;
  }
}

// A new node holding a copy of `n`'s value, or null for an unknown kind.
inline Node* copyNode(const Node* n) {
  Node* out = nullptr;
  visitNode(n, [&](const auto& v) {
    out = new ValueNode<std::remove_cvref_t<decltype(v)>>{{n->id, nullptr}, v};
  });
  return out;
}

inline void freeNode(Node* n) {
  visitNode(n, [n](auto& v) { delete static_cast<ValueNode<std::remove_cvref_t<decltype(v)>>*>(n); });
}

}  // namespace kr::internal

#include "platform/flat_graph.h"

#include <bit>
#include <utility>

namespace orvia {

FlatGraph::Node FlatGraph::add(const Data& d) {
  nodes_.push_back(d);
  return static_cast<Node>(nodes_.size() - 1);
}

FlatGraph::Node FlatGraph::existing(const Object* object) {
  if (object && !object->is_immortal()) only_constants_ = false;
  existing_.push_back(object);
  return static_cast<Node>(existing_.size() - 1) | kExistingBit;
}

FlatGraph::Node FlatGraph::string(std::string_view utf8) {
  Data d{Kind::String};
  d.text = utf8;
  return add(d);
}

FlatGraph::Node FlatGraph::owned_string(std::string utf8) {
  owned_.push_front(std::move(utf8));
  return string(owned_.front());
}

FlatGraph::Node FlatGraph::signed_number(std::int64_t v) {
  Data d{Kind::Number};
  d.number_type = Number::Type::Signed;
  d.bits = static_cast<std::uint64_t>(v);
  return add(d);
}

FlatGraph::Node FlatGraph::unsigned_number(std::uint64_t v) {
  if (v <= static_cast<std::uint64_t>(INT64_MAX)) return signed_number(static_cast<std::int64_t>(v));
  Data d{Kind::Number};
  d.number_type = Number::Type::Unsigned;
  d.bits = v;
  return add(d);
}

FlatGraph::Node FlatGraph::real_number(double v) {
  Data d{Kind::Number};
  d.number_type = Number::Type::Real;
  d.bits = std::bit_cast<std::uint64_t>(v);
  return add(d);
}

FlatGraph::Node FlatGraph::dictionary(bool is_mutable) {
  Data d{Kind::Dictionary};
  d.is_mutable = is_mutable;
  ++containers_;
  return add(d);
}

FlatGraph::Node FlatGraph::array(bool is_mutable) {
  Data d{Kind::Array};
  d.is_mutable = is_mutable;
  ++containers_;
  return add(d);
}

void FlatGraph::link(Node container, Node key, Node value) {
  const auto e = static_cast<std::uint32_t>(edges_.size());
  edges_.push_back(Edge{key, value, kNone});
  Data& c = nodes_[container];
  if (c.last == kNone) {
    c.first = e;
  } else {
    edges_[c.last].next = e;
  }
  c.last = e;
  ++c.count;
}

void FlatGraph::put(Node dictionary, Node key, Node value) { link(dictionary, key, value); }
void FlatGraph::append(Node array, Node item) { link(array, kNone, item); }

void FlatGraph::clear() {
  nodes_.clear();
  edges_.clear();
  existing_.clear();
  owned_.clear();
  containers_ = 0;
  only_constants_ = true;
}

std::string_view FlatGraph::class_name(Node n) const {
  if (is_existing(n)) return existing_object(n) ? existing_object(n)->class_name() : std::string_view();
  const Data& d = nodes_[n];
  switch (d.kind) {
    case Kind::String: return "NSString";
    case Kind::Number: return "NSNumber";
    case Kind::Dictionary: return d.is_mutable ? "NSMutableDictionary" : "NSDictionary";
    case Kind::Array: return d.is_mutable ? "NSMutableArray" : "NSArray";
  }
  return {};
}

Ref<Object> FlatGraph::materialize(Node root) const {
  // Every node's object first (containers empty), then the containers filled: no walk along the
  // graph's references, so any shape (shared nodes, cycles) comes out as it is described.
  std::vector<Ref<Object>> made(nodes_.size());
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    const Data& d = nodes_[i];
    switch (d.kind) {
      case Kind::String: made[i] = str(d.text); break;
      case Kind::Number:
        made[i] = d.number_type == Number::Type::Real       ? Number::from_real(std::bit_cast<double>(d.bits))
                  : d.number_type == Number::Type::Unsigned ? Number::from_uint(d.bits)
                                                            : Number::from_int(static_cast<std::int64_t>(d.bits));
        break;
      case Kind::Dictionary: made[i] = make<Dictionary>(d.is_mutable); break;
      case Kind::Array: made[i] = make<Array>(d.is_mutable); break;
    }
  }
  auto object = [&](Node n) {
    return is_existing(n) ? Ref<Object>(const_cast<Object*>(existing_object(n))) : made[n];
  };
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    const Data& d = nodes_[i];
    if (d.kind == Kind::Dictionary) {
      auto* dict = static_cast<Dictionary*>(made[i].get());
      dict->reserve(d.count);
      for (std::uint32_t e = d.first; e != kNone; e = edges_[e].next) dict->append(object(edges_[e].key), object(edges_[e].value));
    } else if (d.kind == Kind::Array) {
      auto* array = static_cast<Array*>(made[i].get());
      for (std::uint32_t e = d.first; e != kNone; e = edges_[e].next) array->push_back(object(edges_[e].value));
    }
  }
  return root == kNone ? nullptr : object(root);
}

}  // namespace orvia

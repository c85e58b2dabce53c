// A small graph of new dictionaries, arrays, strings and numbers, with existing objects among them,
// described without making the objects: the keyed archiver writes it exactly as it writes the same
// graph made of objects, and `materialize` makes those objects when they are wanted.
//
// Each node is one object: a node used in two places is the same object in both (one UID in an
// archive), as two references to one object would be. Strings are kept as views: their bytes must
// outlive the graph's use unless added with `owned_string`.
#pragma once

#include <cstdint>
#include <forward_list>
#include <string>
#include <string_view>
#include <vector>

#include "platform/object.h"
#include "platform/value.h"

namespace orvia {

class FlatGraph {
 public:
  using Node = std::uint32_t;
  static constexpr Node kNone = UINT32_MAX;
  enum class Kind : std::uint8_t { String, Number, Dictionary, Array };

  // An object that exists already (written as that object is); it must outlive the graph's use.
  // Kept apart from the new objects' nodes, as a pointer.
  Node existing(const Object* object);
  static bool is_existing(Node n) { return n != kNone && (n & kExistingBit) != 0; }
  const Object* existing_object(Node n) const { return existing_[n & ~kExistingBit]; }
  // A new immutable string.
  Node string(std::string_view utf8);
  Node owned_string(std::string utf8);
  // A new number, as Number::from_int, from_uint and from_real make it.
  Node signed_number(std::int64_t v);
  Node unsigned_number(std::uint64_t v);
  Node real_number(double v);
  // New empty containers, filled in order by put and append.
  Node dictionary(bool is_mutable);
  Node array(bool is_mutable);
  void put(Node dictionary, Node key, Node value);
  void append(Node array, Node item);

  void clear();
  void reserve(std::size_t nodes, std::size_t edges, std::size_t existing) {
    nodes_.reserve(nodes);
    edges_.reserve(edges);
    existing_.reserve(existing);
  }
  bool empty() const { return nodes_.empty() && existing_.empty(); }
  // The new objects' nodes are numbered 0 to size() - 1.
  std::size_t size() const { return nodes_.size(); }
  std::size_t container_count() const { return containers_; }
  // True when every existing object in the graph lives as long as the process (constants), so the
  // graph may be written after whatever made it is gone.
  bool only_constants() const { return only_constants_; }

  // The objects of the graph; `root`'s object.
  Ref<Object> materialize(Node root) const;

  // For writers: a new object's node and its entries in order (dictionaries: key and value; arrays:
  // value only).
  struct Data {
    Kind kind;
    bool is_mutable = false;
    Number::Type number_type = Number::Type::Signed;
    std::uint32_t count = 0;  // entries
    std::uint32_t first = kNone, last = kNone;
    std::uint64_t bits = 0;  // numbers
    std::string_view text{};  // strings
  };
  struct Edge {
    Node key, value;
    std::uint32_t next;
  };
  const Data& node(Node n) const { return nodes_[n]; }
  const Edge& edge(std::uint32_t e) const { return edges_[e]; }
  std::string_view class_name(Node n) const;

 private:
  static constexpr Node kExistingBit = 0x80000000u;
  Node add(const Data& d);
  void link(Node container, Node key, Node value);
  std::vector<Data> nodes_;
  std::vector<Edge> edges_;
  std::vector<const Object*> existing_;
  std::forward_list<std::string> owned_;  // makes nothing until a string is owned
  std::size_t containers_ = 0;
  bool only_constants_ = true;
};

}  // namespace orvia

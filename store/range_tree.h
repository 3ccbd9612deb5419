#pragma once
// range_tree.h: disjoint ranges of identifiers in ascending order, one of which is the current one.

namespace kl::ranges {

inline constexpr unsigned int kWidth = 64;  // ranges of a leaf, children of a branch
inline constexpr unsigned int kNoKey = 0xFFFFFFFF;

struct Branch;

// What leaves and branches have in common.  `key` and `value` are
//     in a leaf    the last and the first identifier of range i
//     in a branch  the highest key below child i, and a bound: no range below child i spans more
// A span is last - first, one less than the number of identifiers.
struct Node {
  Branch* parent = nullptr;
  unsigned int count = 0;
  const bool isLeaf;
  unsigned int key[kWidth];  // kNoKey from `count` on
  unsigned int value[kWidth];

 protected:
  explicit Node(bool leaf);
  ~Node() = default;
};

struct Leaf final : Node {
  Leaf() : Node(true) {}
  unsigned int bound = 0;  // what the branch above has as its value
  Leaf* previous = nullptr;
  Leaf* next = nullptr;
};

struct Branch final : Node {
  Branch() : Node(false) {}
  Node* child[kWidth];
};

// Where a range stands.  Changes of the tree make it worthless, unless they say otherwise.
struct Place {
  Leaf* leaf;
  unsigned int at;

  unsigned int first() const { return leaf->value[at]; }
  unsigned int last() const { return leaf->key[at]; }
  bool isRange() const { return at < leaf->count; }
  bool operator==(const Place&) const = default;
};

// Ownership: owns its nodes.  Cost: logarithmic, but next() and the current range, which cost nothing.
class RangeTree {
 public:
  RangeTree();
  ~RangeTree();
  RangeTree(const RangeTree&) = delete;
  RangeTree& operator=(const RangeTree&) = delete;

  bool isEmpty() const { return root_->count == 0; }
  const Node* root() const { return root_; }

  // The first range that ends at `id` or above it, or the end.
  Place find(unsigned int id) const;
  Place lowest() const { return {first_, 0}; }
  // The largest range, of several the lowest.  Needs: there is one.
  Place findWidest();

  static Place next(Place place);
  // The range before this one or before the end; false if there is none.
  static bool stepBack(Place& place);

  // The current range; no range only while the tree is empty.
  Place current() const { return current_; }
  void setCurrent(Place place) { current_ = place; }

  // Puts a range before the one at `place`, and says where it stands.  The current range stays the same,
  // unless there was none.
  Place insert(Place place, unsigned int first, unsigned int last);
  // Takes a range out.  If it was the current one, the next one is; after the highest, the lowest.
  void erase(Place place);
  // Needs: the range still lies between its neighbours.  The place stays good.
  void setFirst(Place place, unsigned int first);
  void setLast(Place place, unsigned int last);

 private:
  void noteSpan(Leaf& leaf, unsigned int span);
  void split(Node& node);
  void addSibling(Node& left, Node& right);
  void passKeyUp(Node& node);
  void mergeIfSmall(Node& node);
  void mergeInto(Node& left, Node& right);
  void removeSlot(Node& node, unsigned int at);
  void removeEmpty(Node& node);
  void moveTail(Node& from, unsigned int begin, Node& to);
  void lowerRoot();

  Node* root_;
  Leaf* first_;
  Place current_;
};

}  // namespace kl::ranges

#pragma once
// word_tree.h: words of 64 identifiers each, in ascending order of their numbers.

#include <cstdint>

namespace kl::words {

inline constexpr int kWidth = 32;  // words of a leaf, children of a branch
inline constexpr int kNoKey = 0x7FFFFFFF;
inline constexpr int kLowestKey = -1;
inline constexpr std::uint64_t kUnknown = ~std::uint64_t{0};

// Bit i of word n stands for identifier 64 * n + i.
struct Word {
  std::uint64_t free;    // it is free
  std::uint64_t starts;  // it is the first one of a range
};

struct Branch;

// The common part of leaves and branches.  Key i is
//     in a leaf    the number of word i
//     in a branch  a number between the words below child i - 1, which are lower, and those below child i
struct Node {
  Branch* parent = nullptr;
  std::uint64_t largest = kUnknown;  // size of the largest range that starts below this node, if known
  int count = 0;
  const bool isLeaf;
  int key[kWidth];  // kNoKey from `count` on

 protected:
  explicit Node(bool leaf);
  ~Node() = default;
};

struct Leaf final : Node {
  Leaf() : Node(true) {}
  Leaf* previous = nullptr;
  Leaf* next = nullptr;
  Word word[kWidth];
};

struct Branch final : Node {
  Branch() : Node(false) {}
  Node* child[kWidth];
};

inline Leaf& leafOf(Node& node) { return static_cast<Leaf&>(node); }
inline Branch& branchOf(Node& node) { return static_cast<Branch&>(node); }

// The place of a word, or the one before the first.  Inserting or erasing a word makes it invalid.
struct Place {
  Leaf* leaf = nullptr;
  int at = -1;

  bool isWord() const { return at >= 0; }
  int number() const { return leaf->key[at]; }
  unsigned int firstId() const { return static_cast<unsigned int>(number()) << 6; }
  Word& word() const { return leaf->word[at]; }
  bool operator==(const Place&) const = default;
};

// Ownership: owns its nodes.  Cost: logarithmic, but lowest(), next(), previous() and the mark, which cost nothing.
class WordTree {
 public:
  WordTree();
  ~WordTree();
  WordTree(const WordTree&) = delete;
  WordTree& operator=(const WordTree&) = delete;

  bool isEmpty() const { return root_->count == 0; }
  Node& root() const { return *root_; }

  // The highest word with this number or a lower one, or the place before the first word.
  Place find(int number) const;
  // Needs: there is a word.
  Place lowest() const { return {first_, 0}; }
  // The word after this one, or after the place before the first; not a word behind the last.
  static Place next(Place place);
  // The word before this one, or the place before the first.
  static Place previous(Place place);

  // Needs: there is no word with this number, and `found` is what find() gives for it.
  Place insert(Place found, int number, Word word);
  void erase(Place place);

  // A place that follows its word wherever that moves.  Nowhere once its word is gone.
  Place marked() const { return mark_; }
  void mark(Place place) { mark_ = place; }

  // To be called where a word has changed: ranges that start there, or in the word before, may have another size.
  void forgetLargest(Place place);

 private:
  static void forget(Node& node);
  Place route(int number) const;
  Node& split(Node& node, int at, int key);
  void addSibling(Node& left, Node& right, int key);
  void moveTail(Node& from, int begin, Node& to);
  void mergeIfSmall(Node& node);
  void mergeInto(Node& left, Node& right);
  void remove(Node& node);
  void unlink(Leaf& leaf);
  void lowerRoot();

  Node* root_;
  Leaf* first_;
  Place mark_;
};

inline void WordTree::forgetLargest(Place place) {
  if (place.leaf->largest != kUnknown) forget(*place.leaf);
  if (place.at == 0 && place.leaf->previous != nullptr) forget(*place.leaf->previous);
}

}  // namespace kl::words

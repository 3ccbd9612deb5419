#!/usr/bin/env python3
"""Seeded changes of a header: each that breaks compiled programs is found, and none that does not is taken for one.

usage: layouts_test.py [COMPILER]
"""

import sys
import unittest

import layouts

HEADER = """
struct Rule {
  unsigned code;
  unsigned char right;
  short pair[2];
};
enum Level { kLow = 1, kHigh = 2 };
enum class Mode : unsigned char { kOff, kOn };
using Callback = void (*)(void* context, const Rule& rule);
class Base {
 public:
  virtual ~Base();
  virtual void begin(int ticks);
  virtual void end();
  void call(Callback how);
  int size() const { return size_; }

 private:
  int size_ = 0;
  char flags_ = 0;
};
class Other {
 public:
  long count;
};
class Derived : public Base, public Other {
 public:
  void end() override;
  class Part {
   public:
    int first;
    int second;
  };

 private:
  Part part_;
  double value_ = 0;
};
"""

BREAKS = {
    "a member more at the end": ("  char flags_ = 0;", "  char flags_ = 0;\n  long more_ = 0;"),
    "a member more in the padding": ("  char flags_ = 0;", "  char flags_ = 0;\n  char more_ = 0;"),
    "a member less": ("  double value_ = 0;\n", ""),
    "members change places": ("  unsigned code;\n  unsigned char right;", "  unsigned char right;\n  unsigned code;"),
    "members of the same size change places": ("    int first;\n    int second;", "    int second;\n    int first;"),
    "a public member of another type": ("  unsigned code;", "  int code;"),
    "a longer array": ("pair[2]", "pair[3]"),
    "a private member of another size": ("  int size_ = 0;", "  long size_ = 0;"),
    "a virtual function more in front": ("  virtual void begin", "  virtual void prepare();\n  virtual void begin"),
    "a virtual function more at the end": ("  virtual void end();", "  virtual void end();\n  virtual void more();"),
    "a virtual function less": ("  virtual void begin(int ticks);\n", ""),
    "virtual functions change places": ("  virtual void begin(int ticks);\n  virtual void end();",
                                        "  virtual void end();\n  virtual void begin(int ticks);"),
    "a virtual function takes something else": ("begin(int ticks)", "begin(long ticks)"),
    "a function is not virtual any more": ("  virtual void begin", "  void begin"),
    "a base less": ("class Derived : public Base, public Other {", "class Derived : public Base {"),
    "a base gets a virtual function": ("class Other {\n public:", "class Other {\n public:\n  virtual ~Other();"),
    "another value of an enumerator": ("kHigh = 2", "kHigh = 3"),
    "an enumerator in front": ("{ kOff, kOn }", "{ kNew, kOff, kOn }"),
    "another size of an enumeration": ("Mode : unsigned char", "Mode : unsigned int"),
    "a name for another type": ("using Callback = void (*)", "using Callback = int (*)"),
    "a class that is gone": ("class Other {\n public:\n  long count;\n};", "using Other = Rule;"),
}

HARMLESS = {
    "a comment": ("struct Rule {", "// What is allowed.\nstruct Rule {"),
    "another name of a private member": ("double value_", "double amount_"),
    "another type of a private member, of the same size": ("  int size_ = 0;", "  unsigned size_ = 0;"),
    "a function more": ("  virtual void end();", "  virtual void end();\n  void print() const;"),
    "a static function more": ("  virtual void end();", "  virtual void end();\n  static Base* make();"),
    "a static member more": ("  double value_ = 0;", "  double value_ = 0;\n  static int made_;"),
    "an enumerator more at the end": ("kHigh = 2", "kHigh = 2, kHighest = 3"),
    "a class more": ("class Other {", "class New { int x; virtual void f(); };\nclass Other {"),
    "a class more inside": ("  class Part {", "  struct Hint { int x; };\n  class Part {"),
    "a name of a type more": ("using Callback", "using Size = unsigned long;\nusing Callback"),
    "another name of an argument": ("void* context", "void* data"),
    "another order of what is no member": ("  int size() const { return size_; }\n", ""),
    "another body of an inline function": ("return size_;", "return size_ + 0;"),
    "another first value of a member": ("double value_ = 0", "double value_ = 1"),
    "an attribute": ("  int size() const", "  [[nodiscard]] int size() const"),
    "a declaration of a class in front": ("struct Rule {", "class Derived;\nstruct Rule {"),
    "a friend": (" private:\n  int size_", " private:\n  friend class Other;\n  int size_"),
    "a function of the namespace": ("class Other {", "int version();\nclass Other {"),
    "a template": ("class Other {", "template <class T> struct Box { T t; };\nclass Other {"),
    "an override that was inherited": ("  void end() override;", "  void end() override;\n  void begin(int) override;"),
    "a default argument": ("begin(int ticks)", "begin(int ticks = 1)"),
}

COMPILER = sys.argv.pop(1) if len(sys.argv) > 1 else "g++"


def all_layouts():
    """The lines of the header and of each variant, all compiled at once in namespaces of their own."""
    variants = {"unchanged": HEADER}
    for name, (text, other) in {**BREAKS, **HARMLESS}.items():
        assert HEADER.count(text) == 1, name
        variants[name] = HEADER.replace(text, other)
    source = "".join(f"namespace v{number} {{ {text} }}\n" for number, text in enumerate(variants.values()))
    lines = layouts.layouts(source, COMPILER, [], "")
    found = {}
    for number, name in enumerate(variants):
        prefix = f"v{number}::"
        found[name] = {line.replace(prefix, "") for line in lines if line.startswith(prefix)}
    return found


class Layouts(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.found = all_layouts()

    def test_every_break_is_found(self):
        for name in BREAKS:
            with self.subTest(name):
                breaks, _ = layouts.judge(self.found["unchanged"], self.found[name])
                self.assertTrue(breaks)

    def test_what_breaks_nothing_is_no_false_alarm(self):
        for name in HARMLESS:
            with self.subTest(name):
                breaks, _ = layouts.judge(self.found["unchanged"], self.found[name])
                self.assertEqual(breaks, [])

    def test_there_are_twenty_of_each(self):
        self.assertGreaterEqual(len(BREAKS), 20)
        self.assertGreaterEqual(len(HARMLESS), 20)

    def test_what_is_new_is_told(self):
        _, adds = layouts.judge(self.found["unchanged"], self.found["an enumerator more at the end"])
        self.assertEqual(adds, ["new: Level: enumerator kHighest = 3"])


if __name__ == "__main__":
    unittest.main()

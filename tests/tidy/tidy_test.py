#!/usr/bin/env python3
"""Each check of tidy.py finds the fault that it is there for, and nothing in a sound tree."""

import pathlib
import shutil
import tempfile
import textwrap
import unittest

import tidy

SOUND = {
    "include/kl/export.h": "#pragma once\n",
    "include/kl/message.h": '#pragma once\n#include "kl/export.h"\n',
    "lib/message/rep.h": "#pragma once\n",
    "lib/message/rep.cpp": """\
        // The representation that copies of a message share.
        #include "message/rep.h"
        #include "kl/message.h"
        // Kept on purpose: the newest comes first.  Held by
        // Rep.NewestComesFirst.
        """,
    "tests/lib/message/rep_test.cpp": '#include "message/rep.h"\nTEST(Rep, NewestComesFirst) {}\n',
    "lib/base/byte_order.h": "#pragma once\n",
    "lib/loop/timers.cpp": '// The timers of a loop.\n#include "base/byte_order.h"\n',
    "tests/lib/loop/timers_test.cpp": "",
    "services/common/section.h": "#pragma once\n",
    "services/loader/routing/router.h": "#pragma once\n",
    "services/loader/routing/router.cpp":
        '// The way of a frame.\n#include "routing/router.h"\n#include "kl/message.h"\n'
        '#include "services/common/section.h"\n',
    "tests/services/loader/routing/router_test.cpp": '#include "services/loader/routing/router.h"\n',
    "docs/man/klctl.1": '.TH KLCTL 1 2026-01-01 kelo Commands\n.SH NAME\nklctl \\- a client\n',
}


class TidyTest(unittest.TestCase):
    def findings(self, check, changes=None):
        with tempfile.TemporaryDirectory() as folder:
            for name, text in {**SOUND, **(changes or {})}.items():
                if text is not None:
                    path = pathlib.Path(folder, name)
                    path.parent.mkdir(parents=True, exist_ok=True)
                    path.write_text(textwrap.dedent(text))
            found = tidy.CHECKS[check](tidy.Tree(folder))
            return [f"{path}:{line}: {text}" for path, line, text in found]

    def test_nothing_is_found_in_a_sound_tree(self):
        for check in tidy.CHECKS:
            with self.subTest(check):
                self.assertEqual(self.findings(check), [])

    def test_a_source_without_its_test(self):
        self.assertEqual(self.findings("tests", {"tests/lib/message/rep_test.cpp": None}),
                         ["lib/message/rep.cpp:1: no tests/lib/message/rep_test.cpp, and no reason in tests/tidy/exceptions.txt"])

    def test_an_exception_needs_a_reason(self):
        self.assertEqual(self.findings("tests", {"tests/lib/message/rep_test.cpp": None,
                                                 tidy.EXCEPTIONS: "lib/message/rep.cpp\n"}),
                         ["tests/tidy/exceptions.txt:1: no reason for lib/message/rep.cpp"])

    def test_an_exception_that_is_not_needed(self):
        self.assertEqual(self.findings("tests", {tidy.EXCEPTIONS: "# why\nlib/message/rep.cpp is odd\n"}),
                         ["tests/tidy/exceptions.txt:2: lib/message/rep.cpp has its test: no exception is needed"])

    def test_an_exception_for_a_source_that_is_gone(self):
        self.assertEqual(self.findings("tests", {tidy.EXCEPTIONS: "lib/message/gone.cpp is odd\n"}),
                         ["tests/tidy/exceptions.txt:1: no source lib/message/gone.cpp"])

    def test_an_internal_header_in_another_folder(self):
        self.assertEqual(self.findings("includes", {"lib/loop/timers.cpp": '#include "message/rep.h"\n'}),
                         ["lib/loop/timers.cpp:1: lib/message/rep.h is internal to lib/message/"])

    def test_an_internal_header_in_another_folders_tests(self):
        self.assertEqual(self.findings("includes", {"tests/lib/loop/timers_test.cpp": '\n#include "message/rep.h"\n'}),
                         ["tests/lib/loop/timers_test.cpp:2: lib/message/rep.h is internal to lib/message/"])

    def test_a_fuzz_target_sees_what_the_tests_of_its_subject_see(self):
        self.assertEqual(self.findings("includes", {"fuzz/wire_fuzz.cpp": '#include "message/rep.h"\n'}), [])

    def test_a_public_header_that_includes_an_internal_one(self):
        self.assertEqual(self.findings("includes", {"include/kl/field.h": '#include "message/rep.h"\n'}),
                         ["include/kl/field.h:1: lib/message/rep.h is internal to lib/message/"])

    def test_a_room_that_looks_up(self):
        self.assertEqual(self.findings("arrows", {"tools/klctl/values/json.cpp": '#include "verbs/watch.h"\n',
                                                  "tools/klctl/verbs/watch.h": ""}),
                         ["tools/klctl/values/json.cpp:1: tools/klctl/verbs/watch.h does not lie below "
                          "tools/klctl/values"])

    def test_a_room_of_the_library_that_looks_up(self):
        self.assertEqual(self.findings("arrows", {"lib/base/report.cpp": '#include "message/rep.h"\n'}),
                         ["lib/base/report.cpp:1: lib/message/rep.h does not lie below lib/base"])

    def test_what_lies_in_no_room_may_be_seen_by_nobody_below(self):
        self.assertEqual(self.findings("arrows", {"tools/klctl/main.h": "",
                                                  "tools/klctl/verbs/a.cpp": '#include "main.h"\n'}),
                         ["tools/klctl/verbs/a.cpp:1: tools/klctl/main.h does not lie below tools/klctl/verbs"])

    def test_an_example_sees_no_shared_room(self):
        self.assertEqual(self.findings("includes", {"examples/hello.cpp": '#include "services/common/section.h"\n'}),
                         ["examples/hello.cpp:1: services/common/section.h is internal to services/common/"])

    def test_a_source_that_does_not_open_with_what_it_does(self):
        self.assertEqual(self.findings("essays", {"lib/loop/timers.cpp": '#include "base/byte_order.h"\n// Late.\n',
                                                  "examples/hello.cpp": "\n// Behind an empty line.\n",
                                                  "tools/klctl/main.cpp": "//\n",
                                                  "lib/loop/timers.h": "#pragma once\n",
                                                  "tests/lib/loop/timers_test.cpp": '#include "loop/timers.h"\n'}),
                         [f"{path}:1: does not open with a comment that says what it does" for path in
                          ("examples/hello.cpp", "lib/loop/timers.cpp", "tools/klctl/main.cpp")])

    def test_a_predicate_that_does_not_answer(self):
        self.assertEqual(self.findings("predicates", {"services/loader/routing/router.h": "#pragma once\n"
                                                      "bool isFull();\n"
                                                      "  virtual void isIdle(Service& s) = 0;\n",
                                                      "lib/message/rep.cpp": "void Rep::hasNews() {}\nvoid issue();\n"}),
                         ["lib/message/rep.cpp:1: hasNews asks and does not answer",
                          "services/loader/routing/router.h:3: isIdle asks and does not answer"])
        self.assertEqual(self.findings("predicates", {"lib/message/rep.cpp": "// not void isIdle(): it acts\n"}), [])
        self.assertEqual(self.findings("predicates", {"include/kl/table.h": "  void canUndo();\n  void mayLeave();\n"
                                                      "  void mustAnswer();\n  void cancel();\n  void mayor();\n"}),
                         ["include/kl/table.h:1: canUndo asks and does not answer",
                          "include/kl/table.h:2: mayLeave asks and does not answer",
                          "include/kl/table.h:3: mustAnswer asks and does not answer"])

    def test_a_function_that_is_too_long(self):
        def of(lines, indent=""):
            body = ["  x();"] * (lines - 4) + ["", "  if (a) {", "    y();", "  }"]
            head = ["C::C(int a,", "     int b)", "    : c_([] {", "        a();", "      }) {"]
            return "".join(f"{indent}{line}\n" for line in [*head, *body, "}"])
        longest = of(29) + "struct S {\n" + of(29, "  ") + of(29, "  ") + "};\n"
        self.assertEqual(self.findings("functions", {"lib/loop/a.cpp": f"namespace kl {{\n{longest}}}\n"}), [])
        self.assertEqual(self.findings("functions", {"lib/loop/a.cpp": of(30), "tests/lib/loop/a_test.cpp": of(30)}),
                         ["lib/loop/a.cpp:1: 30 lines, and a function has at most 29"])
        self.assertEqual(self.findings("functions", {"lib/loop/a.h": "struct S {\n" + of(30, "  ") + "};\n"}),
                         ["lib/loop/a.h:2: 30 lines, and a function has at most 29"])

    def test_a_name_that_is_taken_and_not_used(self):
        self.assertEqual(self.findings("needless", {"tools/klctl/main.cpp": "using kl::message;\nusing kl::field;\nfield f;\n"
                                                  "// message\n"}),
                         ["tools/klctl/main.cpp:1: message is not used"])

    def test_a_header_that_is_included_twice(self):
        self.assertEqual(self.findings("needless", {"tools/klctl/main.cpp": "#include <map>\n#include <set>\n#include <map>\n"}),
                         ["tools/klctl/main.cpp:3: <map> is included twice"])

    def test_a_program_that_includes_anothers_header(self):
        self.assertEqual(self.findings("includes", {"tools/klctl/main.cpp": '#include "services/loader/routing/router.h"\n'}),
                         ["tools/klctl/main.cpp:1: services/loader/routing/router.h is internal to services/loader/"])

    def test_a_program_that_includes_what_only_the_build_makes(self):
        self.assertEqual(self.findings("programs", {"tools/klctl/main.cpp": '#include "fixed_paths.h"\n'}),
                         ['tools/klctl/main.cpp:1: "fixed_paths.h" is neither a public header nor one of tools/klctl/'])
        self.assertEqual(self.findings("programs", {"tools/klctl/main.cpp": '#include "text.h"\n',
                                                    "tools/klctl/text.h.in": ""}), [])

    def test_a_public_header_that_includes_upwards(self):
        self.assertEqual(self.findings("layers", {"include/kl/looper.h": "",
                                                  "include/kl/runner.h": '#include "kl/looper.h"\n'}),
                         ["include/kl/runner.h:1: kl/looper.h does not lie below kl/runner.h"])

    def test_a_public_header_without_a_layer(self):
        self.assertEqual(self.findings("layers", {"include/kl/novel.h": ""}),
                         ["include/kl/novel.h:1: this public header has no layer: give it one in tests/tidy/tidy.py"])

    def test_a_public_header_that_needs_another_before_it(self):
        found = self.findings("headers", {"include/kl/message.h": "#pragma once\nstd::string text;\n"})
        self.assertEqual(len(found), 1)
        self.assertIn("include/kl/message.h:1: does not compile alone: ", found[0])

    def test_a_note_that_names_no_real_test(self):
        self.assertEqual(self.findings("held-by", {"lib/message/rep.cpp": "\n// Held by Rep.Oldest.\nint x;\n"}),
                         ["lib/message/rep.cpp:2: no test Rep.Oldest"])

    def test_a_note_without_a_name(self):
        self.assertEqual(self.findings("held-by", {"lib/message/rep.cpp": "// Held by the tests.\n"}),
                         ['lib/message/rep.cpp:1: a "Held by" without a Suite.Test'])

    def test_what_is_kept_on_purpose_names_its_test(self):
        self.assertEqual(self.findings("held-by", {"lib/message/rep.cpp": "int y;\n// Kept on\n// purpose: so.\n"}),
                         ["lib/message/rep.cpp:2: kept on purpose, but held by no test"])

    def test_a_page_that_names_no_real_test(self):
        page = "| newest first | `Rep.*`, `.NewestComesFirst` |\n| oldest | `Rep.NewestComes*`, `.Oldest*` |\n`R*.*` `Map.*`\n"
        self.assertEqual(self.findings("held-by", {"lib/message/README.md": page}),
                         ["lib/message/README.md:2: no test Rep.Oldest*", "lib/message/README.md:3: no test Map.*"])
        self.assertEqual(self.findings("held-by", {"docs/guide.md": "`Tidy.*`\n",
                                                   "tests/CMakeLists.txt": "add_test(NAME Tidy.FindsAll COMMAND x)\n"}), [])

    @unittest.skipUnless(shutil.which("groff"), "groff is missing")
    def test_a_man_page_with_an_unknown_macro(self):
        found = self.findings("man-pages", {"docs/man/klctl.1": ".TH KLCTL 1\n.SH NAME\n.XYZ\nklctl\n"})
        self.assertEqual(len(found), 1)
        self.assertRegex(found[0], r"^docs/man/klctl\.1:3: .*XYZ")

    def test_unwanted_words(self):
        self.assertEqual(self.findings("words", {"lib/loop/a.cpp": "// see /" + "home/me/notes\n"}),
                         ["lib/loop/a.cpp:1: a path of one machine: // see /" + "home/me/notes"])
        self.assertEqual(self.findings("words", {"lib/loop/a.cpp": "// TO" + "DO later\n"}),
                         ["lib/loop/a.cpp:1: work undone: // TO" + "DO later"])

    def test_a_line_of_a_document_that_is_too_long(self):
        longest = "\u00e9" * 120
        self.assertEqual(self.findings("lines", {"docs/guide.md": f"{longest}\n{longest}x\n"}),
                         ["docs/guide.md:2: 121 characters, and a document's lines have at most 120"])
        row = "| " + "x" * 119
        made = f"<!-- klgen fields f.toml -->\n{row}\n<!-- klgen end -->\n"
        self.assertEqual(self.findings("lines", {"docs/guide.md": f"{made}{row}\n"}),
                         ["docs/guide.md:4: 121 characters, and a document's lines have at most 120"])
        self.assertEqual(self.findings("lines", {"docs/man/klctl.1": "x" * 121 + "\n",
                                                 "lib/README.md": "x" * 121 + "\n",
                                                 "lib/loop/a.cpp": "// " + "x" * 121 + "\n"}),
                         ["docs/man/klctl.1:1: 121 characters, and a document's lines have at most 120",
                          "lib/README.md:1: 121 characters, and a document's lines have at most 120"])


if __name__ == "__main__":
    unittest.main()

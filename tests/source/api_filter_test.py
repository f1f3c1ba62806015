#!/usr/bin/env python3
"""What the filter of the API reference makes of a header, in its hard cases.

Usage: api_filter_test.py SOURCE_DIR
"""

import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(sys.argv.pop(1)) / "docs/api"))
import doxygen_filter  # noqa: E402


def filtered(source):
    return doxygen_filter.Filter("x.h", source.removeprefix("\n")).run()


class FilterTest(unittest.TestCase):
    def expect(self, source, wanted):
        """Exactly these lines: none more, none less, each in its place."""
        self.assertEqual(filtered(source).split("\n"), wanted.removeprefix("\n").split("\n"))

    def test_the_comment_at_the_head_is_the_files(self):
        self.expect("""
// A layer.
//
// Threads: any.
#ifndef X_H
#include <a.h>
""", """
/** @file x.h A layer.
 *
 * Threads: any. */
#ifndef X_H
#include <a.h>
""")

    def test_a_comment_before_a_declaration_is_its_own(self):
        self.expect("""
#ifndef X_H
// Starts.
// 0: it runs.
int start(int a,
          int b);
""", """
#ifndef X_H
/** Starts.
 * 0: it runs. */
int start(int a,
          int b);
""")

    def test_the_form_of_c(self):
        self.expect("""
struct s
{
    /* Before. */
    int a; /* one
            * goes on */
    int b; /* two */
};
/* A line.
 *
 * Another. */
int f(void);
""", """
struct s
{
/** Before. */
int a; /**< one
 * goes on */
int b; /**< two */
};
/** A line.
 *
 * Another. */
int f(void);
""")

    def test_a_comment_behind_goes_on_in_its_column_alone(self):
        self.expect("""
struct s
{
    int a;       // of a,
                 // still of a
    // Of b.
    int b;
    int c;       // of c
                 // still
    const char* d[2];  // of d
};
""", """
struct s
{
int a; /**< of a,
 * still of a */
/** Of b. */
    int b;
int c; /**< of c
 * still */
const char* d[2]; /**< of d */
};
""")

    def test_a_heading_stays_with_what_follows(self):
        self.expect("""
class C
{
public:
    // Before the group.
    virtual void a() = 0;

    // Lists, one
    // of a process. Change
    // them seldom.

    // Sets.
    virtual void b() = 0;

protected:
    ~C() = default;  // nobody's
};
""", """
class C
{
public:
/** Before the group. */
    virtual void a() = 0;

/** @name Lists, one of a process.
 * Change
 * them seldom.
 * @{ */
/** Sets. */
    virtual void b() = 0;
/** @} */
protected:
~C() = default; /**< nobody's */
};
""")

    def test_headings_follow_each_other(self):
        self.expect("""
extern "C"
{
    // Memory.

    // Takes.
    void* take();

    // Mutexes.

    // Locks.
    int lock();
}  // extern "C"

#endif
""", """
extern "C"
{
/** @name Memory
 * @{ */
/** Takes. */
    void* take();
/** @} */
/** @name Mutexes
 * @{ */
/** Locks. */
    int lock();
/** @} */ }  // extern "C"

#endif
""")

    def test_a_heading_with_nothing_after_it_is_none(self):
        source = "struct s\n{\n    int a;\n    // The end.\n\n};\n"
        self.assertEqual(filtered(source), source)

    def test_a_heading_whose_first_sentence_ends_in_its_first_line_loses_nothing(self):
        self.expect("""
int z;
// Suites, in order. A
// number each
// of them.

// Sets.
int set();

#endif
""", """
int z;
/** @name Suites, in order.
 * A number each
 * of them.
 * @{ */
/** Sets. */
int set();
/** @} */
#endif
""")

    def test_what_is_said_of_enumerators(self):
        self.expect("""
enum e
{
    OK = 0, /* success */

    /* Of calls. */
    BAD = 1, /* bad: not
              * good */
    BUSY = 2,

    LAST = (1 << 3)  // last
};
""", """
enum e
{
OK = 0, /**< success */

    /* Of calls. */
BAD = 1, /**< Of calls: bad: not
 * good */
BUSY = 2, /**< Of calls. */

LAST = (1 << 3) /**< last */
};
""")

    def test_a_neighbour_shares_the_comment(self):
        self.expect("""
int z;
// Locks or unlocks.
int lock(int* m,
         int* n);
int unlock(int* m);

int alone();
""", """
int z;
/** Locks or unlocks. */
int lock(int* m,
         int* n);
/** @copydoc lock */ int unlock(int* m);

int alone();
""")

    def test_no_field_shares_its_neighbours_comment(self):
        self.expect("""
struct s
{
    // Of a.
    int a;
    int b;
};
""", """
struct s
{
/** Of a. */
    int a;
    int b;
};
""")

    def test_what_is_indented_stands_as_it_is(self):
        self.expect("""
int z;
// Pairs:
//   a=<B>   one
//             more
// Then text.
int f();
""", """
int z;
/** Pairs: @verbatim
     a=<B>   one
               more @endverbatim
 * Then text. */
int f();
""")

    def test_nothing_is_taken_for_a_command(self):
        self.expect(r"""
int z;
// \n is @x or <b> & #1, 50 %d of `size` // *a
int f();
""", r"""
int z;
/** \\n is \@x or &lt;b&gt; &amp; \#1, 50 \%d of <code>size</code> // *a */
int f();
""")

    def test_the_end_of_a_comment_within_a_comment(self):
        self.assertIn("a *&zwj;/ b", filtered("int z;\n// a */ b\nint f();\n"))

    def test_comments_that_are_nobodys_stay_as_they_are(self):
        for source in ('extern "C"\n{  // begin\n}  // extern "C"\n',
                       "#endif  // X_H\n",
                       "int f(int a,  // first\n      int b);\n",
                       "int f(int a,\n      // second\n      int b);\n",
                       "int f(int /* unused */);\n",
                       "inline int f()\n{\n    // why\n    return 1;  // how\n}\n",
                       "int z;\n// Checked here.\nstatic_assert(sizeof(int) == 4, \"\");\n",
                       "int z;\n// Which.\n#ifdef X\n#endif\n",
                       'const char* a = "// none";\nchar b = \'"\';\n'):
            with self.subTest(source):
                self.assertEqual(filtered(source), source)

    def test_a_macro_has_its_comment(self):
        self.expect("""
int z;
// Before.
#define A 1
#define B 2  // behind
#define C(x) \\
    (x)
int y;  // of y
""", """
int z;
/** Before. */
#define A 1
#define B 2 /**< behind */
#define C(x) \\
    (x)
int y; /**< of y */
""")

    def test_an_apostrophe_ends_nothing(self):
        self.expect("""
struct s
{
    int a;  // the system's
            // choice; isn't it
    int b;  // "quoted
};
""", """
struct s
{
int a; /**< the system's
 * choice; isn't it */
int b; /**< "quoted */
};
""")


if __name__ == "__main__":
    unittest.main()

"""What the generator refuses. usage: generate_test.py GENERATOR"""
import pathlib
import subprocess
import sys
import tempfile
import unittest

GENERATOR = pathlib.Path(sys.argv.pop(1))

DESCRIPTION = """
namespace: Test
managed:
  - name: Shop
    doc: A shop.
    enums: [{name: State, doc: Whether it sells., values: [closed, open]}]
    methods:
      - name: Store
        doc: Takes a thing.
        parameters: [{name: thing, type: Thing, doc: The thing.}]
        returns: Thing
types:
  - {name: Thing, doc: A thing., members: [{name: title, type: string, doc: Its name.}]}
  - {name: Toy, base: Thing, doc: A toy.}
"""

# Each with the text of DESCRIPTION that it replaces and the error.
MISTAKES = [
    ("namespace:", "nameSpace:", "a description without 'namespace'"),
    ("types:", "type:", "a description has no 'type'"),
    ("members:", "member:", "Thing: a type has no 'member'"),
    ("type: string, doc", "type: string, dok", "Thing: title: a member without 'doc'"),
    ("type: string", "type: text", "Thing.title: 'text' is not a type of this description"),
    ("type: string", "type: 'string?[]'", "Thing.title: 'string?[]' is not a type"),
    ("type: string", "type: ref(Mall)", "Thing.title: 'Mall' is not a managed type"),
    ("base: Thing", "base: Thong", "Toy: base 'Thong' is not a type of this description"),
    ("name: Toy", "name: Thing", "Thing: declared twice"),
    ("name: Toy", "wire: Thing, name: Toy", "two types are called 'Thing' on the wire"),
    ("returns: Thing", "return: Thing", "Shop: Store: a method has no 'return'"),
    ("returns: Thing", "returns: int", "Shop.Store: results are objects or references"),
    ("values:", "value:", "Shop: State: an enumeration without 'values'"),
]


class Generator(unittest.TestCase):
    def generate(self, description):
        """The generator's exit status, its error output and the header, or None."""
        with tempfile.TemporaryDirectory() as folder:
            pathlib.Path(folder, "test.yaml").write_text(description, encoding="utf-8")
            result = subprocess.run([sys.executable, GENERATOR.resolve(), "header", "test.yaml", "test.h"], cwd=folder,
                                    capture_output=True, text=True, check=False)
            output = pathlib.Path(folder, "test.h")
            header = output.read_text(encoding="utf-8") if output.exists() else None
            return result.returncode, result.stderr, header

    def test_takes_the_description_that_the_mistakes_are_made_in(self):
        status, error, header = self.generate(DESCRIPTION)
        self.assertEqual((status, error), (0, ""))
        self.assertIn("class Toy : public Test::Thing", header)

    def test_refuses_mistakes_says_where_and_writes_nothing(self):
        for right, wrong, error in MISTAKES:
            with self.subTest(wrong):
                self.assertIn(right, DESCRIPTION)
                self.assertEqual(self.generate(DESCRIPTION.replace(right, wrong)),
                                 (1, f"generate.py: test.yaml: {error}\n", None))

    def test_refuses_what_is_no_yaml(self):
        status, error, header = self.generate("namespace: [Test")
        self.assertEqual((status, header), (1, None))
        self.assertTrue(error.startswith("generate.py: "), error)


if __name__ == "__main__":
    unittest.main()

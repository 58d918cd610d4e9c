"""What the generator refuses. usage: generate_test.py GENERATOR"""
import pathlib
import subprocess
import sys
import tempfile
import unittest

GENERATOR = pathlib.Path(sys.argv.pop(1))
sys.dont_write_bytecode = True
sys.path.insert(0, str(GENERATOR.parent))
import generate  # noqa: E402  (found beside the generator that was named)

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


class Folder:
    """A folder for the files of one test."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory()
        self.schema = pathlib.Path(self.folder.name, "test.yaml")
        self.output = pathlib.Path(self.folder.name, "test.h")

    def generate(self, description):
        """The error that the description is refused with; nothing when it is taken."""
        self.schema.write_text(description, encoding="utf-8")
        try:
            generate.header(generate.Schema(str(self.schema)))
        except generate.SchemaError as error:
            return str(error).replace(str(self.schema), "test.yaml")
        return ""

    def run(self, description):
        """The generator's exit status and error output."""
        self.schema.write_text(description, encoding="utf-8")
        result = subprocess.run([sys.executable, GENERATOR, "header", self.schema, self.output],
                                capture_output=True, text=True, check=False)
        return result.returncode, result.stderr


class Generator(unittest.TestCase):
    def setUp(self):
        self.folder = Folder()
        self.addCleanup(self.folder.folder.cleanup)

    def test_takes_the_description_that_the_mistakes_are_made_in(self):
        self.assertEqual(self.folder.generate(DESCRIPTION), "")
        self.assertEqual(self.folder.run(DESCRIPTION), (0, ""))
        self.assertIn("class Toy : public Test::Thing", self.folder.output.read_text(encoding="utf-8"))

    def test_refuses_mistakes_and_says_where(self):
        for right, wrong, error in [
                ("namespace:", "nameSpace:", "test.yaml: a description without 'namespace'"),
                ("types:", "type:", "test.yaml: a description has no 'type'"),
                ("members:", "member:", "test.yaml: Thing: a type has no 'member'"),
                ("type: string, doc", "type: string, dok", "test.yaml: Thing: title: a member without 'doc'"),
                ("type: string", "type: text", "test.yaml: Thing.title: 'text' is no type of this description"),
                ("type: string", "type: 'string?[]'", "test.yaml: Thing.title: 'string?[]' is no type"),
                ("type: string", "type: ref(Mall)", "test.yaml: Thing.title: 'Mall' is no managed type"),
                ("base: Thing", "base: Thong", "test.yaml: Toy: base 'Thong' is no type of this description"),
                ("name: Toy", "name: Thing", "test.yaml: Thing: declared twice"),
                ("name: Toy", "wire: Thing, name: Toy", "test.yaml: two types are called 'Thing' on the wire"),
                ("returns: Thing", "return: Thing", "test.yaml: Shop: Store: a method has no 'return'"),
                ("returns: Thing", "returns: int", "test.yaml: Shop.Store: results are objects or references"),
                ("values:", "value:", "test.yaml: Shop: State: an enumeration without 'values'")]:
            with self.subTest(wrong):
                self.assertIn(right, DESCRIPTION)
                self.assertEqual(self.folder.generate(DESCRIPTION.replace(right, wrong)), error)

    def test_ends_with_the_mistake_and_writes_nothing(self):
        for wrong in ["namespace: [Test", DESCRIPTION.replace("members", "member")]:
            status, error = self.folder.run(wrong)
            self.assertEqual(status, 1)
            self.assertTrue(error.startswith("generate.py: "), error)
            self.assertFalse(self.folder.output.exists())


if __name__ == "__main__":
    unittest.main()

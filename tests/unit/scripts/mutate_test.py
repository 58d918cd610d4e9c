"""What scripts/mutate, the only argument, takes for a candidate."""
import importlib.machinery
import importlib.util
import pathlib
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
PATH = sys.argv.pop(1)
loader = importlib.machinery.SourceFileLoader("mutate", PATH)
mutate = importlib.util.module_from_spec(importlib.util.spec_from_loader("mutate", loader))
loader.exec_module(mutate)

CODE = """
int F(int a, bool b) {
    if (a < 3) {
        Call(b, {a, 1});
        return a * 2;
    }
    state.value = true;
    throw Failure("a < 3");
}
"""
LEFT_ALONE = r"""
#define LIMIT 1 + 1
// if (a == 1) { Call(); }
/* a = true; */
enum Column { first = 1, second };
class Reader : public Base<int, 3> {
    explicit Reader(int start);
    virtual bool Done() const = 0;
    Map<int> values;
};
template <class T> bool operator==(const T& a, const T& b) = default;
void F(T&& value, std::vector<T>* list) {
    snmp_log(LOG_ERR, "%d", a + 1);
    spdlog::info("{}", a == b);
    Tessim::Assert(a == 1, "a == 1");
    const char* text = "a == 1 && true; Call();";
    const char* raw = R"(a == 1; "Call();")";
    const auto joined = text + "x";
    char buffer[256];
    out->Reserve(list->size());
    Scope guard(value);
}
"""


class Candidates(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)

    def candidates(self, **sources):
        for name, source in sources.items():
            (self.root / f"{name}.cpp").write_text(source)
        return mutate.candidates(self.root, ["."], (".cpp",))

    def changes(self, source):
        found = set()
        for scope, statement in mutate.statements(source):
            for operator, start, end, new in mutate.mutations(scope, statement):
                found.add((operator, source[start:end], new))
        return found

    def test_every_operator_finds_its_places(self):
        self.assertEqual(self.changes(CODE), {
            ("comparison", "<", "<="), ("condition", "a < 3", None), ("constant", "3", "4"), ("constant", "1", "2"),
            ("arithmetic", "*", "/"), ("constant", "2", "3"), ("boolean", "true", "false"),
            ("removal", "state.value = true;", ";"), ("removal", 'throw Failure("a < 3");', ";")})
        self.assertIn(("logic", "&&", "||"), self.changes("bool F() { return a && b; }"))
        self.assertIn(("removal", "Call(a)->Next();", ";"), self.changes("void F() { Call(a)->Next(); }"))
        self.assertIn(("constant", "0x1Fu", "0x20u"), self.changes("constexpr unsigned limit = 0x1Fu;"))

    def test_comments_texts_logging_and_declarations_are_left_alone(self):
        self.assertEqual(self.changes(LEFT_ALONE), set())

    def test_choice_follows_the_text_and_not_the_place(self):
        other = "int G() { return 7 - 5; }\n"
        together = self.candidates(one=CODE + other)
        (self.root / "one.cpp").unlink()
        apart = self.candidates(a=other, b="\n// Moved.\n" + CODE.replace("(a < 3)", "(a\n        < 3)"))
        self.assertEqual([(found.operator, found.statement, found.new) for found in together if "\n" not in found.new],
                         [(found.operator, found.statement, found.new) for found in apart if "\n" not in found.new])

    def test_a_statement_is_chosen_once(self):
        statements = [found.statement for found in self.candidates(one=CODE, two=CODE)]
        self.assertEqual(len(statements), len(set(statements)))


if __name__ == "__main__":
    unittest.main()

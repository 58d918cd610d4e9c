"""What cmake/WriteVersion.cmake, the second argument, makes of a tree; the first is cmake."""
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPT, CMAKE = sys.argv.pop(), sys.argv.pop()


class WriteVersion(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.tree = pathlib.Path(folder.name)
        self.output = self.tree / "Version.cpp"
        (self.tree / "template").write_text("@VERSION@ @commit@")

    def write(self, commit=""):
        """What is written, and when."""
        subprocess.run([CMAKE, f"-DKELV_COMMIT={commit}", "-DVERSION=1.2.3", f"-DSOURCE={self.tree}",
                        f"-DTEMPLATE={self.tree / 'template'}", f"-DOUTPUT={self.output}", "-P", SCRIPT], check=True)
        return self.output.read_text().strip(), self.output.stat().st_mtime_ns

    def git(self, *arguments):
        names = {f"GIT_{role}_{what}": "nobody" for role in ("AUTHOR", "COMMITTER") for what in ("NAME", "EMAIL")}
        return subprocess.run(["git", *arguments], cwd=self.tree, env={**os.environ, **names}, check=True,
                              capture_output=True, text=True).stdout.strip()

    def test_names_the_commit_that_is_given_or_found(self):
        self.assertEqual(self.write()[0], "1.2.3 unknown")
        self.git("init", "--quiet")
        self.git("add", "template")
        self.git("commit", "--quiet", "--message", "first")
        first = self.git("rev-parse", "--short=12", "HEAD")
        self.assertEqual(self.write()[0], f"1.2.3 {first}")
        (self.tree / "template").write_text("changed @VERSION@ @commit@")
        self.assertEqual(self.write()[0], f"changed 1.2.3 {first}-dirty")
        self.assertEqual(self.write("given")[0], "changed 1.2.3 given")

    def test_writes_only_what_changed(self):
        before = self.write("one")
        os.utime(self.output, ns=(0, 0))
        self.assertEqual(self.write("one"), (before[0], 0))
        self.assertNotEqual(self.write("two")[1], 0)


if __name__ == "__main__":
    unittest.main()

"""The tests of the layer's interfaces, which check it on Linux, over Windows' own calls as wine has them: where the layer
and another Windows agree. docs/windows.md says what each of the others differs in, and which of the two is right."""
import fnmatch
import re
import unittest

from wine import WineTest

DIFFERENT = ["LocalTime.*", "Handles.AClosedOneFailsThoughItsPlaceIsTaken", "Timers.AreSignalledWhenDue",
             "Conversion.MalformedTextIsReplacedInBothDirections", "Privileges.*",
             "Registry.OwnValueChangesSignalOnceForEachArming"]


class Interfaces(WineTest):
    programs = ["tests_interfaces"]

    def run_tests(self, patterns, code):
        return self.wine("C:\\Keldwick\\tests_interfaces.exe", f"--gtest_filter={patterns}", code=code)

    def test_both_agree(self):
        self.run_tests("-" + ":".join(DIFFERENT), 0)

    def test_the_differences_are_still_there(self):
        failed = re.findall(r"^\[  FAILED  \] (\S+) \(\d+ ms\)$", self.run_tests(":".join(DIFFERENT), 1), re.M)
        for pattern in DIFFERENT:  # one that agrees by now is to go off the list
            self.assertTrue(fnmatch.filter(failed, pattern), f"{pattern} is not among {failed}")


if __name__ == "__main__":
    unittest.main()

"""The tests of the layer's interfaces, which check it on Linux, over Windows' own calls as wine has them: where the layer
and another Windows agree. docs/windows.md says what each of the others differs in, and which of the two is right."""
import re

from wine import WineTest

DIFFERENT = {"LocalTime.FollowsTheZoneAndItsConversionsAreInverse", "Handles.AClosedOneFailsThoughItsPlaceIsTaken",
             "Timers.AreSignalledWhenDue", "Conversion.MalformedTextIsReplacedInBothDirections",
             "Privileges.TheSecurityPrivilegeIsHeldByWhoMayReadTheSecurityLog",
             "Registry.OwnValueChangesSignalOnceForEachArming"}


class Interfaces(WineTest):
    programs = ["tests_interfaces"]

    def test_both_agree_but_where_they_are_known_to_differ(self):
        said = self.wine("C:\\Keldwick\\tests_interfaces.exe", code=1)
        failed = re.findall(r"^\[  FAILED  \] (\S+) \(\d+ ms\)$", said, re.M)
        self.assertEqual(DIFFERENT, set(failed), said)  # one that agrees by now is to go off the list

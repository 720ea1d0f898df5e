# SPDX-License-Identifier: MIT
"""The program knows each text that the sources log, and none that they do not."""

import re
import unittest

import place  # pylint: disable=unused-import
import sources
from usbhal_log import texts


def _filled(template):
    """A text as it would be logged."""
    values = {"state": "CONNECTED", "node": "/dev/x", "bool": "true", "error": "5: Input/output error",
              "file": "./UsbHal1.log", "side": "device to finish reading", "payload": "FADA00"}
    return re.sub(r"<(\w+)>", lambda found: values.get(found[1], "7"), template)


class TextsOfTheSources(unittest.TestCase):
    """The texts are taken from the library's sources each time."""

    @classmethod
    def setUpClass(cls):
        cls.logged = sources.logged_texts()

    def test_each_logged_text_has_a_rule(self):
        """A new text in the sources fails here until texts.py tells what it means."""
        for function, row in self.logged:
            with self.subTest(function=function, row=row):
                self.assertTrue(_is_known(function, row), "no rule in texts.py knows this text")

    def test_each_rule_is_logged(self):
        """A rule whose text the sources do not log any more is of no use."""
        for rule in texts.RULES:
            for function in rule.functions:
                with self.subTest(function=function, text=rule.template):
                    self.assertTrue(_is_logged(function, rule, self.logged))

    def test_what_is_left_out_is_in_the_sources(self):
        """What is left out on purpose has to be there."""
        for template in texts.HOST_ROLE:
            with self.subTest(text=template):
                self.assertTrue(any(_matches(row, template) for _, row in self.logged))

    def test_a_text_that_nobody_knows_is_found(self):
        """Without this the test above could pass because it takes anything."""
        self.assertFalse(_is_known("_connectedFunc", ["a text that is new"]))
        self.assertFalse(_is_known("write", ["Add to write queue: ", None]))
        self.assertFalse(_is_known("_mainLoop", [None]))

    def test_each_error_has_its_rule(self):
        """Errors are logged by their texts; error 6 is never logged."""
        for code, text in enumerate(sources.error_texts(), 1):
            with self.subTest(code=code):
                rules = [rule for rule in texts.RULES if rule.kind == f"error_{code}"]
                self.assertEqual(len(rules), 0 if code == 6 else 1)
                self.assertTrue(all(rule.template.startswith(text) for rule in rules))


class Recognising(unittest.TestCase):
    """What the rules make of a line."""

    def test_each_rule_recognises_its_own_text(self):
        """No rule hides another one of the same function."""
        for rule in texts.RULES:
            for function in rule.functions:
                with self.subTest(text=rule.template):
                    self.assertEqual(texts.recognise(function, _filled(rule.template))[0], rule.kind)

    def test_fields_are_taken_out(self):
        """Fields come by their names."""
        kind, fields = texts.recognise(
            "_processDataMessage", "14 new bytes to be read by client connected on port 1")
        self.assertEqual((kind, fields), ("received", {"bytes": "14", "port": "1"}))

    def test_a_text_in_a_foreign_function_is_not_known(self):
        """The same words may mean something else there."""
        self.assertEqual(texts.recognise("_mainLoop", "emit disconnected"), (None, {}))

    def test_a_payload_may_hold_line_breaks(self):
        """A host sends what it likes."""
        kind, fields = texts.recognise("_processAllMessages", "Message: a\nb\0")
        self.assertEqual((kind, fields["payload"]), ("rest", "a\nb\0"))


def _matches(row, template):
    return sources.pattern_of(row).fullmatch(template) is not None


def _fits(row, rule):
    if not any(row):  # it is made elsewhere: an error's text, or nothing but what changes
        return rule.kind.startswith("error_") or not re.search("[A-Za-z]", re.sub(r"<\w+>", "", rule.template))
    logged = "".join("7" if part is None else part for part in row)
    return _matches(row, rule.template) or rule.match(logged) is not None


def _is_known(function, row):
    if any(row) and any(_matches(row, template) for template in texts.HOST_ROLE):
        return True
    return any(_fits(row, rule) for rule in texts.RULES if function in rule.functions)


def _is_logged(function, rule, logged):
    rows = [row for place_, row in logged if place_ == function]
    if rule.kind == "log_ended" or [None] in rows:  # composed elsewhere
        return any(rule.template in text for text in sources.source_files()) or any(_fits(r, rule) for r in rows)
    return any(_fits(row, rule) for row in rows)


if __name__ == "__main__":
    unittest.main()

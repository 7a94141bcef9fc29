#!/usr/bin/python3
"""How the reference page says what a contract may have."""

import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tools"))
import reference  # noqa: E402

CONTRACT = reference.Contract(reference.CONTRACT)


class ReferenceTest(unittest.TestCase):
    def test_a_keyword_that_it_has_no_words_for_is_shown_as_it_stands(self):
        self.assertEqual("a number, multipleOf `3`", CONTRACT.words({"type": "number", "multipleOf": 3}))
        self.assertEqual('a string, but not `{"minLength": 3}`',
                         CONTRACT.words({"type": "string", "not": {"minLength": 3}}))
        self.assertEqual("a string that matches `^[a-z]{2}$`",
                         CONTRACT.words({"type": "string", "pattern": "^[a-z]{2}$"}))

    def test_a_pattern_of_texts_is_shown_as_these_texts(self):
        self.assertEqual(["a", "b: …"], reference.texts_of("^(a|b: .+)$"))
        self.assertEqual(["…: U+0", "…: $b"], reference.texts_of(r": (U\+0|\$b)$"))
        for pattern in ("^a*$", "^[ab]$", "^a", r"^(a\d|b)$", "^a{2}$"):
            self.assertIsNone(reference.texts_of(pattern), pattern)

    def test_headers_of_traits_and_parts_are_one_table_with_a_line_for_each_user_property(self):
        common = {"required": ["contentType", "userProperties"],
                  "properties": {"contentType": {"const": "application/json"},
                                 "userProperties": {"type": "object", "required": ["run"], "properties": {
                                     "run": {"type": "string", "description": "The run"}}}}}
        own = {"properties": {"userProperties": {"properties": {"sequence": {"type": "string"}}}}}
        message = CONTRACT.message({"traits": [{"headers": common}], "headers": own})
        self.assertEqual(["| MQTT property | There | Value | Meaning |",
                          "|---|---|---|---|",
                          '| Content Type | always | `"application/json"` | |',
                          "| User Property `run` | always | a string | The run. |",
                          "| User Property `sequence` | perhaps | a string | |"],
                         CONTRACT.headers(message["headers"])[0].splitlines())

    def test_headers_that_may_not_be_there_are_said_not_to_be_there(self):
        for closed in ({"properties": {}, "additionalProperties": False}, {"maxProperties": 0}):
            self.assertEqual(["It has no MQTT properties."], CONTRACT.headers({"type": "object", **closed}))
        self.assertEqual([], CONTRACT.headers({"type": "object"}))

    def test_a_pattern_without_words_is_shown_by_an_example_if_there_is_one(self):
        headers = {"properties": {"userProperties": {"type": "object", "properties": {
            "time": {"type": "string", "pattern": "^[0-9]{4}-[0-9]{2}$"}}}}}
        self.assertIn("a string that matches `^[0-9]{4}-[0-9]{2}$`", CONTRACT.headers(headers)[0])
        self.assertIn("a string such as `2026-11`",
                      CONTRACT.headers(headers, [{}, {"userProperties": {"time": "2026-11"}}])[0])

    def test_a_description_may_have_paragraphs_and_lists(self):
        self.assertEqual(["One text.", "Two:", "- `a`: b c\n- d"],
                         reference.prose("One\ntext.\n\nTwo:\n- a: b\n  c\n- d\n", keys=reference.code))

    def test_a_bar_does_not_end_a_cell(self):
        self.assertIn(r"`a\|b`", reference.table(["A"], [["`a|b`"]]))


if __name__ == "__main__":
    unittest.main()

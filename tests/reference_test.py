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
                         CONTRACT.headers(message["headers"]).splitlines())

    def test_a_bar_does_not_end_a_cell(self):
        self.assertIn(r"`a\|b`", reference.table(["A"], [["`a|b`"]]))


if __name__ == "__main__":
    unittest.main()

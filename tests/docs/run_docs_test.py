#!/usr/bin/python3
"""Tests of run_docs.py, with pages whose commands need no channel."""

import sys
import tempfile
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import run_docs  # noqa: E402

run_docs.SOON_S = 1
run_docs.END_S = 5


def console(text, marks=None):
    comment = f"<!-- run: {marks} -->\n" if marks else ""
    return f"{comment}```console\n{text}\n```\n"


class RunDocsTest(unittest.TestCase):
    def wrong(self, *parts):
        """What the runner finds wrong with a page of these parts."""
        with tempfile.TemporaryDirectory() as folder:
            page = Path(folder) / "page.md"
            page.write_text("# A page\n" + "\n".join(parts), encoding="utf-8")
            return run_docs.run(page, Path(folder))

    def assert_right(self, *parts):
        self.assertIsNone(self.wrong(*parts))

    def assert_wrong(self, text, *parts):
        self.assertIn(text, str(self.wrong(*parts)))

    def test_a_page_is_right_when_its_commands_print_what_it_shows(self):
        self.assert_right(console("$ echo one\none\n$ echo two >&2\ntwo\n$ printf 'no end'\nno end\n$ true"))

    def test_what_is_printed_otherwise_is_wrong(self):
        self.assert_wrong("+two", console("$ echo two\none"))

    def test_what_is_not_printed_is_wrong(self):
        self.assert_wrong("-two", console("$ echo one\none\ntwo"))

    def test_what_is_not_shown_is_wrong(self):
        self.assert_wrong("+two", console("$ echo one; echo two\none"))
        self.assert_wrong("+one", console("$ echo one"))

    def test_a_command_that_fails_is_wrong(self):
        self.assert_wrong("status 3 instead of 0", console("$ (exit 3)"))
        self.assert_wrong("ends with 127", console("$ no-such-command"))
        self.assert_wrong("status 3", console("$ (exit 3)\n$ true"))

    def test_a_status_that_is_announced_is_wanted(self):
        self.assert_right(console("$ (exit 3)", "status 3"))
        self.assert_wrong("status 0 instead of 3", console("$ true", "status 3"))
        self.assert_wrong("status 3 instead of 0", console("$ (exit 3)\n$ (exit 3)", "status 3"))

    def test_a_command_that_does_not_end_is_wrong(self):
        self.assert_wrong("has not ended in 1 s", console("$ sleep 1000", "within 1"))

    def test_a_command_goes_on_while_it_is_open(self):
        self.assert_right(console("$ echo one \\\n    two\none two\n$ echo 'three\nfour'\nthree\nfour"))
        self.assert_wrong("the command has no end", console("$ echo 'one"))

    def test_a_terminal_keeps_its_variables_and_shares_them_with_no_other(self):
        self.assert_right(console("$ a=1; f() { echo $a; }"), console("$ f\n1"),
                          console("$ echo \"$a\"\n", "terminal 2"))

    def test_an_ellipsis_stands_for_lines_or_for_text_of_one(self):
        self.assert_right(console("$ seq 9\n1\n…\n8\n9"), console("$ seq 2\n1\n…\n2"), console("$ echo one two\no…wo"))
        self.assert_wrong("does not print", console("$ seq 9\n1\n…\n8"))
        self.assert_wrong("does not print", console("$ seq 2\n1…2"))

    def test_an_ellipsis_stands_for_no_refusal_of_the_broker(self):
        refusal = "E LUMO: the broker refuses things/tv/health: not authorised"
        self.assert_wrong("the page does not show 'E LUMO: the broker refuses things/tv/health",
                          console(f"$ echo one; echo '{refusal}'\none\n…"))
        self.assert_right(console(f"$ echo one; echo '{refusal}'\none\n… LUMO: the broker refuses things/…\n…"))

    def test_what_varies_is_learned_once_and_stands_for_that_from_then_on(self):
        varies = "<!-- varies: 4711 -->\n"
        self.assert_right(varies, console("$ echo port 12\nport 4711\n$ test 4711 = 12\n$ echo 12, 14711\n4711, 14711"))
        self.assert_wrong("+13", varies, console("$ echo 12\n4711\n$ echo 13\n4711"))
        self.assert_wrong("+12 13", varies, console("$ echo 12 13\n4711 4711"))
        self.assert_wrong("nothing has printed it", varies, console("$ echo 4711\n4711"))

    def test_a_command_that_stays_is_waited_for_until_it_has_printed_what_is_shown(self):
        later = "$ (echo one; until [ -e {0} ]; do sleep 0.1; done; echo two; exec sleep 1000)"
        with tempfile.TemporaryDirectory() as folder:
            file = Path(folder) / "file"
            page = (console(later.format(file) + "\none", "terminal m, stays"),
                    console(f"$ touch {file}"))
            self.assert_right(*page, console("two", "terminal m"))
            file.unlink()
            self.assert_wrong("-three", *page, console("three", "terminal m, within 1"))

    def test_a_command_that_stays_prints_nothing_that_is_not_shown(self):
        self.assert_wrong("+two", console("$ (env printf 'one\\ntwo\\n'; exec sleep 1000)\none", "stays"))
        self.assert_right(console("$ (env printf 'one\\ntwo\\n'; exec sleep 1000)\none\n…", "stays"))

    def test_the_next_command_waits_for_the_end_of_the_one_that_stays(self):
        self.assert_right(console("$ sleep 0.3; echo one", "stays"), console("one"), console("$ echo two\ntwo"))
        self.assert_wrong("status 3", console("$ (sleep 0.3; exit 3)", "stays"), console("$ true"))

    def test_control_c_ends_the_command_that_runs(self):
        self.assert_right(console("$ (echo one; exec sleep 1000)\none", "stays"), console("^C\n$ echo two\ntwo"))
        self.assert_right(console("$ (trap 'echo end; exit' INT; echo one; sleep 1000 & wait)\none", "stays"),
                          console("^C\nend"))
        self.assert_wrong("nothing runs", console("^C"))
        self.assert_wrong("nothing runs", console("one"))

    def test_what_comes_soon_is_tried_again_for_a_while(self):
        with tempfile.TemporaryDirectory() as folder:
            count = f"echo >>{folder}/lines; wc -l <{folder}/lines"
            self.assert_right(console(f"$ {count}\n3", "soon"))
            self.assert_wrong("does not print", console(f"$ {count}\n1", "soon"))

    def test_a_block_that_is_not_run_is_marked_with_the_reason(self):
        self.assert_right("<!-- not run: it fails -->\n\n```sh\nfalse\n```\n", "```text\nfalse\n```\n", console("$ true"))
        self.assert_wrong("say so", "```sh\ntrue\n```\n", console("$ true"))
        self.assert_wrong("why", "<!-- not run: -->\n```sh\ntrue\n```\n", console("$ true"))

    def test_a_mark_that_is_not_understood_is_wrong(self):
        self.assert_wrong("no mark 'stay'", console("$ true", "stay"))
        self.assert_wrong("not as it should be", "<!-- run stays -->\n", console("$ true"))
        self.assert_wrong("no block after", "<!-- run: stays -->\ntext\n", console("$ true"))

    def test_a_page_without_commands_is_wrong(self):
        self.assert_wrong("no block to run", "text")

    def test_nothing_is_left_of_what_a_page_has_started(self):
        with tempfile.TemporaryDirectory() as folder:
            file = Path(folder) / "pid"
            self.assert_right(console(f"$ sleep 1000 & echo $! >{file}"))
            process = Path(f"/proc/{file.read_text(encoding='ascii').strip()}/stat")
            # One that nobody has waited for yet has ended, too.
            self.assertTrue(not process.exists() or process.read_text(encoding="utf-8").split()[2] == "Z")


if __name__ == "__main__":
    unittest.main()

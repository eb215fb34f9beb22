"""Every command of the README that runs nat-agent prints what the README shows."""

import re
import shlex

from _agent import FOLDER, SOURCE, finish, run, same


def main():
    (FOLDER / "examples").symlink_to(SOURCE / "examples")
    (FOLDER / "build").mkdir()
    run("examples/branch-office.json", "--state", "build/run-state")  # ./run.sh has run it before
    for block in re.findall(r"^```console\n(.*?)^```$", (SOURCE / "README.md").read_text(), re.MULTILINE | re.DOTALL):
        command, _, shown = block.partition("\n")
        prompt, program, *arguments = shlex.split(command)
        if (prompt, program) == ("$", "nat-agent"):
            _, out, err = run(*arguments)
            same(command, (out + err).splitlines(), shown.splitlines())
    finish()


main()

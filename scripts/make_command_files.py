#!/usr/bin/python3
"""Writes what repeats the commands and options of the two programs, from the programs themselves:
the shell completion in completions/ and the list of commands in docs/man/kova-admin.1.scd.

    make_command_files.py [--build-dir DIR]          writes the files
    make_command_files.py --check [--build-dir DIR]  exit code 1 when a file is not up to date

What kova-admin takes is what its --help says; what kova-mcp takes is the table of modes in
src/app/main.cpp. The build folder is build/linux.
"""

from __future__ import annotations

import argparse
import dataclasses
import json
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
TIMEOUT = 60
INTERNAL_MODES = {"--tool-worker"}
"""Modes that the server starts its own processes with."""

VALUES = {"--writes": "none approval", "--transport": "stdio http"}
"""What the help text lists in prose."""


@dataclasses.dataclass
class Option:
    names: list[str]
    value: str
    """What stands for its value in the help text; empty without one."""
    text: str

    @property
    def completed(self) -> str:
        return self.names[-1]

    @property
    def kind(self) -> str:
        """What completes its value: nothing, a file, a folder, one of several words, free text."""
        if not self.value:
            return ""
        if self.completed in VALUES:
            return VALUES[self.completed]
        # "FILE ..." may be repeated.
        return {"FILE": "FILE", "FOLDER": "FOLDER"}.get(self.value.partition(" ")[0], "TEXT")


@dataclasses.dataclass
class Command:
    path: str
    """The program and the words that choose the command."""
    summary: str
    positionals: list[Option]
    options: list[Option]
    commands: list[str]
    notes: str


# Reading


def section(text: str, name: str) -> str:
    found = re.search(rf"^{name}:\n((?:  .*\n?)+)", text, re.MULTILINE)
    return found[1] if found else ""


def rows(text: str) -> list[tuple[str, str]]:
    """The left and the right column; a text that stands below its long left one goes with it."""
    joined = re.sub(r"^(  \S.*)\n {10,}", r"\1  ", text, flags=re.MULTILINE)
    return [(left, right) for left, right in
            re.findall(r"^  (\S.*?)(?:  +(\S.*))?$", joined, re.MULTILINE)]


def option_of(left: str, text: str) -> Option:
    names, _, value = left.partition(" ")
    value = re.sub(r" ?REQUIRED$", "", value)
    return Option(names.split(","), re.sub(r":.*", "", value), text)


def commands_of(program: Path, path: tuple[str, ...] = ()) -> list[Command]:
    """The command and all below it."""
    text = subprocess.run([str(program), *path, "--help"], capture_output=True, text=True,
                          timeout=TIMEOUT, check=True).stdout
    summary = text.partition("\n")[0]
    below = rows(section(text, "Subcommands"))
    listed = [name for name, _ in below]
    parts = text.rstrip("\n").split("\n\n")
    notes = parts[-1] if not re.match(r"\w+:\n|.*\nUsage:", parts[-1]) else ""
    made = [Command(" ".join((program.name, *path)), summary,
                    [option_of(*row) for row in rows(section(text, "Positionals"))],
                    [option_of(*row) for row in rows(section(text, "Options"))], listed, notes)]
    for name in listed:
        if (*path, name) != ("help",):
            made += commands_of(program, (*path, name))
    return made


def server_modes() -> list[Command]:
    text = (ROOT / "src/app/main.cpp").read_text("utf-8")
    found = re.findall(r'\.argument = "(--[a-z-]+)", \.operands = (\d)', text)
    assert found, "the table of modes is not found"
    options = [Option([name], "PORT" if operands != "0" else "", "")
               for name, operands in found if name not in INTERNAL_MODES]
    return [Command("kova-mcp", "", [], options, [], "")]


# Writing

HEADER = "# Completion for {program}. Written by scripts/make_command_files.py.\n"

BASH = """\
{function}() {{
  local -A commands=(
{commands}
  )
  local -A options=(
{options}
  )
  local -A values=(
{values}
  )
  local current=${{COMP_WORDS[COMP_CWORD]}} path={program} before='' help='' word kind i
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${{COMP_WORDS[i]}}
    kind=''
    if [[ $before == -* ]]; then
      kind=${{values["$path $before"]-}}
    fi
    before=$word
    if [[ -n $kind ]]; then
      before=''
    elif [[ $path == {program} && $word == help ]]; then
      help=1
    elif [[ " ${{commands[$path]-}} " == *" $word "* ]]; then
      path+=" $word"
    fi
  done
  COMPREPLY=()
  kind=''
  if [[ $before == -* ]]; then
    kind=${{values["$path $before"]-}}
  fi
  if [[ -n $help ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${{commands[$path]-}}" -- "$current")
  elif [[ $kind == FILE ]]; then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  elif [[ $kind == FOLDER ]]; then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -d -- "$current")
  elif [[ $kind == TEXT ]]; then
    return 0
  elif [[ -n $kind ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$kind" -- "$current")
  elif [[ $current == -* || -z ${{commands[$path]-}} ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${{options[$path]-}}" -- "$current")
    if [[ $current != -* && -n ${{values["$path <"]-}} ]]; then
      compopt -o filenames 2>/dev/null
      mapfile -t -O "${{#COMPREPLY[@]}}" COMPREPLY < <(compgen -f -- "$current")
    fi
  else
    mapfile -t COMPREPLY < <(compgen -W "${{commands[$path]}}" -- "$current")
  fi
}}
complete -F {function} {program}
"""

ZSH = """\
local -A commands=(
{commands}
)
local -A options=(
{options}
)
local -A values=(
{values}
)
local current=${{words[CURRENT]}} at={program} before='' help='' word kind
local -i i
for ((i = 2; i < CURRENT; i++)); do
  word=${{words[i]}}
  kind=''
  [[ $before == -* ]] && kind=${{values[$at $before]-}}
  before=$word
  if [[ -n $kind ]]; then
    before=''
  elif [[ $at == {program} && $word == help ]]; then
    help=1
  elif [[ " ${{commands[$at]-}} " == *" $word "* ]]; then
    at+=" $word"
  fi
done
kind=''
[[ $before == -* ]] && kind=${{values[$at $before]-}}
if [[ -n $help ]]; then
  compadd -- ${{=commands[$at]-}}
elif [[ $kind == FILE ]]; then
  _files
elif [[ $kind == FOLDER ]]; then
  _files -/
elif [[ $kind == TEXT ]]; then
  return 1
elif [[ -n $kind ]]; then
  compadd -- ${{=kind}}
elif [[ $current == -* || -z ${{commands[$at]-}} ]]; then
  compadd -- ${{=options[$at]-}}
  if [[ $current != -* && -n ${{values[$at <]-}} ]]; then
    _files
  fi
else
  compadd -- ${{=commands[$at]}}
fi
"""

POWERSHELL = """\
# Load it in your profile: . PATH\\{program}.ps1
Register-ArgumentCompleter -Native -CommandName {program}, {program}.exe -ScriptBlock {{
    param($wordToComplete, $commandAst, $cursorPosition)
    $table = ConvertFrom-Json @'
{table}
'@
    $path = '{program}'
    $before = ''
    $help = $false
    $words = @($commandAst.CommandElements | Select-Object -Skip 1 |
        Where-Object {{ $_.Extent.EndOffset -lt $cursorPosition }} |
        ForEach-Object {{ $_.Extent.Text }})
    foreach ($word in $words) {{
        $kind = if ($before.StartsWith('-')) {{ $table.values."$path $before" }}
        $before = $word
        if ($kind) {{
            $before = ''
        }} elseif ($path -eq '{program}' -and $word -eq 'help') {{
            $help = $true
        }} elseif ($table.commands.$path -contains $word) {{
            $path = "$path $word"
        }}
    }}
    $kind = if ($before.StartsWith('-')) {{ $table.values."$path $before" }}
    # Nothing returned: PowerShell completes file names by itself.
    if (-not $help -and ($kind -eq 'FILE' -or $kind -eq 'FOLDER' -or $kind -eq 'TEXT')) {{ return }}
    $found = if ($help) {{ $table.commands.$path }}
        elseif ($kind) {{ $kind.Split(' ') }}
        elseif ($wordToComplete.StartsWith('-') -or -not $table.commands.$path) {{
            $table.options.$path
        }}
        else {{ $table.commands.$path }}
    $found | Where-Object {{ $_.StartsWith($wordToComplete) }} | ForEach-Object {{
        [System.Management.Automation.CompletionResult]::new($_, $_, 'ParameterValue', $_)
    }}
}}
"""


def tables(commands: list[Command]) -> dict[str, dict[str, list[str]]]:
    """What the completion of each shell knows. The value "<" is that of the positional."""
    made: dict[str, dict[str, list[str]]] = {"commands": {}, "options": {}, "values": {}}
    for command in commands:
        if command.commands:
            made["commands"][command.path] = command.commands
        made["options"][command.path] = [option.completed for option in command.options]
        for option in command.options:
            if option.kind:
                made["values"][f"{command.path} {option.completed}"] = [option.kind]
        if any("FILE" in option.value for option in command.positionals):
            made["values"][f"{command.path} <"] = ["FILE"]
    return made


def shell_rows(table: dict[str, list[str]], form: str, indent: str) -> str:
    return "\n".join(indent + form.format(key=key, value=" ".join(words))
                     for key, words in table.items())


def completions(commands: list[Command]) -> dict[str, str]:
    program = commands[0].path
    made = tables(commands)
    header = HEADER.format(program=program)
    bash = {name: shell_rows(table, '["{key}"]="{value}"', "    ") for name, table in made.items()}
    zsh = {name: shell_rows(table, "'{key}' '{value}'", "  ") for name, table in made.items()}
    table = json.dumps({**made, "values": {key: one for key, [one] in made["values"].items()}},
                       indent=2)
    return {
        f"completions/{program}.bash":
            header + BASH.format(program=program, function="_" + program.replace("-", "_"), **bash),
        f"completions/_{program}":
            f"#compdef {program}\n" + header + ZSH.format(program=program, **zsh),
        f"completions/{program}.ps1": header + POWERSHELL.format(program=program, table=table)}


def scdoc(text: str) -> str:
    return re.sub(r"([\\_*#<>])", r"\\\1", text)


def manual_of(command: Command) -> str:
    words = command.path
    for positional in command.positionals:
        words += f" {positional.names[0]}"
    lines = [f"*{scdoc(words)}*", f"\t{scdoc(command.summary)}.", ""]
    for option in [*command.positionals, *command.options]:
        if "--help" in option.names:
            continue
        names = ", ".join(f"*{scdoc(name)}*" for name in option.names)
        value = f" _{scdoc(option.value)}_" if option.value else ""
        lines += [f"\t{names}{value}", f"\t\t{scdoc(option.text)}.", ""]
    if command.notes:
        lines += ["\t" + scdoc(" ".join(command.notes.split())), ""]
    return "\n".join(lines)


def manual(commands: list[Command]) -> str:
    template = (ROOT / "docs/man/kova-admin.1.scd.in").read_text("utf-8")
    below = [command for command in commands[1:] if not command.commands]
    assert template.count("@COMMANDS@\n") == 1
    return template.replace("@COMMANDS@\n", "\n".join(manual_of(command) for command in below))


def files(build: Path) -> dict[str, str]:
    admin = commands_of(build / "kova-admin")
    return {**completions(admin), **completions(server_modes()),
            "docs/man/kova-admin.1.scd": manual(admin)}


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--build-dir", type=Path, default=ROOT / "build" / "linux")
    chosen = parser.parse_args()
    stale = 0
    for name, text in files(chosen.build_dir.resolve()).items():
        path = ROOT / name
        if chosen.check and (not path.exists() or path.read_text("utf-8") != text):
            print(f"{name} is not what the programs take; run scripts/make_command_files.py")
            stale += 1
        elif not chosen.check:
            path.write_text(text, encoding="utf-8")
    return 1 if stale else 0


if __name__ == "__main__":
    sys.exit(main())

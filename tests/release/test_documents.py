"""What the documents say of the version."""

from __future__ import annotations

import re

from harness import newcomer
from harness.targets import ROOT


def test_the_newest_version_of_the_changelog_is_this_one(version: str) -> None:
    headings = re.findall(r"^## (.+)$", (ROOT / "CHANGELOG.md").read_text("utf-8"), re.MULTILINE)
    assert headings[0] == version
    assert all(re.fullmatch(r"\d+\.\d+\.\d+", heading) for heading in headings)


def test_the_readme_installs_this_version_by_the_commands_of_the_guide(version: str) -> None:
    text = (ROOT / "README.md").read_text("utf-8")
    first = text.partition("\n## ")[2]
    assert first.startswith("Install a release\n")
    debian = newcomer.blocks("Debian", "sh", VERSION=version)[0].splitlines()
    windows = newcomer.blocks("Windows", "bat", VERSION=version)[0].splitlines()
    assert f"\n{debian[0]} " in first
    for line in windows:
        assert f"\n{line}\n" in first


def test_the_guide_says_that_no_licence_is_chosen_as_long_as_it_is_so() -> None:
    guide = " ".join((ROOT / "docs" / "install.md").read_text("utf-8").split())
    assert ("has not chosen a licence" in guide) != (ROOT / "LICENSE").exists()

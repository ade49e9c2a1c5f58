#!/usr/bin/env python3
"""Checks that includes point downward only, and that platform code stays in its folder.

Prints one line per violation and ends with 1 when there is one.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent

# What each folder of src/ may include, beside itself.
ALLOWED = {
    "base": set(),
    "platform": {"base"},
    "json": {"platform", "base"},
    "policy": {"json", "platform", "base"},
    "audit": {"policy", "json", "platform", "base"},
    "approval": {"policy", "json", "platform", "base"},
    "db": {"platform", "base"},
    "tools": {"approval", "audit", "db", "policy", "json", "platform", "base"},
    "mcp": {"tools", "policy", "json", "platform", "base"},
    "http": {"platform", "base"},
    "app": {"mcp", "http", "tools", "approval", "audit", "db", "policy", "json", "platform",
            "base"},
}
# The sample stands beside the product: of it, it knows the helpers and the library's contract.
SAMPLE_ALLOWED = ("base/", "platform/", "db/kova_api.h")

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
PLATFORM_CONDITION = re.compile(
    r"^\s*#\s*(?:if|ifdef|ifndef|elif)\b.*\b"
    r"(_WIN32|_WIN64|WIN32|__linux__|__unix__|__MINGW32__|__MINGW64__|__APPLE__|_MSC_VER)\b",
    re.MULTILINE,
)
PLATFORM_HEADER = re.compile(
    r"^\s*#\s*include\s+<(windows\.h|winsock2\.h|ws2tcpip\.h|bcrypt\.h|io\.h|unistd\.h|fcntl\.h|"
    r"poll\.h|pthread\.h|dlfcn\.h|netdb\.h|sched\.h|sys/[^>]+)>",
    re.MULTILINE,
)


def sources(folder):
    return sorted(p for p in (ROOT / folder).rglob("*") if p.suffix in (".h", ".cpp", ".c"))


def check_product(problems):
    for path in sources("src"):
        text = path.read_text()
        relative = path.relative_to(ROOT / "src")
        layer = relative.parts[0]
        for included in INCLUDE.findall(text):
            target = included.split("/")[0]
            if target != layer and target not in ALLOWED[layer]:
                problems.append(f"src/{relative}: {layer} must not include {included}")
        if layer != "platform" and PLATFORM_HEADER.search(text):
            problems.append(f"src/{relative}: a system header outside src/platform")


def check_admin(problems):
    """kova-admin may include all of src/, which check_product keeps from including it."""
    for path in sources("admin"):
        if PLATFORM_HEADER.search(path.read_text()):
            problems.append(f"{path.relative_to(ROOT)}: a system header outside src/platform")


def check_sample(problems):
    for path in sources("sample"):
        for included in INCLUDE.findall(path.read_text()):
            here = (path.parent / included).exists() or (ROOT / "sample" / included).exists()
            if not here and not included.startswith(SAMPLE_ALLOWED):
                problems.append(f"{path.relative_to(ROOT)}: sample must not include {included}")


def check_conditions(problems):
    for folder in ("src", "admin", "sample", "tests", "bench"):
        for path in sources(folder):
            relative = path.relative_to(ROOT)
            if str(relative).startswith("src/platform/"):
                continue
            match = PLATFORM_CONDITION.search(path.read_text())
            if match:
                problems.append(f"{relative}: a platform condition ({match.group(1)})")


def main():
    problems = []
    check_product(problems)
    check_admin(problems)
    check_sample(problems)
    check_conditions(problems)
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Prints how many tests of a JUnit file passed and how many failed; '0 1' for no readable file."""

import sys
import xml.etree.ElementTree as xml


def count(path):
    passed = failed = 0
    for case in xml.parse(path).iter("testcase"):
        if case.find("failure") is not None or case.find("error") is not None:
            failed += 1
        elif case.find("skipped") is None and case.get("status") != "notrun":
            passed += 1
    return passed, failed


def main():
    try:
        passed, failed = count(sys.argv[1])
    except (OSError, xml.ParseError):
        passed, failed = 0, 1
    print(passed, failed)


if __name__ == "__main__":
    main()

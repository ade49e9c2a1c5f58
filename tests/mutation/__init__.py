"""Mutation testing of what decides: changes one place of the sources at a time and looks whether a
unit test fails.

modules.py   which sources belong to which module
syntax.py    finds the changes in a file's syntax tree
schema.py    writes a file that holds all its changes, chosen by a number at run time
objects.py   the copy of the tree, and its builds
tests.py     runs unit tests under limits
campaign.py  judges every change
verdicts.py  equivalent changes, figures, the report
program.py   the command line
"""

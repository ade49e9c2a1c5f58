"""`bench/run`: builds the benchmarks, runs them and prints their tables.

arguments.py    what may be asked for
installing.py   the builds, and the peers that npm installs
stage.py        the sample engine, the policy and the environment of what is measured
benchmarks.py   a function for each benchmark, and what each needs
program.py      the order of a run
"""

"""How cost grows, of ours and of the peers: `bench/run growth`.

program.py   the arguments and the order of the measurements
calls.py     cells, keys, tokens and bytes of messages over the standard streams
sessions.py  sessions of a listener, and listeners
`growth_bench.cpp` beside this folder measures keys and tokens in one process.

A series is {"name", "of", "unit", "items": [...], "samples": [[...] of each number of items]}; `of`
says what is counted. One of another server has the name of ours, and "peer" beside it. Samples of
series with one name are paired by round.
"""

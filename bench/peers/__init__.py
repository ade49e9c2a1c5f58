"""The server next to two that npm installs: `bench/run peers`.

program.py   the arguments and the order of the measurements
subjects.py  the programs, their command lines and requests
stdio.py     a program that is asked over its standard streams
"""

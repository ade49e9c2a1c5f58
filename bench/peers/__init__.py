"""The server next to two that npm installs: `bench/run peers`.

program.py   the arguments and the order of the measurements
subjects.py  the programs, their command lines and requests
watch.py     what a program holds while it is asked
"""

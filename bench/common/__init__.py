"""What several benchmarks share.

stdio.py      a program that is asked over its standard streams
messages.py   the lines that it is asked with
measure.py    what processes hold and have used, from /proc
"""

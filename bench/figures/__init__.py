"""The data files of the benchmarks, and the plots and tables that are made from them.

record.py   what every data file says of its run: machine, load, date, commit
samples.py  quantiles, ratios of paired samples, latency histograms
turns.py    measuring several subjects in turn
raw.py      what programs that are no Python write, made smaller

How a benchmark writes its data
- The benchmark collects one dictionary. `bench/run` has it written by `record.write`, or, where the
  benchmark is no Python program, gives its JSON file to `python3 -m figures.record`.
- The file is `bench/data/NAME.json` after a run with the default parameters, and `NAME.json` in the
  folder of the builds after any other, so that a trial never replaces the figures of a whole run.
- `record.document` puts machine, date, commit, load average (before and after) and the parameters
  in front. Samples that are paired by round stay in the order of the rounds; of other latencies a
  histogram is enough (`samples.latency`).
"""

"""The data files of the benchmarks, and the plots and tables that are made from them.

record.py       what every data file says of its run: machine, date, commit, load
conditions.py   what else the machine did meanwhile
samples.py      quantiles, ratios of paired samples, latency histograms
turns.py        measuring several subjects round by round
raw.py          what programs that are no Python write, made smaller
dataset.py      reading the data files
parameters.py   the default parameters of the benchmarks
provenance.py   whether the data files of the repository are of whole runs
plots.py        the table of plots
plot_series.py  what each plot shows, taken out of the data files
drawings.py, style.py   the drawing, with matplotlib
plot_files.py   the SVG files, and whether they are those of the data
plot_pictures.py        a plot in Markdown
tables.py       the table of tables; *_tables.py and aims.py make them
markdown.py     tables and paragraphs in Markdown, the marked regions of documents
wording.py      how numbers are written

How a benchmark writes its data
- The benchmark collects one dictionary. `bench/run` has it written by `record.write`, or, where the
  benchmark is no Python program, gives its JSON file to `python3 -m figures.record`.
- The file is `bench/data/NAME.json` after a run with the default parameters, and `NAME.json` in the
  folder of the builds after any other, so that a trial never replaces the figures of a whole run.
- `record.document` puts machine, date, commit, load average (before and after), the share of
  processor time that the host of a virtual machine withheld, and the parameters in front. Samples
  that are paired by round stay in the order of the rounds; of other latencies a histogram is enough
  (`samples.latency`).

How a plot is added
- plot_series.py gets a function that takes what is shown out of the data files, as plain lists and
  dictionaries; plots.py a row that names it, a function of drawings.py, and a text for readers who
  do not see the plot.
- A kind that is new gets a function in drawings.py: series and theme in, figure out.
- `bench/plot` draws all; bench/results.md shows it in a <picture> with both variants, which
  `bench/tables --write` puts between `<!-- table plot-NAME -->` and `<!-- end -->`.

How a table is added
- A function from the data files to Markdown (`markdown.table`), and a row in tables.py. The
  document gets the lines `<!-- table NAME -->` and `<!-- end -->`, which `bench/tables --write`
  fills.
  `<!-- table run-NAME -->` is where and when the data file NAME was measured.
- What has an aim gets a row in aims.py.
"""

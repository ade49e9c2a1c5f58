"""Where the time of one call goes: `bench/run account`, Linux, as root.

program.py     the arguments, the calls in turn, the check of the sum
tracing.py     the kernel's trace of the processes that take part
stages.py      the stages of a call, cut out of the trace
processor.py   the processor time of calls in a row, without tracing

The stages are told by the kernel's own tracepoints (system calls, changes of process, page faults),
of the server, its workers and the sample engine alone. So nothing is compiled into the product or
loaded into its processes, and the stages begin and end where any build of it calls the system. A
tracepoint takes a fraction of a microsecond; calls with and without tracing alternate in blocks,
and the sum of the stages has to agree with the calls that are not traced within 15 %.

The floor is an empty program, started by a native program that does nothing else. What the engine
does is what the sample engine does; the client library is the sample's.
"""

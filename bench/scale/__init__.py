"""Many listeners behind HAProxy, and simulated clients that use them: `bench/run scale`.

program.py   the arguments and the order of the phases
stage.py     the sample engine, the listeners and HAProxy
clients.py   one process of simulated clients
https.py     a client's connection
"""

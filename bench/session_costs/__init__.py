"""What sessions, calls, records and proxies cost, for the capacity plan."""

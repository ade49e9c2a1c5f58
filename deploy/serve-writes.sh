#!/bin/sh
# What a client may start as the account kova-mcp. It hands no arguments on: with --issue-approval
# the client could approve its own writes.
set -ae
. /etc/kova-mcp/kova-mcp-writes.env
exec /opt/kova-mcp/kova-mcp
